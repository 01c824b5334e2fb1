"""The audio part of a relay, as small as possible: admits every client, accepts registrations,
passes every datagram on to every receiver of its program."""

from __future__ import annotations

import os
import select
import socket
import threading
from collections.abc import Callable

from lab.audio.audio_wire import CHANNELS, PROGRAMS, RECEIVE, SEND
from lab.audio.udp_row import UdpRow
from lab.protocol import messages, wire
from lab.stations.station import Station
from lab.support.addresses import new_address
from lab.support.channel import Channel
from lab.support.process_log import ProcessLog


class StandInAudioRelay:
    """Runs from its construction to `close`. `tamper` gets every datagram to pass on and returns
    what is sent in its place; it may keep datagrams for later."""

    def __init__(self) -> None:
        self.address = new_address()
        self.tamper: Callable[[bytes], list[bytes]] = lambda datagram: [datagram]
        self.clients: dict[int, Station] = {}
        self.registrations: list[bytes] = []
        self._receivers: dict[tuple[int, int], tuple[str, int]] = {}
        self._places = [(program, channel) for program in PROGRAMS for channel in CHANNELS]
        self._row = UdpRow(self.address, [2 * p + 100 * c for p, c in self._places])
        self._listener = socket.create_server((self.address, 0))
        self.tcp_port = self._listener.getsockname()[1]
        self.log = ProcessLog()
        reader, self._log_pipe = os.pipe()
        self.log.attach(os.fdopen(reader, "rb"))
        self._wake, self._woken = socket.socketpair()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def audio_port(self, program: int) -> int:
        return self._row.sockets[0].getsockname()[1] + 2 * program

    def __enter__(self) -> StandInAudioRelay:
        return self

    def __exit__(self, *_: object) -> None:
        self._wake.send(b"x")
        self._thread.join(5)
        os.close(self._log_pipe)
        self.log.join()
        for end in (self._row, self._listener, self._wake, self._woken, *self.clients.values()):
            end.close()

    def _say(self, line: str) -> None:
        os.write(self._log_pipe, line.encode() + b"\n")

    def _run(self) -> None:
        poll = select.poll()
        for sock in (*self._row.sockets, self._listener, self._woken):
            poll.register(sock, select.POLLIN)
        while True:
            ready = {fd for fd, _ in poll.poll()}
            if self._woken.fileno() in ready:
                return
            if self._listener.fileno() in ready:
                self._admit()
            for index in self._row.wait(0):
                for datagram, source in self._row.drain(index):
                    self._take(index, datagram, source)

    def _admit(self) -> None:
        sock, _ = self._listener.accept()
        client = Station(Channel(sock))
        client_id = client.expect(messages.RelayConnect).client_id
        self.clients[client_id] = client
        client.send(messages.Response(client_id, "OK"))

    def _take(self, index: int, datagram: bytes, source: tuple[str, int]) -> None:
        program, channel = self._places[index]
        if datagram[16:17] == bytes([messages.RelayConnect.TYPE]) and datagram.endswith(b"~"):
            self._register(program, datagram, source)
            return
        for (_, wanted), (host, port) in self._receivers.items():
            if wanted == program:
                for one in self.tamper(datagram):
                    self._row.sockets[index].sendto(one, (host, port + 2 * channel))

    def _register(self, program: int, datagram: bytes, source: tuple[str, int]) -> None:
        self.registrations.append(datagram)
        marked_id, image = wire.from_datagram(datagram)
        connect = messages.parse(image)
        client_id, flags, host = connect.client_id, connect.dest_id, source[0]
        self._say(
            f"UDP registration messages from source {marked_id}, program_idx {program}, addr {host}"
        )
        if flags >= 8 or connect.ticket == b"bad":
            if marked_id in self.clients:
                self.clients[marked_id].send(messages.Response(marked_id, "UDP UNAUTHORIZED"))
            return
        where = "%s(%d)" % source
        if flags & RECEIVE:
            if (client_id, program) not in self._receivers:
                self._say(f"Client {client_id} registered to rx audio program {program} at {where}")
            self._receivers[client_id, program] = source
        if flags & SEND:
            self._say(f"Client {client_id} registered to send audio program {program} at {where}")
