"""The log-in to the connection server, over plain TCP and TLS: what the relay says there."""

from __future__ import annotations

import pytest

from lab import messages
from lab.tickets import address_value


@pytest.fixture(params=["plain", "tls"])
def any_server(request):
    """A connection server of each kind."""
    return request.getfixturevalue("server" if request.param == "plain" else "tls_server")


def test_the_login_carries_who_the_relay_is(any_server, make_relay):
    make_relay(using=any_server, company="Acme ~ Co\\", username="box 7", password="p~w")
    link = any_server.link
    login = any_server.messages_of(messages.LogIn)[0]
    assert (login.agency, login.name, login.password) == ("Acme ~ Co\\", "box 7", "p~w")
    assert login.function == "RELAY"
    assert login.login_number == link.challenge
    assert len(login.des_key) == 8
    assert all(byte.bit_count() % 2 == 1 for byte in login.des_key)
