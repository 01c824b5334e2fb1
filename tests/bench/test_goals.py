"""How the benchmark judges its figures."""

from __future__ import annotations

import dataclasses

from bench import goals, report
from bench.cells import RELAY_FEW, all_cells, batches
from bench.goals import Check
from bench.measure import Outcome
from bench.statistic import Figure, figure, paired_ratio

MODERATE_CELL = next(cell for cell in all_cells() if cell.name == "moderate, 1 to 8, 200 B")
FLAT_OUT_CELL = next(cell for cell in all_cells() if cell.name == "flat out, 1 to 8, 200 B")

UDP_CELL = next(cell for cell in all_cells() if cell.name == "UDP moderate, 1 to 8")
UDP_FLAT_OUT_CELL = next(cell for cell in all_cells() if cell.name == "UDP flat out, 1 to 8")
UDP_ALONE_CELL = next(cell for cell in all_cells() if cell.name == "UDP flat out, 1 to 1")


LOG_IN_CELL = next(cell for cell in all_cells() if cell.name == "admission, log-ins, plain")
TLS_LOG_IN_CELL = next(cell for cell in all_cells() if cell.name == "admission, log-ins, TLS")
RECONNECT_CELL = next(cell for cell in all_cells() if cell.kind == "reconnect")


def outcome(cpu_us: float, latency_us: float = 100.0) -> Outcome:
    one = {
        "cpu_ns": cpu_us * 1000 * 1000, "wall_ns": 1e9, "deliveries": 1000, "lost": 0, "wrong": 0,
        "complete": True, "p50_ns": latency_us * 1000, "p99_ns": latency_us * 2000,
        "p999_ns": latency_us * 3000,
    }  # fmt: skip
    return Outcome([one] * 5, {"before": 0, "after": 0, "idle": 10})


def verdicts(cell, **cpu_us: float) -> dict[str, str]:
    results = {(cell, name): outcome(value) for name, value in cpu_us.items()}
    return {check.goal: check.verdict for check in goals.checks(results)}


def test_the_median_and_half_the_distance_of_the_quartiles():
    assert figure([5, 1, 2, 4, 3]) == Figure(3, 1)
    assert figure([7]) == Figure(7, 0)
    assert figure([]) is None


def test_alternating_runs_are_compared_one_by_one():
    # The machine became slower; the quotient did not change.
    assert paired_ratio([2, 4, 6, 8], [1, 2, 3, 4]) == Figure(2, 0)
    assert paired_ratio([], []) is None


def test_a_limit_is_met_missed_or_met_within_the_spread():
    assert Check("g", "c", Figure(1.1, 0), 1.1).verdict == "met"
    assert Check("g", "c", Figure(1.2, 0.1), 1.15).verdict == "met within spread"
    assert Check("g", "c", Figure(1.3, 0.1), 1.15).verdict == "missed: 1.30"
    assert Check("g", "c", Figure(1.0, 0), 1.0, below=True).verdict.startswith("missed")


def test_moderate_figures_are_compared_with_the_floor_and_every_peer():
    found = verdicts(MODERATE_CELL, relay=5.4, floor_send=5.0, nats=9.0, redis=5.3)
    assert found["moderate: x floor"] == "met"
    assert found["moderate: x nats"] == "met"
    assert found["moderate: x redis"].startswith("missed")
    assert found["moderate: p50 x best peer's"] == "met"


def test_flat_out_the_best_peer_counts():
    found = verdicts(FLAT_OUT_CELL, relay=0.2, floor_gather=0.1, nats=0.21, redis=0.4)
    assert found["flat out: x floor"].startswith("missed: 2.00")
    assert found["flat out: x best peer"].startswith("missed: 0.95")


def test_idle_clients_are_compared_with_the_same_cell_with_few():
    many = dataclasses.replace(MODERATE_CELL, label="1 to 8, 8000 idle", idle=8000)
    results = {(many, RELAY_FEW): outcome(5.0), (many, "relay"): outcome(5.5)}
    results[many, "relay"].memory = {"before": 0, "after": 8000 * 4096, "idle": 8000}
    found = {check.goal: check for check in goals.checks(results)}
    assert found["memory: KiB per idle client"].measured.median == 4
    assert found["idle clients: x with 10 of them"].verdict == "missed: 1.10"


def test_a_plain_log_in_is_compared_with_the_floor_and_nothing_else():
    assert verdicts(LOG_IN_CELL, relay=15.0, floor_admission=10.0) == {"admission: x floor": "met"}
    found = verdicts(LOG_IN_CELL, relay=16.0, floor_admission=10.0)
    assert found == {"admission: x floor": "missed: 1.60"}


