"""Messages of clients for the connection server while the link is down: held, traced, replayed in
order and unchanged; and the kinds that are never held."""

from __future__ import annotations

from switching_tools import got_before_fence

from lab.protocol import messages, wire
from lab.support.waiting import wait_until

_TRACE = "TRACE: connection to CS not active, "
#: Types that have no meaning for a server that was away.
_NEVER_QUEUED = (228, 229)


def _post(number):
    return messages.StatusKeyPost("number", str(number))


def _posts(server, since=0):
    """The numbers of the posts that the server got, in order."""
    return [int(one.value) for one in server.record.messages_of(messages.StatusKeyPost, since)]


def _traces(relay, since=0):
    """The sizes in the traces so far."""
    lines = [line for line in relay.log.lines[since:] if _TRACE in line]
    return [int(line.split(_TRACE)[1].split()[0]) for line in lines]


def _lose_link(relay, server):
    since = relay.log.mark()
    server.close()
    relay.log.expect("Lost connection to CS!", since=since)


def _bring_back(relay, server):
    number = len(server.links)
    server.start()
    server.wait_logged_in(20, number=number)


def test_a_hundred_messages_wait_with_traces_and_arrive_in_order(server, relay, make_station):
    station = make_station(relay)
    _lose_link(relay, server)
    station.send_all([_post(number) for number in range(100)])
    relay.log.expect(_TRACE + "65 messages queued")
    assert got_before_fence(station, station) == [], "by now all hundred wait"
    _bring_back(relay, server)
    relay.log.expect("TRACE: have collected 100 messages to de-queue to server", 20)
    relay.log.expect("TRACE: cleared CS queue to 0 messages")
    wait_until(lambda: len(_posts(server)) == 100, 10, "all hundred posts")
    assert _posts(server) == list(range(100))
    assert _traces(relay) == [2, 3, 5, 9, 17, 33, 65]


def test_the_traces_start_over_after_the_queue_was_sent(server, relay, make_station):
    station = make_station(relay)
    for round_start in (0, 10):
        _lose_link(relay, server)
        since = relay.log.mark()
        station.send_all([_post(round_start + number) for number in range(10)])
        relay.log.expect(_TRACE + "9 messages queued", since=since)
        assert _traces(relay, since) == [2, 3, 5, 9]
        _bring_back(relay, server)
        relay.log.expect("TRACE: cleared CS queue to 0 messages", 20, since=since)
    wait_until(lambda: _posts(server) == list(range(20)), 10, "all posts in order")


def test_messages_of_several_clients_keep_their_order(server, relay, make_station):
    first, second = make_station(relay), make_station(relay)
    _lose_link(relay, server)
    first.send(_post(1))
    first.send(_post(2))
    relay.log.expect(_TRACE + "2 messages queued")
    second.send(_post(3))
    relay.log.expect(_TRACE + "3 messages queued")
    _bring_back(relay, server)
    server.record.wait_for_type(messages.StatusKeyPost, value="3")
    assert _posts(server) == [1, 2, 3]
    senders = [one.sender_id for one in server.record.messages_of(messages.StatusKeyPost)]
    assert senders == [first.client_id, first.client_id, second.client_id]


def test_the_kinds_that_are_never_held_are_lost(server, relay, make_station):
    station = make_station(relay)
    # A server that ends before it has read this never knows of the station.
    server.record.wait_for_type(messages.ConnectConfirm, client_id=station.client_id)
    _lose_link(relay, server)
    for code in _NEVER_QUEUED:
        station.send(messages.Opaque(code, b"now or never~"))
    station.send(_post(1))
    # A confirmation and a loss are not held either: the relay makes new ones.
    late = make_station(relay)
    late.close()
    relay.log.expect("Removing client table entry")
    station.send(_post(2))
    relay.log.expect(_TRACE + "2 messages queued")
    _bring_back(relay, server)
    server.record.wait_for_type(messages.StatusKeyPost, value="2")
    kinds = [one.type_code for one in server.record.messages_of(messages.Message)]
    assert not set(kinds) & set(_NEVER_QUEUED)
    assert len(server.record.messages_of(messages.LostConnection)) == 1
    confirms = server.record.messages_of(messages.ConnectConfirm)
    assert [one.client_id for one in confirms] == [station.client_id] * 2


def test_the_never_held_kinds_pass_while_the_link_is_up(server, relay, make_station):
    station = make_station(relay)
    for code in _NEVER_QUEUED:
        station.send(messages.Opaque(code, b"now or never~"))
        server.record.wait_for(lambda message, code=code: message.type_code == code)


def test_a_log_out_while_the_link_is_down_is_reported_later_and_is_no_loss(
    server, relay, make_station
):
    station = make_station(relay)
    _lose_link(relay, server)
    station.logout()
    relay.log.expect(f"received logout from client {station.client_id}")
    _bring_back(relay, server)
    server.record.wait_for_type(messages.LogOut, sender_id=station.client_id)
    assert server.record.messages_of(messages.LostConnection) == []


def test_the_largest_messages_wait_and_arrive_unchanged(server, relay, make_station):
    station = make_station(relay)
    _lose_link(relay, server)
    images = [
        wire.make_image(10, station.client_id, 7, bytes([65 + number]) * length)
        for number, length in enumerate((499, 498, 497, 0, 1))
    ]
    for image in images:
        station.send_image(image)
    relay.log.expect(_TRACE + "5 messages queued")
    _bring_back(relay, server)
    relay.log.expect("TRACE: cleared CS queue to 0 messages", 20)

    def arrived():
        return [one.received_image for one in server.record.messages_of(messages.Opaque)]

    wait_until(lambda: len(arrived()) == len(images), 5, "all images")
    padded = [image + b"~" * (len(image) % 2 == 0) for image in images]
    assert arrived() == padded


def test_many_thousands_of_messages_are_held_without_a_limit(server, relay, make_station):
    station = make_station(relay)
    _lose_link(relay, server)
    count = 20000
    for start in range(0, count, 500):
        station.send_all([_post(start + number) for number in range(500)], 20)
    relay.log.expect(_TRACE + "16385 messages queued", 20)
    _bring_back(relay, server)
    # Not by searching through all of them again and again, which would delay the server.
    server.record.wait_for_type(messages.StatusKeyPost, 60, value=str(count - 1))
    assert _posts(server) == list(range(count))
