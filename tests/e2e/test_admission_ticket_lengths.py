"""Tickets of every length: whole blocks of 8 bytes count, and two of them make a ticket."""

from __future__ import annotations

import pytest

from lab.protocol import messages, wire

_IMPROPER = "ticket rejected: improper length"


@pytest.fixture
def present(relay, make_station):
    """Presents an image as log-in; returns the answer. A refused client is disconnected as well."""

    def present(image):
        station = make_station(relay, login=False)
        station.send_image(image)
        answer = station.expect(messages.Response).return_code
        assert answer == "OK" or station.closed_by_peer()
        station.close()
        return answer

    return present


@pytest.fixture
def login_with(server, present):
    """Presents a ticket for a new id, derived from a good one by `change`."""

    def login_with(change):
        client_id = server.new_client_id()
        ticket = change(server.ticket_for(client_id))
        return present(messages.RelayConnect(client_id, ticket).image())

    return login_with


def test_a_ticket_of_less_than_two_blocks_is_refused(relay, login_with):
    for length in range(16):
        answer = login_with(lambda ticket: ticket[:length])
        assert (length, answer) == (length, "UNAUTHORIZED")
    relay.log.expect_in_order(*[_IMPROPER] * 16)
    assert relay.log.count(_IMPROPER) == 16


def test_an_odd_tail_and_further_blocks_are_ignored(login_with):
    for length in (*range(16, 25), 31, 32, 33, 63, 64):
        answer = login_with(lambda ticket: (ticket + bytes(range(100, 164)))[:length])
        assert (length, answer) == (length, "OK")


def test_bytes_beyond_64_are_ignored(login_with):
    for length in (65, 72, 128, 200, 400, 480):
        answer = login_with(lambda ticket: (ticket + b"x" * 500)[:length])
        assert (length, answer) == (length, "OK")


def test_a_good_ticket_after_64_other_bytes_does_not_count(login_with):
    assert login_with(lambda ticket: bytes(64) + ticket) == "UNAUTHORIZED"


def test_a_login_shorter_than_its_header_or_without_fields_is_refused(relay, present):
    lengths = (1, 3, 5, 7, 9)
    for length in lengths:
        assert present(wire.make_image(19, 1, 1)[:length]) == "UNAUTHORIZED"
    relay.log.expect_in_order(*[_IMPROPER] * len(lengths))


def test_fields_that_are_never_ended_are_harmless(server, present):
    """Up to the last byte of the longest frame, and with an escape as the very last byte."""
    longest = wire.make_image(19, 0, 0, b"4001~" + b"z" * 495)
    assert len(longest) == wire.MAX_FRAMED_IMAGE_LEN
    assert present(longest) == "UNAUTHORIZED"
    assert present(wire.make_image(19, 0, 0, b"5" * 500)) == "UNAUTHORIZED"
    assert present(wire.make_image(19, 0, 0, b"4001~" + b"y" * 14 + b"\\")) == "UNAUTHORIZED"
    assert present(wire.make_image(19, 0, 0, b"4001~" + b"z" * 494 + b"\\")) == "UNAUTHORIZED"
    assert present(wire.make_image(19, 0, 0, b"\\" * 500)) == "UNAUTHORIZED"


def test_an_id_in_any_notation_is_harmless(server, present):
    """Its value does not matter here: the ticket of another id must not fit it."""
    for number in ("-1", "99999999999999999999", "0x", "abc", " 4001x", "", "1e300", "nan"):
        payload = number.encode() + b"~" + wire.escape(server.ticket_for(4002)) + b"~"
        assert present(wire.make_image(19, 0, 0, payload)) == "UNAUTHORIZED"


def test_the_ids_of_the_header_do_not_matter(server, present):
    ticket = server.ticket_for(4001)
    login = messages.RelayConnect(4001, ticket, sender_id=77, dest_id=88)
    assert present(login.image()) == "OK"
    server.record.wait_for_type(messages.ConnectConfirm, client_id=4001)
