"""What a connection may send before its log-in: log-ins of the earlier client generation, messages
of other types, up to 20000 bytes, and bytes that are no frames."""

from __future__ import annotations

import pytest

from lab.protocol import messages, wire
from lab.stations.caption_stations import Captioner, Encoder

_BUDGET = 20000
_EARLIER_LOGIN = "log in net message recieved from tessel1 client"


@pytest.fixture(params=["plain", "tls"])
def loose(request, tls_relay, make_station):
    """A connection that has not logged in."""
    return make_station(tls_relay, Captioner, tls=request.param == "tls", login=False)


def _login_frame(server, client_id):
    return messages.RelayConnect(client_id, server.ticket_for(client_id)).frame()


def _chatter(total):
    """Frames of chats whose images, all of odd length, have `total` bytes together."""
    lengths = []
    while total > 600:
        lengths.append(501)
        total -= 501
    while total % 2 == 0 or total > wire.MAX_FRAMED_IMAGE_LEN:
        lengths.append(91)
        total -= 91
    lengths.append(total)
    return [wire.to_frame(wire.make_image(3, 0, 0, b"c" * (length - 9))) for length in lengths]


def _is_admitted(station, server, client_id=4001):
    return station.login(client_id, server.ticket_for(client_id)).return_code == "OK"


def test_a_login_of_the_earlier_generation_is_not_acted_on(loose, tls_relay, server):
    loose.send(messages.LogIn("name", "password", "CAPTION", "agency", b"12345678", 1))
    tls_relay.log.expect(f" - {_EARLIER_LOGIN}")
    assert _is_admitted(loose, server)
    tls_relay.log.expect("authenticated ticket for client 4001")
    assert tls_relay.log.count("received from unauthorized client") == 0


def test_frames_after_earlier_logins_are_handled_without_further_data(loose, tls_relay, server):
    earlier = messages.LogIn("name").frame()
    loose.send_raw(earlier * 3 + messages.Chat("a", b"b").frame() + earlier
                   + _login_frame(server, 4001))  # fmt: skip
    loose.expect(messages.Response, return_code="OK")
    tls_relay.log.expect_in_order(
        *[_EARLIER_LOGIN] * 3, "Message type 0x03 received", _EARLIER_LOGIN,
        "authenticated ticket for client 4001",
    )  # fmt: skip


def test_an_earlier_login_before_the_end_of_the_stream_is_logged(loose, tls_relay):
    loose.send_raw(messages.LogIn("name").frame() * 2 + messages.Heartbeat().frame())
    loose.close()
    tls_relay.log.expect_in_order(
        *[_EARLIER_LOGIN] * 2, "Message type 0x0c received", "Removing client table entry",
    )  # fmt: skip


def test_messages_of_every_other_type_are_discarded_with_a_line(loose, tls_relay, server):
    types = [number for number in range(256) if number not in (1, 19)]
    loose.send_raw(b"".join(wire.to_frame(wire.make_image(one, 7, 8, b"x~")) for one in types))
    host, port = loose.local_address
    tls_relay.log.expect_in_order(
        *[
            f" - Message type 0x{one:02x} received from unauthorized client at {host}({port})- "
            "discarded"
            for one in types
        ]
    )
    assert _is_admitted(loose, server)


def test_images_shorter_than_a_header_are_discarded(loose, tls_relay, server):
    short = [bytes([type_code, *range(length)]) for type_code in (0, 3, 5) for length in (0, 2, 6)]
    loose.send_raw(b"".join(wire.to_frame(image) for image in short))
    assert _is_admitted(loose, server)
    tls_relay.log.expect_in_order(*["received from unauthorized client"] * len(short))


def test_a_client_may_send_20000_bytes_before_its_login(loose, server):
    loose.send_raw(b"".join(_chatter(_BUDGET)))
    assert _is_admitted(loose, server)


def test_a_client_that_sends_more_is_dropped_after_the_message_over_the_limit(
    loose, tls_relay, server
):
    within = _chatter(_BUDGET - 9)
    loose.send_raw(b"".join(within))
    tls_relay.log.expect_in_order(*["received from unauthorized client"] * len(within))
    loose.send_raw(_chatter(9)[0])
    loose.send_raw(_chatter(11)[0])
    assert loose.closed_by_peer()
    host, port = loose.local_address
    line = tls_relay.log.expect(
        f" - WARNING: input TCP count on pre-log-in client at {host}({port})  over limit : "
    )
    assert line.endswith("over limit : 20011 bytes") or line.endswith("over limit : 20020 bytes")


def test_the_first_byte_over_the_limit_is_too_much(loose, tls_relay):
    loose.send_raw(b"".join(_chatter(_BUDGET - 9998) + _chatter(9999)))
    assert loose.closed_by_peer()
    line = tls_relay.log.expect("WARNING: input TCP count on pre-log-in client at")
    assert line.endswith("over limit : 20001 bytes")


def test_a_zero_length_byte_empties_the_buffer(loose, tls_relay, server):
    """Otherwise the byte 0x20 after it would begin a frame and swallow the log-in."""
    loose.send_raw(messages.Chat("a", b"b").frame() + b"\x00\x20rubbish")
    tls_relay.log.expect("Message type 0x03 received")
    assert _is_admitted(loose, server)


def test_a_login_split_into_single_bytes_is_accepted(loose, server):
    for byte in _login_frame(server, 4001):
        loose.send_raw(bytes([byte]))
    loose.expect(messages.Response, return_code="OK")


def test_captions_after_the_login_in_one_write_are_delivered_at_once(
    loose, tls_relay, server, make_station, route
):
    """16 KB are more than one read takes; over TLS they arrive as a single record."""
    encoder = make_station(tls_relay, Encoder)
    route(tls_relay, 4001, encoder, messages.PIPE_CAPTION)
    captions = [messages.Caption(b"%04d" % number * 95, sender_id=4001) for number in range(40)]
    burst = b"".join(caption.frame() for caption in captions)
    loose.send_raw(_login_frame(server, 4001) + burst)
    loose.expect(messages.Response, return_code="OK")
    got = encoder.receive_count(len(captions))
    assert [one.caption for one in got] == [one.caption for one in captions]


def test_a_login_followed_by_the_end_of_the_stream_is_served_first(
    tls_relay, server, make_station, route
):
    """The client half-closes; its answer and its captions are still sent."""
    encoder = make_station(tls_relay, Encoder)
    route(tls_relay, 4001, encoder, messages.PIPE_CAPTION)
    loose = make_station(tls_relay, Captioner, login=False)
    loose.send_raw(_login_frame(server, 4001) + messages.Caption(b"AB", sender_id=4001).frame())
    loose.finish_sending()
    loose.expect(messages.Response, return_code="OK")
    assert encoder.receive_caption()[0] == b"AB"
    assert loose.closed_by_peer()
    server.record.wait_for_type(messages.LostConnection, client_id=4001)
