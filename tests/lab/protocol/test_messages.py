"""Every message type: its bytes, and the special rules of parsing."""

from __future__ import annotations

import pytest

from lab.protocol import message, messages, wire

EXAMPLES = [
    (messages.Response(5, "OK"), 0, b"5~OK~"),
    (messages.LogIn("n", "p", "RELAY", "a", b"\0~\\45678", -3), 1,
     b"n~p~RELAY~a~\\\0\\~\\\\45678~-3~"),
    (messages.LogOut("n", "o"), 2, b"n~o~"),
    (messages.Chat("n", b"~hi"), 3, b"n~\\~hi~"),
    (messages.Caption(b"\x14\x2c\0\0"), 5, b"\x14,\\\0\\\0~"),
    (messages.Heartbeat(), 12, b""),
    (messages.Challenge(77), 14, b"77~"),
    (messages.ConnectOrder(9, 0x0100007F, 9736, b"t", "UDP_REG", 6900, 443), 15,
     b"9~16777343~9736~t~UDP_REG~6900~443~"),
    (messages.ConnectConfirm(2001), 16, b"2001~"),
    (messages.RoutingUpdate("DISCONNECT", 2**32 - 1, 0, -1), 17, b"DISCONNECT~4294967295~0~-1~"),
    (messages.LostConnection(-2), 18, b"-2~"),
    (messages.RelayConnect(3000000000, b"12345678"), 19, b"3000000000~12345678~"),
    (messages.TicketRequest(4, "UDP_REG"), 20, b"4~UDP_REG~"),
    (messages.RelayIdentify([]), 24, b"0~"),
    (messages.RelayIdentify([7, 8]), 24, b"2~7~8~"),
    (messages.VideoFeedback(1 * 256 + 2, 5, "jpeg", b"v"), 65, b"258~5~jpeg~v~"),
    (messages.AudioConfirm(2), 97, b"2~"),
    (messages.PremiumFeatureResponse(1, 2, 65, "OK"), 106, b"1~2~65~OK~"),
    (messages.RelayPort(9736, 6900, 1, 443, 2), 225, b"9736~6900~1~443~2~"),
    (messages.StatusKeyPost("WavecastServer", "true"), 232, b"WavecastServer~true~"),
]  # fmt: skip


@pytest.mark.parametrize(("message", "type_code", "payload"), EXAMPLES)
def test_bytes_and_back(message, type_code, payload):
    message.sender_id, message.dest_id = 10, 20
    assert message.image() == wire.make_image(type_code, 10, 20, payload)
    assert messages.parse(message.image()) == message
    # The pad of a frame is one more empty field, which is ignored.
    assert messages.parse(message.image() + b"~") == message


def test_every_class_has_an_example():
    assert {type(message) for message, _, _ in EXAMPLES} == set(message._CLASS_OF_TYPE.values())


def test_unsigned_numbers_may_be_hexadecimal_or_octal_on_input():
    image = wire.make_image(17, 0, 0, b"CONNECT~0x10~010~192~")
    update = messages.parse(image)
    assert (update.from_id, update.to_id, update.msg_class) == (16, 8, 192)


def test_missing_fields_read_as_empty():
    update = messages.parse(wire.make_image(17, 0, 0, b"CONNECT~"))
    assert update == messages.RoutingUpdate("CONNECT", 0, 0, 0)


def test_a_short_relay_port_has_no_address_and_no_tls():
    for payload in (b"9736~6900~~", b"9736~6900~", b"9736~6900~~443~5~"):
        port = messages.parse(wire.make_image(225, 0, 0, payload))
        assert port == messages.RelayPort(9736, 6900, 0, 0, 0)


def test_ids_sent_as_signed_numbers_wrap():
    assert messages.ConnectConfirm(2**32 - 1).payload() == b"-1~"
    assert messages.parse(messages.ConnectConfirm(2**32 - 1).image()).client_id == -1


@pytest.mark.parametrize("count", [b"-1", b"99999999", b"x"])
def test_an_excessive_relay_count_reads_only_what_is_there(count):
    identify = messages.parse(wire.make_image(24, 0, 0, count + b"~7~"))
    assert identify.relays == ([7] if count == b"99999999" else [])


def test_a_type_without_a_class_is_opaque():
    image = wire.make_image(6, 1, 2, b"anything")
    message = messages.parse(image)
    assert message == messages.Opaque(6, b"anything", sender_id=1, dest_id=2)
    assert message.image() == image == message.received_image


def test_a_payload_that_is_too_long_is_refused():
    assert len(messages.Caption(b"x" * 498).image()) == wire.MAX_IMAGE_LEN
    with pytest.raises(wire.WireError):
        messages.Caption(b"x" * 499).image()


def test_paging_holds_page_and_total():
    page = messages.VideoFeedback(3 * 256 + 200)
    assert (page.page, page.total_pages) == (3, 200)


def test_the_code_tables_keep_their_unusual_order():
    assert messages.RETURN_CODES["REDIRECT"] == 8
    assert messages.RETURN_CODES["SERVICE5 OK"] == 9
    assert set(messages.FUNCTIONS.values()) == {1, 2, 4, 5, 6, 7}
    assert messages.REQUEST_CODES["UDP_REG"] == 2
