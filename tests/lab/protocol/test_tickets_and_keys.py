"""Ticket bytes, DES, the encrypted log-in, the format of the public key."""

from __future__ import annotations

import pytest

from lab.protocol import keys, messages, tickets, wire

KEY = bytes.fromhex("133457799BBCDFF1")


def test_a_plain_ticket_byte_by_byte():
    plain = tickets.plain_ticket(0x01020304, 0x0A000001, 0x5F000000)
    assert plain.hex(" ") == "04 03 02 01 01 00 00 0a 00 00 00 5f 00 00 00 00"


def test_the_cipher_is_single_des():
    # A worked example found in many textbooks.
    assert tickets.encrypt(bytes.fromhex("0123456789ABCDEF"), KEY).hex() == "85e813540f0ab405"


def test_equal_blocks_give_equal_cipher_text():
    cipher_text = tickets.encrypt(bytes(16), KEY)
    assert cipher_text[:8] == cipher_text[8:]


def test_a_ticket_reads_back():
    ticket = tickets.make_ticket(77, KEY, address="10.0.0.1", issued_at=1000)
    assert len(ticket) == 16
    assert tickets.read_ticket(ticket, KEY) == (77, 0x0100000A, 1000)


def test_a_late_time_stamp_reads_back_negative():
    ticket = tickets.make_ticket(1, KEY, issued_at=0x80000000)
    assert tickets.read_ticket(ticket, KEY)[2] == -(2**31)


def test_a_key_of_the_wrong_length_is_refused():
    with pytest.raises(ValueError):
        tickets.encrypt(bytes(8), KEY[:7])


@pytest.mark.parametrize("bits", [1024, 2040])
def test_an_encrypted_login_reads_back_from_its_frame(bits):
    key = keys.ServerKey(bits)
    login = messages.LogIn("n", "p", "RELAY", "a", b"12345678", 5)
    image = wire.make_image(1, 0, 0, key.encrypt(login.payload()))
    frame = wire.to_frame(image)
    assert key.decrypt_login(frame[1:]) == login


def test_a_login_under_another_key_is_a_value_error():
    image = wire.make_image(1, 0, 0, keys.ServerKey(1024).encrypt(b"n~"))
    with pytest.raises(ValueError):
        keys.ServerKey(1024).decrypt_login(image)


def test_the_public_key_has_the_form_that_relays_read():
    pem = keys.shared_server_key().public_pem()
    assert pem.startswith(b"-----BEGIN PUBLIC KEY-----\n")


def test_a_certificate_is_written_with_a_private_key_only_we_can_read(tmp_path):
    certificate = keys.write_certificate(tmp_path, "relay", ("127.0.0.1", "127.1.2.3"))
    assert certificate.crt_file.read_bytes().startswith(b"-----BEGIN CERTIFICATE-----")
    assert certificate.key_file.stat().st_mode & 0o777 == 0o600
