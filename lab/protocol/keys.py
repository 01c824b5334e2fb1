"""RSA keys of the connection server, the encrypted log-in, self-signed TLS certificates."""

from __future__ import annotations

import dataclasses
import datetime
import functools
import ipaddress
from pathlib import Path

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import padding, rsa
from cryptography.x509.oid import NameOID

from lab.protocol import messages, wire

# The log-in is encrypted with OAEP over SHA-1, for the mask as well; the protocol fixes both.
_OAEP = padding.OAEP(
    mgf=padding.MGF1(algorithm=hashes.SHA1()),  # noqa: S303
    algorithm=hashes.SHA1(),  # noqa: S303
    label=None,
)


class ServerKey:
    """The RSA key pair whose public half a relay finds in its file "pub.key"."""

    def __init__(self, bits: int = 2048) -> None:
        self._private = rsa.generate_private_key(public_exponent=65537, key_size=bits)
        self.size_bytes = (bits + 7) // 8

    def public_pem(self) -> bytes:
        """The public key as PEM, "BEGIN PUBLIC KEY", the form that relays read."""
        return self._private.public_key().public_bytes(
            serialization.Encoding.PEM, serialization.PublicFormat.SubjectPublicKeyInfo
        )

    def private_pem(self) -> bytes:
        """The private key as PEM, "BEGIN RSA PRIVATE KEY", for a server not written in Python."""
        return self._private.private_bytes(
            serialization.Encoding.PEM,
            serialization.PrivateFormat.TraditionalOpenSSL,
            serialization.NoEncryption(),
        )

    def encrypt(self, plain: bytes) -> bytes:
        """Encrypts as a relay does its log-in payload."""
        return self._private.public_key().encrypt(plain, _OAEP)

    def decrypt_login(self, image: bytes) -> messages.LogIn:
        """The log-in in an image whose payload is one cipher block; ValueError when it is not.

        A block that makes an image of even length is followed by the frame's pad, cut off here.
        """
        _, sender_id, dest_id = wire.read_header(image)
        block = wire.payload_of(image)[: self.size_bytes]
        plain = self._private.decrypt(block, _OAEP)
        return messages.LogIn.from_payload(
            plain, sender_id=sender_id, dest_id=dest_id, received_image=image
        )


def public_pem_of(bits: int) -> bytes:
    """A public key of `bits` bits without a private key, as PEM. It costs nothing, while generating
    a pair of 4096 bits takes minutes on a busy machine."""
    odd = int.from_bytes(b"\xa5" * (bits // 8), "big")
    return (
        rsa.RSAPublicNumbers(65537, odd)
        .public_key()
        .public_bytes(
            serialization.Encoding.PEM, serialization.PublicFormat.SubjectPublicKeyInfo
        )
    )


@functools.lru_cache(maxsize=None)
def shared_server_key(bits: int = 2048) -> ServerKey:
    """A key pair made once per process: generating one takes noticeable time."""
    return ServerKey(bits)


@dataclasses.dataclass(frozen=True)
class Certificate:
    """A TLS certificate and its private key, both PEM files."""

    crt_file: Path
    key_file: Path


@functools.lru_cache(maxsize=None)
def _certificate_key() -> rsa.RSAPrivateKey:
    """Made once per process like the server's key."""
    return rsa.generate_private_key(public_exponent=65537, key_size=2048)


def write_certificate(
    folder: Path, name: str = "lab", addresses: tuple[str, ...] = ("127.0.0.1",)
) -> Certificate:
    """Makes a self-signed certificate for `addresses` and writes it into `folder`."""
    key = _certificate_key()
    subject = x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, name)])
    now = datetime.datetime.utcnow()
    alternatives = [x509.IPAddress(ipaddress.ip_address(address)) for address in addresses]
    certificate = (
        x509.CertificateBuilder()
        .subject_name(subject)
        .issuer_name(subject)
        .public_key(key.public_key())
        .serial_number(x509.random_serial_number())
        .not_valid_before(now - datetime.timedelta(days=1))
        .not_valid_after(now + datetime.timedelta(days=30))
        .add_extension(x509.SubjectAlternativeName(alternatives), critical=False)
        .sign(key, hashes.SHA256())
    )
    made = Certificate(folder / f"{name}.crt", folder / f"{name}.key")
    made.crt_file.write_bytes(certificate.public_bytes(serialization.Encoding.PEM))
    made.key_file.write_bytes(
        key.private_bytes(
            serialization.Encoding.PEM,
            serialization.PrivateFormat.TraditionalOpenSSL,
            serialization.NoEncryption(),
        )
    )
    made.key_file.chmod(0o600)
    return made
