"""The archive's web server: which users it admits, what it stores, how it starts and stops."""

from __future__ import annotations

import os
import shutil
import socket
import subprocess
import time
import urllib.error
import urllib.request
from pathlib import Path

import pytest

from lab.archive.endpoint import ArchiveEndpoint
from lab.support.waiting import LabTimeout, wait_until

ROOT = Path(__file__).resolve().parents[3]
TYPE = "text/json; charset=utf-8"
ODD_BODY = bytes(range(256)) + b"\r\n\r\n"


@pytest.fixture(name="endpoint")
def fixture_endpoint():
    with ArchiveEndpoint() as endpoint:
        yield endpoint


def post(endpoint, body, *, after_url="", user=None, password=None, content_type=TYPE):
    """The status of the answer."""
    accounts = urllib.request.HTTPPasswordMgrWithDefaultRealm()
    account = (user or endpoint.user, password or endpoint.password)
    accounts.add_password(None, f"http://{endpoint.address}:{endpoint.port}/", *account)
    opener = urllib.request.build_opener(
        urllib.request.ProxyHandler({}), urllib.request.HTTPDigestAuthHandler(accounts)
    )
    headers = {"Content-Type": content_type}
    request = urllib.request.Request(endpoint.url + after_url, data=body, headers=headers)
    with opener.open(request, timeout=20) as answer:
        return answer.status


def test_a_body_is_stored_as_it_came(endpoint):
    before = time.time()
    assert post(endpoint, ODD_BODY, after_url="&seq=2") == 200
    (stored,) = endpoint.posts()
    assert stored.body == ODD_BODY
    assert (stored.uri, stored.content_type) == ("/captions&seq=2", TYPE)
    assert stored.user == endpoint.user and before <= stored.arrived <= time.time()


def test_bodies_are_listed_in_order_of_arrival(endpoint):
    bodies = [b"%d" % number for number in range(12)]
    for body in bodies:
        post(endpoint, body)
    assert [one.body for one in endpoint.posts()] == bodies


@pytest.mark.parametrize("account", [{"password": "wrong"}, {"user": "nobody"}])
def test_unknown_users_are_refused_and_their_posts_not_stored(endpoint, account):
    with pytest.raises(urllib.error.HTTPError) as refusal:
        post(endpoint, b"x", **account)
    assert refusal.value.code == 401
    assert endpoint.posts() == []


def test_without_authentication_the_answer_asks_for_a_digest(endpoint):
    opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
    with pytest.raises(urllib.error.HTTPError) as refusal:
        opener.open(endpoint.url, data=b"x", timeout=20)
    assert refusal.value.code == 401
    assert refusal.value.headers["WWW-Authenticate"].startswith('Digest realm="caption archive"')


def test_it_comes_back_at_the_same_address_with_its_posts(endpoint):
    post(endpoint, b"before")
    endpoint.stop()
    assert not endpoint.running
    with pytest.raises(urllib.error.URLError):
        post(endpoint, b"meanwhile")
    endpoint.start()
    post(endpoint, b"after")
    assert [one.body for one in endpoint.posts()] == [b"before", b"after"]


def test_an_incomplete_body_is_not_listed(endpoint):
    (endpoint.folder / "posts" / "0001-1.part").write_bytes(b"{")
    assert endpoint.posts() == []


def test_waiting_for_bodies_ends(endpoint):
    post(endpoint, b"x")
    assert len(endpoint.wait_posts(1)) == 1
    with pytest.raises(LabTimeout, match="2 posts"):
        endpoint.wait_posts(2, within_secs=0.05)


def test_two_instances_are_independent(endpoint):
    with ArchiveEndpoint(user="other", password="secret") as other:
        post(other, b"x")
        assert endpoint.posts() == [] and len(other.posts()) == 1
        assert other.url != endpoint.url


def test_a_failed_start_says_why():
    endpoint = ArchiveEndpoint()
    try:
        with (endpoint.folder / "apache.conf").open("a") as configuration:
            configuration.write("NoSuchDirective\n")
        with pytest.raises(LabTimeout, match="Invalid command 'NoSuchDirective'"):
            endpoint.start()
        assert not endpoint.running
    finally:
        endpoint.close()


def test_it_leaves_nothing_behind():
    endpoint = ArchiveEndpoint().start()
    pid = endpoint.pid
    os.kill(pid, 0)
    endpoint.close()
    assert endpoint.pid is None
    assert not endpoint.folder.exists()
    with pytest.raises(ProcessLookupError):
        os.kill(pid, 0)


def test_it_does_not_outlive_its_parent():
    program = (
        "import os\n"
        "from lab.archive.endpoint import ArchiveEndpoint\n"
        "endpoint = ArchiveEndpoint().start()\n"
        "print(endpoint.address, endpoint.port, endpoint.folder, flush=True)\n"
        "os.kill(os.getpid(), 9)\n"
    )
    command = ["/usr/bin/python3", "-c", program]
    done = subprocess.run(command, cwd=ROOT, stdout=subprocess.PIPE, text=True, timeout=60)
    address, port, folder = done.stdout.split()
    wait_until(lambda: not listens(address, int(port)), 10, "the orphan is gone")
    shutil.rmtree(folder)


def listens(address, port):
    try:
        socket.create_connection((address, port), 5).close()
    except OSError:
        return False
    return True
