"""What ./dev run shows, with the real relay: a good run, each fault, and runs that have to fail."""

from __future__ import annotations

import signal
import subprocess
import sys
from pathlib import Path

import pytest

from lab.archive.endpoint import ArchiveEndpoint
from lab.audio import clip_player
from lab.play import cast, run
from lab.play.archive import Archive
from lab.play.faults import LEAST_SECS
from lab.play.play import Play
from lab.play.speakers import CaptionSpeaker
from lab.relay.relay import Relay, binary_path
from lab.support.waiting import LabTimeout

ROOT = Path(__file__).resolve().parents[2]
GOOD = "Nothing was lost or changed."
FLOWS = 9


def begin(*options):
    return subprocess.Popen(
        [sys.executable, "-m", "lab.play.run", *options],
        cwd=ROOT,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
    )


def demonstrate(*options):
    child = begin(*options)
    shown = child.communicate(timeout=300)[0]
    return child.returncode, shown


def rows(shown):
    """The cells of the table: listener and flow, expected, unchanged, lost ..."""
    table = [line.rsplit(maxsplit=8) for line in shown.splitlines() if line.endswith(" ms")]
    return {cells[0]: [int(cell) for cell in cells[1:7]] for cells in table}


@pytest.mark.parametrize("options", [(), ("--tls",)])
def test_captions_and_audio_cross_two_relays(options):
    status, shown = demonstrate("--seconds", "2", *options)
    assert status == 0 and GOOD in shown, shown
    assert len(rows(shown)) == FLOWS
    for flow, (expected, unchanged, *faults) in rows(shown).items():
        assert expected == unchanged == (1 if "captions" in flow else 100), shown
        assert faults == [0, 0, 0, 0]
    assert "encoder 2   reads  Welcome to the caption relay." in shown
    assert "archive     stores 1 caption of client 2001 from east, " in shown
    assert "receiver 2  gets" in shown and "west        ended with status 0" in shown


@pytest.mark.parametrize("fault", ["cs", "db"])
def test_nothing_is_lost_without_server_or_database(fault):
    status, shown = demonstrate("--seconds", f"{LEAST_SECS:.0f}", "--fault", fault)
    assert status == 0 and GOOD in shown, shown
    assert "restored after" in shown and "no captions, no datagrams" in shown
    # The route that was ordered afterwards took effect.
    assert len(rows(shown)) == FLOWS + 1 and rows(shown)["encoder 3, captions"][1] > 0


def test_posts_that_failed_are_delivered_when_the_archive_is_back():
    status, shown = demonstrate("--seconds", f"{LEAST_SECS:.0f}", "--fault", "archive")
    assert status == 0 and GOOD in shown, shown
    order = ["archive     is stopped", "(failure 1 in a row)", "(failure 2 in a row)"]
    order += ["archive     is started again", "archive     stores", "archive, captions"]
    places = [shown.find(words) for words in order]
    assert -1 not in places and places == sorted(places), shown
    expected, unchanged, *faults = rows(shown)["archive, captions"]
    assert expected == unchanged > 1 and faults == [0, 0, 0, 0]
    assert "no captions, no datagrams" in shown


def test_a_killed_relay_affects_only_its_own_stations():
    status, shown = demonstrate("--seconds", f"{LEAST_SECS:.0f}", "--fault", "peer")
    assert status == 0 and "All traffic resumed by itself" in shown, shown
    lost = {flow: cells[2] for flow, cells in rows(shown).items()}
    assert len(lost) == FLOWS
    assert all(count == 0 for flow, count in lost.items() if " 2, " not in flow)
    assert lost["receiver 2, audio"] > 0 and "receiver 2  is logged in again" in shown


def test_a_run_too_short_for_a_fault_is_refused():
    status, shown = demonstrate("--seconds", "9", "--fault", "cs")
    assert status == 2 and "a fault needs at least 10 seconds" in shown


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_everything_is_shut_down_on_a_signal(number):
    child = begin("--seconds", "60")
    shown = ""
    for line in child.stdout:
        shown += line
        if "reads" in line:
            child.send_signal(number)
            break
    shown += child.communicate(timeout=60)[0]
    assert child.returncode == 130 and "everything has been shut down" in shown, shown
    # Each relay was started by a process that waits for it: none is left when that has ended.
    folders = [one for one in Path("/proc").glob("[0-9]*") if _parent_of(one) == child.pid]
    assert folders == []


