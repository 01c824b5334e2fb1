"""One receiver among a hundred stops reading: the relay waits for it only once, drops it, and the
others get everything in order."""

from __future__ import annotations

import socket

import pytest
from switching_tools import Drain, arriving_image, got_before_order_fence, line_count

from lab.protocol.messages import PIPE_CAPTION, Caption, LostConnection
from lab.stations.caption_stations import Captioner, Encoder
from lab.support.addresses import new_address
from lab.support.channel import Channel, client_tls_context
from lab.support.tracer import LoopTracer
from lab.support.waiting import patient

READERS = 99
PER_ADDRESS = 50
CHUNK = 100
#: The buffers are full long before that.
MOST_CHUNKS = 100

pytestmark = pytest.mark.skipif(not LoopTracer.supported(), reason="unknown kind of processor")


class StoppedEncoder(Encoder):
    """Its small segments and window make the kernel buffer little for it."""

    @classmethod
    def connect(cls, address, port, *, tls=False, within_secs=5.0):
        sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_MAXSEG, 536)
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        sock.settimeout(patient(within_secs))
        sock.connect((address, port))
        return cls(Channel(client_tls_context().wrap_socket(sock) if tls else sock))


@pytest.fixture
def server(make_server):
    """Its heartbeats would be answered in between."""
    return make_server(heartbeat_secs=60)


@pytest.fixture
def readers(tls_relay, make_station):
    addresses = [new_address() for _ in range(-(-READERS // PER_ADDRESS))]
    stations = [
        make_station(tls_relay, Encoder, source_ip=addresses[n // PER_ADDRESS])
        for n in range(READERS)
    ]
    drains = [Drain(station) for station in stations]
    yield stations, drains
    for drain in drains:
        drain.close()


def calls_for(tracer, chunk_writes):
    """The calls of the passes until this many writes have been made."""
    calls = []
    while calls.count("sendto") < chunk_writes:
        calls += tracer.system_calls()
    return calls


@pytest.mark.parametrize("tls", [False, True], ids=["plain", "tls"])
def test_it_is_waited_for_once(tls_relay, make_station, readers, tls):
    relay = tls_relay
    stations, drains = readers
    captioner = make_station(relay, Captioner, heartbeats=False)
    stopped = make_station(relay, StoppedEncoder, tls=tls)
    middle = READERS // 2
    for receiver in (*stations[:middle], stopped, *stations[middle:]):
        relay.server.orders.connect_route(captioner.client_id, receiver.client_id, PIPE_CAPTION)
    got_before_order_fence(relay.server, captioner)
    lost = f"removing socket for client {stopped.client_id}, and notifying CS"
    # The route is looked up once, in a database.
    frames, calls = [arriving_image(captioner.caption(b"first"))], []
    for drain in drains:
        drain.wait_for_image(frames[0], 20)
    with LoopTracer(relay.pid) as tracer:
        # Until it is dropped. On a busy machine earlier waits may have succeeded; ignored.
        while "close" not in calls and len(frames) < MOST_CHUNKS * CHUNK:
            chunk = [Caption(b"%06d" % (len(frames) + n) + b"x" * 480) for n in range(CHUNK)]
            captioner.send_all(chunk)
            frames += [arriving_image(message) for message in chunk]
            calls = calls_for(tracer, READERS)
    # What was sent to it so far is lost with it, and it costs nothing from now on.
    relay.log.expect_in_order("TCP message send failed in SwitchPacket - rc=-1", lost)
    chunk = [Caption(b"%06d" % number) for number in range(CHUNK)]
    with LoopTracer(relay.pid) as tracer:
        captioner.send_all(chunk)
        calls += calls_for(tracer, READERS)
    frames += [arriving_image(message) for message in chunk]
    assert calls.count("poll") == 1
    relay.server.record.wait_for_type(LostConnection, client_id=stopped.client_id)
    for drain in drains:
        drain.wait_for_image(frames[-1], 20)
        assert drain.images() == frames
    assert line_count(relay, captioner, "removing socket for client") == 1
