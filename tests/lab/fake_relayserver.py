#!/usr/bin/python3
"""A minimal relay, to test the lab without the real one: logs in, keeps routes in the database,
admits clients by ticket, forwards captions, connects to other relays by order and continues its
session at the next server. FAKE_RELAY_FAULT=silent: never logs in."""

from __future__ import annotations

import configparser
import os
import re
import signal
import socket
import ssl
import struct
import sys
import threading
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))

from cryptography.hazmat.primitives import serialization  # noqa: E402

from lab.database.pgwire import PgConnection, SqlError  # noqa: E402
from lab.protocol import keys, messages, tickets, wire  # noqa: E402
from lab.stations.caption_stations import Station  # noqa: E402
from lab.support.channel import Channel, PeerClosed  # noqa: E402
from lab.support.waiting import LabTimeout, wait_until  # noqa: E402

FAULT = os.environ.get("FAKE_RELAY_FAULT", "")
DES_KEY = os.urandom(8)
config = configparser.ConfigParser()
config.read(sys.argv[sys.argv.index("-f") + 1])
bind_address = config["Bind"]["address"]
clients: dict[int, Station] = {}
server: Station


def log(text: str) -> None:
    print(text, flush=True)


def database(sql: str) -> list:
    schema = re.search(r"search_path=(\w+)", os.environ["PGOPTIONS"]).group(1)
    port = int(os.environ["PGPORT"])
    with PgConnection("127.0.0.1", port, database="tessel", user="postgres") as connection:
        return connection.query(f"SET search_path = {schema}; {sql}")


def log_in(address: str, function: str) -> None:
    global server
    servers = config["Servers"]
    tls = servers.get("use_ssl") == "yes"
    port = int(servers["cs_ssl_port"]) if tls else 9736
    link = Station.connect(address, port, source_ip=bind_address, tls=tls)
    link.show_heartbeats = True
    number = link.expect(messages.Challenge).login_number
    who = config["Login"]
    login = messages.LogIn(
        who["username"], who["password"], function, who["company"], DES_KEY, number
    )
    public = serialization.load_pem_public_key(Path("pub.key").read_bytes())
    block = public.encrypt(login.payload(), keys._OAEP)
    link.send_image(wire.make_image(1, 0, 0, block))
    link.client_id = link.expect(messages.Response, return_code="OK").client_id
    # Clients may connect as soon as the ports are announced.
    server = link
    ports = config["Ports"]
    log("sending relay port message")
    link.send(messages.RelayPort(int(ports["tcp"]), int(ports["rtp"]), 0, ports.getint("ssl", 0)))


def keep_link() -> None:
    servers = config["Servers"]
    names = [servers[key] for key in ("primary", "backup1") if key in servers]
    while True:
        try:
            obey()
        except (PeerClosed, LabTimeout):
            pass
        wait_until(lambda: any(log_in_again(name) for name in names), 60)


def log_in_again(name: str) -> bool:
    try:
        log_in(name, "CONTINUE")
    except (OSError, AssertionError):
        return False
    return True


def connect_to_peer(order: messages.ConnectOrder) -> None:
    address = socket.inet_ntoa(struct.pack("<I", order.relay_address))
    peer = Station.connect(address, order.tcp_port, source_ip=bind_address)
    peer.login(server.client_id, order.ticket)
    clients[order.connect_to_id] = peer
    log(f"received OK message from relay {order.connect_to_id}")
    threading.Thread(target=watch_peer, args=(peer, order.connect_to_id), daemon=True).start()


def watch_peer(peer: Station, peer_id: int) -> None:
    try:
        peer.receive(3600)
    except PeerClosed:
        server.send(messages.LostConnection(peer_id))


def obey() -> None:
    while True:
        message = server.receive(3600)
        if isinstance(message, messages.ConnectOrder):
            connect_to_peer(message)
        if isinstance(message, messages.RoutingUpdate):
            to, source, kind = message.to_id, message.from_id, message.msg_class
            if message.request == "CONNECT":
                database(f"INSERT INTO iopatch VALUES ('{to}','{source}','{kind}')")
            else:
                database(f"DELETE FROM iopatch WHERE clientto='{to}' AND clientfrom='{source}'")


def serve(sock: socket.socket, context: ssl.SSLContext | None) -> None:
    try:
        client = Station(Channel(context.wrap_socket(sock, server_side=True) if context else sock))
        connect = client.expect(messages.RelayConnect)
        if tickets.read_ticket(connect.ticket, DES_KEY)[0] != connect.client_id:
            client.send(messages.Response(server.client_id, "UNAUTHORIZED"))
            client.close()
            return
        log(f"authenticated ticket for client {connect.client_id}")
        clients[connect.client_id] = client
        client.send(messages.Response(server.client_id, "OK", sender_id=server.client_id))
        server.send(messages.ConnectConfirm(connect.client_id))
        while True:
            message = client.receive(3600)
            if isinstance(message, messages.Caption):
                pass_on(message)
    except (PeerClosed, OSError, AssertionError):
        return


def pass_on(caption: messages.Caption) -> None:
    sql = f"SELECT clientto FROM iopatch WHERE clientfrom='{caption.sender_id}' AND msgclass='192'"
    for (to,) in database(sql):
        clients[int(to)].send(caption)


def listen(port: int, context: ssl.SSLContext | None) -> None:
    listener = socket.create_server((bind_address, port))

    def accept() -> None:
        while True:
            sock, _ = listener.accept()
            threading.Thread(target=serve, args=(sock, context), daemon=True).start()

    threading.Thread(target=accept, daemon=True).start()


def main() -> None:
    log("relayserver Version 3.4.8")
    signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGTERM, signal.SIGINT})
    if FAULT != "silent":
        try:
            database("DELETE FROM iopatch")
        except (OSError, SqlError) as error:
            log(f"could not connect to database. relayserver quitting. {error}")
            sys.exit(1)
        listen(int(config["Ports"]["tcp"]), None)
        if config.has_option("SSL", "pem_file"):
            context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            context.load_cert_chain(config["SSL"]["pem_file"], config["SSL"]["key_file"])
            listen(int(config["Ports"]["ssl"]), context)
        log_in(config["Servers"]["primary"], "RELAY")
        threading.Thread(target=keep_link, daemon=True).start()
    signal.sigwait({signal.SIGTERM, signal.SIGINT})
    log("Cleaning up main method")
    os._exit(0)


main()
