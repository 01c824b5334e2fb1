"""Which tickets admit a client: their age in both directions, their id, their key, their bytes.

Ages are exact to the second, so an answer only counts when the second in which the ticket was
made had not passed when it came.
"""

from __future__ import annotations

import time

import pytest

from lab.protocol import messages, tickets

_ATTEMPTS = 30
_MISMATCH = "Client login ticket rejected for registration info mismatch"
_TOO_OLD = "Login ticket rejected with large time mismatch"


class _Gate:
    """Presents tickets and reports the results."""

    def __init__(self, relay, make_station):
        self.relay = relay
        self._make_station = make_station

    def present(self, ticket, client_id):
        """The answer to one ticket, and the log lines of the attempt."""
        since = self.relay.log.mark()
        station = self._make_station(self.relay, login=False)
        station.send(messages.RelayConnect(client_id, ticket))
        answer = station.expect(messages.Response).return_code
        if answer == "OK":
            self.relay.log.expect(f"authenticated ticket for client {client_id}", since=since)
        else:
            self.relay.log.expect(f"client ID {client_id} sent invalid ticket", since=since)
        if answer != "OK":
            assert station.closed_by_peer()
        station.close()
        return answer, self.relay.log.text().splitlines()[since:]

    def present_aged(self, age_secs):
        """The answer to a ticket of exactly this age, with its id and its second."""
        server = self.relay.server
        for _ in range(_ATTEMPTS):
            client_id = server.new_client_id()
            second = int(time.time())
            ticket = server.ticket_for(client_id, issued_at=second - age_secs)
            answer, lines = self.present(ticket, client_id)
            if int(time.time()) == second:
                return answer, lines, client_id, second
        raise AssertionError("the clock never stood still for a whole log-in")


@pytest.fixture
def gate(relay, make_station):
    return _Gate(relay, make_station)


def _rejections(lines):
    return [line for line in lines if "rejected" in line]


def test_a_ticket_less_than_300_seconds_off_is_accepted(gate):
    for age_secs in (0, 1, 299, -1, -299):
        answer, lines, _, _ = gate.present_aged(age_secs)
        assert (age_secs, answer, _rejections(lines)) == (age_secs, "OK", [])


def test_a_ticket_from_300_to_600_seconds_off_is_refused_without_a_reason(gate):
    for age_secs in (300, 301, 600, -300, -600):
        answer, lines, _, _ = gate.present_aged(age_secs)
        assert (age_secs, answer, _rejections(lines)) == (age_secs, "UNAUTHORIZED", [])


def test_a_ticket_more_than_600_seconds_off_is_refused_with_a_line(gate):
    address = tickets.address_value("127.0.0.1")
    for age_secs in (601, 100000, -601, -100000):
        answer, lines, client_id, second = gate.present_aged(age_secs)
        assert answer == "UNAUTHORIZED"
        assert [line.partition(" - ")[2] for line in _rejections(lines)] == [
            f"{_TOO_OLD} - plaintext/established info - id={client_id}, addr={address}, "
            f"time={second}, info in ticket - id={client_id}, addr={address}, "
            f"time={second - age_secs}"
        ]


def test_a_time_stamp_with_the_top_bit_set_lies_before_1970(gate, server):
    _, lines = gate.present(server.ticket_for(4001, issued_at=0x80000000), 4001)
    (rejection,) = _rejections(lines)
    assert _TOO_OLD in rejection
    assert rejection.endswith(f"time={2**64 - 2**31}")


def test_a_ticket_of_another_id_is_refused_with_a_line_whatever_its_age(gate, server):
    address = tickets.address_value("10.1.2.3")
    for age_secs in (0, 450, 5000):
        issued_at = int(time.time()) - age_secs
        ticket = server.ticket_for(4002, issued_at=issued_at, address="10.1.2.3")
        answer, lines = gate.present(ticket, 4001)
        assert answer == "UNAUTHORIZED"
        (rejection,) = _rejections(lines)
        assert f"{_MISMATCH} - plaintext/established info - id=4001, addr=" in rejection
        assert rejection.endswith(
            f"info in ticket - id=4002, addr={address}, time={issued_at}"
        )


def test_a_ticket_under_another_key_is_refused(gate, server):
    ticket = server.ticket_for(4001, des_key=bytes(range(1, 16, 2)))
    answer, lines = gate.present(ticket, 4001)
    assert answer == "UNAUTHORIZED"
    assert len(_rejections(lines)) == 1


def test_the_address_in_a_ticket_is_not_compared(gate, server):
    for address in ("10.1.2.3", "255.255.255.255", "0.0.0.0"):
        client_id = server.new_client_id()
        answer, _ = gate.present(server.ticket_for(client_id, address=address), client_id)
        assert answer == "OK"


def _ticket_where(fits, client_id, key):
    """A good ticket whose cipher text fits: address and padding are free."""
    now = int(time.time())
    for start in range(0, 1 << 24, 1 << 14):
        plain = b"".join(
            tickets.plain_ticket(client_id, address, now)[:12] + address.to_bytes(4, "little")
            for address in range(start, start + (1 << 14))
        )
        cipher_text = tickets.encrypt(plain, key)
        for position in range(0, len(cipher_text), 16):
            ticket = cipher_text[position : position + 16]
            if fits(ticket):
                return ticket
    raise AssertionError("no such ticket")


_AWKWARD = {
    "all of them": lambda ticket: all(ticket.count(special) for special in (b"\\", b"~", b"\0")),
    "escape last": lambda ticket: ticket.endswith(b"\\"),
    "delimiter last": lambda ticket: ticket.endswith(b"~"),
    "NUL last": lambda ticket: ticket.endswith(b"\0"),
    "NUL first": lambda ticket: ticket.startswith(b"\0"),
    "delimiter first": lambda ticket: ticket.startswith(b"~"),
    "escape and delimiter": lambda ticket: b"\\~" in ticket,
}


def test_tickets_with_bytes_that_need_escapes_are_accepted(gate, server):
    for what, fits in _AWKWARD.items():
        client_id = server.new_client_id()
        ticket = _ticket_where(fits, client_id, server.des_key)
        assert (what, gate.present(ticket, client_id)[0]) == (what, "OK")
