"""The private database: start, stop, crash, separate schemas, and the route table itself."""

from __future__ import annotations

import os
import subprocess

import pytest

from lab.database import cluster as cluster_module
from lab.database.cluster import Cluster
from lab.database.pgwire import SqlError

BIGGEST_ID = 2**32 - 1


@pytest.fixture(name="cluster", scope="module")
def fixture_cluster():
    with Cluster() as cluster:
        yield cluster


def insert(schema, to, source, msg_class):
    schema.query(
        "INSERT INTO iopatch (clientto, clientfrom, msgclass) "
        f"VALUES ('{to}','{source}','{msg_class}')"
    )


def test_the_table_holds_unsigned_ids_and_signed_classes(cluster):
    schema = cluster.new_schema()
    insert(schema, BIGGEST_ID, BIGGEST_ID - 1, -32)
    schema.wait_for_routes({(BIGGEST_ID - 1, BIGGEST_ID, -32)})


def test_a_duplicate_route_fails_with_the_message_that_the_relay_expects(cluster):
    schema = cluster.new_schema()
    insert(schema, 1, 2, 192)
    with pytest.raises(SqlError, match="duplicate key value violates unique constraint"):
        insert(schema, 1, 2, 192)
    assert schema.routes() == {(2, 1, 192)}


def test_schemas_do_not_see_each_other(cluster):
    one, other = cluster.new_schema(), cluster.new_schema()
    insert(one, 1, 2, 192)
    assert other.routes() == set()
    assert cluster.query("SELECT * FROM iopatch") == []


def test_the_environment_directs_libpq_to_the_schema(cluster):
    schema = cluster.new_schema()
    insert(schema, 7, 8, 128)
    done = subprocess.run(
        ["psql", "-X", "-At", "-c", "SELECT clientto FROM iopatch"]
        + ["host=127.0.0.1 dbname=tessel user=postgres password="],
        env={**os.environ, **schema.env},
        stdout=subprocess.PIPE,
        timeout=20,
        check=True,
    )
    assert done.stdout == b"7\n"


@pytest.mark.parametrize(
    "where",
    [
        "clientfrom='1' AND msgclass='192'",
        "clientto='1' AND msgclass='192'",
        "clientto='1' AND clientfrom='2' AND msgclass='192'",
        "clientto='1' OR clientfrom='1'",
    ],
)
def test_every_condition_of_the_relay_uses_an_index(cluster, where):
    schema = cluster.new_schema()
    schema.query(
        "INSERT INTO iopatch SELECT n, m, 192 FROM generate_series(1, 200) n, "
        "generate_series(1, 200) m; ANALYZE iopatch"
    )
    plan = "\n".join(row[0] for row in schema.query(f"EXPLAIN DELETE FROM iopatch WHERE {where}"))
    assert "Index" in plan and "Seq Scan" not in plan


def test_the_server_comes_back_at_its_port_and_a_crash_empties_the_table(cluster):
    schema = cluster.new_schema()
    insert(schema, 1, 2, 192)
    port = cluster.port
    cluster.restart("fast")
    assert cluster.port == port and schema.routes() == {(2, 1, 192)}
    cluster.restart("immediate")
    assert schema.routes() == set()
    cluster.stop()
    assert not cluster.running
    with pytest.raises(OSError):
        cluster.query("SELECT 1")
    cluster.start()
    assert schema.routes() == set()


def test_closing_leaves_no_process_and_no_folder():
    cluster = Cluster().start()
    pid, folder = cluster._process.pid, cluster._folder
    assert folder.is_dir()
    cluster.close()
    cluster.close()
    assert not folder.exists()
    with pytest.raises(ProcessLookupError):
        os.kill(pid, 0)


def test_a_failed_start_says_why_and_leaves_nothing(monkeypatch):
    monkeypatch.setitem(cluster_module._SETTINGS, "shared_buffers", "nonsense")
    with pytest.raises(ChildProcessError, match="shared_buffers"):
        Cluster().start()
