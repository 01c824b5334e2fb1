"""Log-in tickets: 16 bytes (client id, address, time stamp, padding) under the relay's DES key.

A relay generates a DES key at every start and sends it to the connection server inside its log-in;
the connection server encrypts tickets with it in ECB mode, 8 bytes at a time.
"""

from __future__ import annotations

import socket
import struct
import time

from cryptography.hazmat.primitives.ciphers import Cipher, algorithms, modes

BLOCK_LEN = 8
PLAIN_LEN = 16


def address_value(dotted: str) -> int:
    """An IPv4 address as the 32-bit number that its network-order bytes make in memory."""
    return struct.unpack("<I", socket.inet_aton(dotted))[0]


def plain_ticket(client_id: int, address: int = 0, issued_at: int | None = None) -> bytes:
    """A ticket before encryption. `address` is a raw 32-bit value, `issued_at` Unix seconds."""
    if issued_at is None:
        issued_at = int(time.time())
    return struct.pack(
        "<IIII", client_id & 0xFFFFFFFF, address & 0xFFFFFFFF, issued_at & 0xFFFFFFFF, 0
    )


def _des(key: bytes) -> Cipher:
    if len(key) != BLOCK_LEN:
        raise ValueError(f"a DES key has 8 bytes, not {len(key)}")
    # Triple DES under three equal keys is single DES.
    return Cipher(algorithms.TripleDES(key * 3), modes.ECB())


def encrypt(plain: bytes, key: bytes) -> bytes:
    """DES-ECB; the length must be a multiple of 8."""
    encryptor = _des(key).encryptor()
    return encryptor.update(plain) + encryptor.finalize()


def decrypt(cipher_text: bytes, key: bytes) -> bytes:
    """Undoes `encrypt`."""
    decryptor = _des(key).decryptor()
    return decryptor.update(cipher_text) + decryptor.finalize()


def make_ticket(
    client_id: int,
    key: bytes,
    *,
    age_secs: int = 0,
    address: str = "127.0.0.1",
    issued_at: int | None = None,
) -> bytes:
    """An encrypted ticket issued `age_secs` ago (negative: in the future)."""
    if issued_at is None:
        issued_at = int(time.time()) - age_secs
    return encrypt(plain_ticket(client_id, address_value(address), issued_at), key)


def read_ticket(ticket: bytes, key: bytes) -> tuple[int, int, int]:
    """Client id, raw address value and signed time stamp of an encrypted ticket."""
    return struct.unpack_from("<IIi", decrypt(ticket, key))