def test_log_ins_over_tls_and_reconnects_have_figures_but_no_goal():
    assert verdicts(TLS_LOG_IN_CELL, relay=900.0, floor_admission=500.0) == {}
    assert verdicts(RECONNECT_CELL, relay=9.0) == {}


def test_a_line_says_what_it_counts_and_how_long_all_clients_took():
    results = {(cell, "relay"): outcome(5.0) for cell in (LOG_IN_CELL, RECONNECT_CELL)}
    assert report.rows(results, LOG_IN_CELL)[0].endswith("  per log-in")
    assert report.rows(results, RECONNECT_CELL)[0].endswith("  per client, 1.000 s for all")
    results[RECONNECT_CELL, "relay"].repetitions[0]["lost"] = 3
    assert "s for all, 15 lost" in report.rows(results, RECONNECT_CELL)[0]


def test_every_cell_has_its_own_name_and_batches_lose_none():
    cells = all_cells()
    assert len({cell.name for cell in cells}) == len(cells)
    assert sorted(cell.name for batch in batches(cells) for cell in batch) == sorted(
        cell.name for cell in cells
    )


def test_lost_messages_are_shown_in_the_table():
    results = {(MODERATE_CELL, "relay"): outcome(5.0)}
    results[MODERATE_CELL, "relay"].repetitions[0]["lost"] = 3
    assert "lost" in report.rows(results, MODERATE_CELL)[0]


def test_udp_at_the_moderate_rate_is_compared_with_its_floor_and_coturn():
    found = verdicts(UDP_CELL, relay=5.6, floor_udp=5.0, coturn=5.7)
    assert found["UDP moderate: x floor"].startswith("missed: 1.12")
    assert found["UDP moderate: x coturn"] == "met"
    equal = verdicts(UDP_CELL, relay=5.7, floor_udp=5.7, coturn=5.7)
    assert equal["UDP moderate: x floor"] == "met"
    assert equal["UDP moderate: x coturn"].startswith("missed")
    assert not any(goal.startswith("moderate") for goal in found)


def test_udp_flat_out_is_compared_with_segmentation_offload_and_coturn():
    found = verdicts(UDP_FLAT_OUT_CELL, relay=1.4, floor_udp_gso=1.0, floor_udp=9.0, coturn=4.0)
    assert found["UDP flat out: x floor"] == "met"
    assert found["UDP flat out: x coturn"] == "met"
    slow = verdicts(UDP_FLAT_OUT_CELL, relay=1.6, floor_udp_gso=1.0, coturn=4.0)
    assert slow["UDP flat out: x floor"].startswith("missed: 1.60")
    assert slow["UDP flat out: x coturn"].startswith("missed: 0.40")
    assert not any(goal.startswith("flat out") for goal in found)


def test_udp_to_one_receiver_need_not_beat_coturn_by_far():
    found = verdicts(UDP_ALONE_CELL, relay=3.0, floor_udp_gso=2.8, coturn=4.0)
    assert "UDP flat out: x coturn" not in found


def lost_verdict(relay_lost: int, floor_lost: int) -> str:
    results = {(UDP_CELL, name): outcome(5.0) for name in ("relay", "floor_udp")}
    results[UDP_CELL, "relay"].repetitions[0]["lost"] = relay_lost
    results[UDP_CELL, "floor_udp"].repetitions[0]["lost"] = floor_lost
    found = {check.goal: check.verdict for check in goals.checks(results)}
    return found["UDP: lost or wrong per million"]


def test_udp_may_lose_only_what_the_floor_loses():
    assert lost_verdict(0, 0) == "met"
    assert lost_verdict(1, 0).startswith("missed")
    assert lost_verdict(2, 2) == "met"
    assert lost_verdict(3, 2).startswith("missed")


def test_idle_clients_are_compared_for_udp_too():
    many = next(cell for cell in all_cells() if cell.name == "UDP moderate, 1 to 8, 8000 idle")
    results = {(many, RELAY_FEW): outcome(5.0), (many, "relay"): outcome(5.2)}
    found = {check.goal: check for check in goals.checks(results)}
    assert found["idle clients: x with 10 of them"].verdict == "met"
    results[many, "relay"] = outcome(5.3)
    found = {check.goal: check for check in goals.checks(results)}
    assert found["idle clients: x with 10 of them"].verdict == "missed: 1.06"


def test_udp_cells_tell_the_load_program_what_they_are():
    fec = next(cell for cell in all_cells() if cell.fec)
    options = fec.load_options("relay", [fec.fanout])
    assert options[options.index("--cell") + 1] == "udp"
    assert options[options.index("--fec") + 1] == "1"
    assert "--source-limit" not in UDP_FLAT_OUT_CELL.load_options("relay", [8])
