"""Video feedback: who receives it."""

from __future__ import annotations

import pytest
from switching_tools import (
    arriving_image,
    got_before_fence,
    got_before_order_fence,
    images,
    line_count,
)

from lab.protocol import messages
from lab.protocol.messages import PIPE_VIDEO, LostConnection
from lab.stations.caption_stations import Encoder, Monitor, video_pages


@pytest.fixture
def camera(relay, make_station):
    return make_station(relay, Encoder)


@pytest.fixture
def viewer(relay, make_station, route, camera):
    viewer = make_station(relay, Monitor)
    route(relay, camera, viewer, PIPE_VIDEO)
    return viewer


def frames_seen(camera, viewer, count=1):
    """How many of `count` single-page frames arrive."""
    sent = []
    for number in range(count):
        page = video_pages(b"frame %d" % number, number, sender_id=camera.client_id)[0]
        camera.send(page)
        sent.append(arriving_image(page))
    got = images(got_before_fence(camera, viewer))
    assert got == sent[count - len(got) :]
    return len(got)


def test_the_first_message_of_a_pair_is_dropped_and_the_next_pass(relay, camera, viewer):
    assert frames_seen(camera, viewer) == 0
    assert frames_seen(camera, viewer, 10) == 10
    relay.log.expect("Increased send buffer size to")


def test_each_pair_is_treated_separately(relay, camera, viewer, make_station, route):
    other_viewer, other_camera = make_station(relay, Monitor), make_station(relay, Encoder)
    assert frames_seen(camera, viewer, 3) == 2
    route(relay, camera, other_viewer, PIPE_VIDEO)
    route(relay, other_camera, viewer, PIPE_VIDEO)
    camera.send_video(b"one", 1)
    camera.send_video(b"two", 2)
    assert [m.sequence for m in got_before_fence(camera, viewer)] == [1, 2]
    assert [m.sequence for m in got_before_fence(camera, other_viewer)] == [2]
    assert frames_seen(other_camera, viewer, 3) == 2


def test_only_video_messages_need_permission(relay, camera, viewer):
    """Other types of the same pipe pass at once."""
    message = messages.Opaque(66, b"not a page~")
    camera.send(message)
    assert images(got_before_fence(camera, viewer)) == [arriving_image(message)]


def test_the_server_grants_and_denies(relay, camera, viewer):
    server, pair = relay.server, (camera.client_id, viewer.client_id)
    server.orders.grant_video(*pair)
    got_before_order_fence(server, viewer)
    assert frames_seen(camera, viewer, 5) == 5
    relay.log.expect("Video link permissions granted for {} to {}".format(*pair))
    for code in ("UNAUTHORIZED", "NOT LOGGED IN", "no such code"):
        server.orders.deny_video(*pair, code)
        got_before_order_fence(server, viewer)
        assert frames_seen(camera, viewer, 5) == 0
    denied = "Video link permissions denied for {} to {}".format(*pair)
    assert line_count(relay, viewer, denied) == 3
    server.orders.grant_video(*pair)
    got_before_order_fence(server, viewer)
    assert frames_seen(camera, viewer, 5) == 5


def test_a_denial_concerns_one_direction(relay, camera, viewer, route):
    route(relay, viewer, camera, PIPE_VIDEO)
    relay.server.orders.deny_video(viewer.client_id, camera.client_id)
    got_before_order_fence(relay.server, viewer)
    assert frames_seen(camera, viewer, 3) == 2
    assert frames_seen(viewer, camera, 3) == 0


@pytest.mark.parametrize("who", ["camera", "viewer"])
def test_permissions_end_with_either_client(relay, camera, viewer, make_station, who):
    relay.server.orders.deny_video(camera.client_id, viewer.client_id)
    got_before_order_fence(relay.server, viewer)
    assert frames_seen(camera, viewer, 2) == 0
    if who == "camera":
        camera.close()
        relay.server.record.wait_for_type(LostConnection, client_id=camera.client_id)
        camera = make_station(relay, Encoder, client_id=camera.client_id)
    else:
        viewer.close()
        relay.server.record.wait_for_type(LostConnection, client_id=viewer.client_id)
        viewer = make_station(relay, Monitor, client_id=viewer.client_id)
    assert frames_seen(camera, viewer, 3) == 2


def test_pages_of_a_large_frame_pass_in_order(relay, camera, viewer):
    frames_seen(camera, viewer)
    frame = bytes(65 + number % 26 for number in range(400 * 255))
    camera.send_video(frame, 4000000000)
    assert viewer.receive_video() == (4000000000, frame)