def _parent_of(folder):
    try:
        return int((folder / "stat").read_text().rpartition(")")[2].split()[1])
    except (OSError, ValueError):
        return 0


# -- what has to fail: in this process, so that a fault can be injected ----------------------


def fails(capsys, seconds=2, fault=""):
    """The output of a run that has to fail."""
    assert run.run(seconds, False, fault, binary_path()) is False
    shown = capsys.readouterr().out
    assert "The demonstration FAILED:" in shown and GOOD not in shown
    return shown


def test_a_missing_route_is_noticed(monkeypatch, capsys):
    route = cast.Cast.route
    monkeypatch.setattr(
        cast.Cast, "route", lambda self, to: to.name == "receiver 2" or route(self, to)
    )
    shown = fails(capsys)
    assert "receiver 2, audio: 100 LOST" in shown and "receiver 1, audio: " not in shown


def test_a_relay_that_dies_is_noticed(monkeypatch, capsys):
    wait_share = Play.wait_share

    def kill_first(play, share):
        if play.network["west"].relay.running:
            play.network.kill("west")
        wait_share(play, share)

    monkeypatch.setattr(Play, "wait_share", kill_first)
    shown = fails(capsys)
    assert "encoder 2, captions: 1 LOST" in shown and "encoder 2: its connection broke" in shown
    assert "relay west ended with status -9" in shown and "encoder 1, captions: " not in shown


def test_a_changed_datagram_is_noticed(monkeypatch, capsys):
    sent = clip_player.ClipPlayer.sent

    def other(player, channel=0):
        return [b"?" + one if n == 9 else one for n, one in enumerate(sent(player, channel))]

    monkeypatch.setattr(clip_player.ClipPlayer, "sent", other)
    shown = fails(capsys)
    assert shown.count("1 CHANGED") == shown.count("1 LOST OR CHANGED") == 6


@pytest.mark.parametrize(
    ("right", "wrong", "words"),
    [
        (b"57e5", b"57e6", "archive, captions: 1 CHANGED"),
        (b"\t", b" ", "archive: no caption of field 1: "),
        (b'"2001"', b'"2002"', "archive: east posted captions of client 2002"),
    ],
)
def test_a_changed_archive_is_noticed(monkeypatch, capsys, right, wrong, words):
    posts = ArchiveEndpoint.posts

    def other(endpoint):
        return [one._replace(body=one.body.replace(right, wrong)) for one in posts(endpoint)]

    monkeypatch.setattr(ArchiveEndpoint, "posts", other)
    assert words in fails(capsys)


def test_a_relay_that_archives_what_its_peer_sends_is_noticed(monkeypatch, capsys):
    # It claims to be the other one.
    config = Archive.config
    monkeypatch.setattr(Archive, "config", lambda archive, _: config(archive, "west"))
    assert "archive: west posted captions of client 2001" in fails(capsys)


def test_wrong_times_in_the_archive_are_noticed(monkeypatch, capsys):
    sent = CaptionSpeaker.sent_by_clock

    def earlier(speaker):
        return [one._replace(at=one.at - 40) for one in sent(speaker)]

    monkeypatch.setattr(CaptionSpeaker, "sent_by_clock", earlier)
    assert "archive, captions: dated up to 40.0 s TOO LATE" in fails(capsys)


def test_an_archive_that_does_not_come_back_is_noticed(monkeypatch, capsys):
    start = ArchiveEndpoint.start

    def once(endpoint):
        if (endpoint.folder / "pid").exists():
            raise LabTimeout("the archive endpoint is gone")
        return start(endpoint)

    monkeypatch.setattr(ArchiveEndpoint, "start", once)
    shown = fails(capsys, seconds=LEAST_SECS, fault="archive")
    assert "the fault: the archive endpoint is gone" in shown
    assert "archive, captions: " in shown and "encoder 1, captions: " not in shown


def test_a_bad_exit_status_is_noticed(monkeypatch, capsys):
    stop = Relay.stop
    monkeypatch.setattr(Relay, "stop", lambda relay: stop(relay) or 3)
    assert "relay east ended with status 3" in fails(capsys)
