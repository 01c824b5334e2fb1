"""Clients that leave while the link to the connection server is down, or up: which losses are
reported after a reconnect, and which are not."""

from __future__ import annotations

from lab.protocol import messages


def _losses_on(server, link):
    return [
        one.message.client_id
        for one in server.record.received
        if one.link is link and isinstance(one.message, messages.LostConnection)
    ]


def _reconnect(relay, server, while_down=lambda: None):
    """Loses the link, does `while_down`, and brings the server back; returns the new link, once the
    relay has sent everything that it sends at a log-in."""
    number = len(server.links)
    since, said = relay.log.mark(), server.record.mark()
    server.close()
    relay.log.expect("Lost connection to CS!", since=since)
    while_down()
    server.start()
    link = server.wait_logged_in(20, number=number)
    server.record.wait_for_type(messages.RelayPort, since=said)
    return link


def _leave(relay, station):
    """The station leaves without a log-out, and the relay has noticed."""
    since = relay.log.mark()
    station.close()
    relay.log.expect("Removing client table entry", since=since)


def test_a_loss_while_the_link_is_down_is_reported_once_afterwards(server, relay, make_station):
    staying, leaving = make_station(relay), make_station(relay)
    link = _reconnect(relay, server, lambda: _leave(relay, leaving))
    assert _losses_on(server, link) == [leaving.client_id]
    second = _reconnect(relay, server)
    assert _losses_on(server, second) == []
    server.record.wait_for_type(messages.ConnectConfirm, client_id=staying.client_id)


def test_a_loss_while_the_link_is_up_is_reported_at_once_and_after_the_next_login(
    server, relay, make_station
):
    leaving = make_station(relay)
    leaving.reset()
    server.record.wait_for_type(messages.LostConnection, client_id=leaving.client_id)
    relay.log.expect(f"removing socket for client {leaving.client_id}, and notifying CS")
    link = _reconnect(relay, server)
    assert _losses_on(server, link) == [leaving.client_id]


def test_losses_are_reported_in_order(server, relay, make_station):
    stations = [make_station(relay) for _ in range(4)]

    def all_leave():
        for station in reversed(stations):
            _leave(relay, station)

    link = _reconnect(relay, server, all_leave)
    assert _losses_on(server, link) == [one.client_id for one in reversed(stations)]
    relay.log.expect("list may be up to 4 clients long")


def test_a_client_that_came_back_is_confirmed_and_not_reported_lost(server, relay, make_station):
    client = make_station(relay)
    gone = make_station(relay)

    def leave_and_come_back():
        _leave(relay, client)
        _leave(relay, gone)
        make_station(relay, client_id=client.client_id)

    link = _reconnect(relay, server, leave_and_come_back)
    relay.log.expect(
        f"Removed recently lost message on client {client.client_id} from re-send list "
        "(1 instances)"
    )
    assert _losses_on(server, link) == [gone.client_id]
    server.record.wait_for(
        lambda message: isinstance(message, messages.ConnectConfirm)
        and message.client_id == client.client_id
    )


def test_a_loss_whose_routes_the_server_has_removed_is_not_reported_again(
    server, relay, make_station, route
):
    source, leaving = make_station(relay), make_station(relay)
    route(relay, source, leaving, messages.PIPE_CAPTION)
    leaving.reset()
    server.record.wait_for_type(messages.LostConnection, client_id=leaving.client_id)
    server.orders.disconnect_route(source.client_id, leaving.client_id, messages.PIPE_CAPTION)
    relay.log.expect(
        f"CS seems to have taken care of links for client {leaving.client_id}"
    )
    relay.schema.wait_for_routes(set())
    link = _reconnect(relay, server)
    assert _losses_on(server, link) == []


def test_a_loss_stays_on_the_list_while_routes_of_the_client_are_left(
    server, relay, make_station, route
):
    source, leaving = make_station(relay), make_station(relay)
    for pipe in (messages.PIPE_CAPTION, messages.PIPE_CHAT):
        route(relay, source, leaving, pipe)
    leaving.reset()
    server.record.wait_for_type(messages.LostConnection, client_id=leaving.client_id)
    server.orders.disconnect_route(source.client_id, leaving.client_id, messages.PIPE_CAPTION)
    relay.schema.wait_for_routes({(source.client_id, leaving.client_id, messages.PIPE_CHAT)})
    link = _reconnect(relay, server)
    assert _losses_on(server, link) == [leaving.client_id]
    assert relay.log.count("CS seems to have taken care") == 0
