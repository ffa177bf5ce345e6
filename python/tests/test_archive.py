import contextlib
import os
import sys

import pytest

from conftest import nvb

sys.path.insert(0, os.environ.get("NVBDLL_EXAMPLES", os.path.join(os.path.dirname(__file__), "../../examples")))
import archive  # noqa: E402


def contents(folder):
    # a RINEX header tells when it was written; nothing else may differ
    return {path.name: [line for line in path.read_bytes().splitlines() if b"DATE" not in line]
            for path in sorted(folder.iterdir())}


@contextlib.contextmanager
def scheduler_of_one_worker():
    from distributed import LocalCluster

    with LocalCluster(n_workers=1, threads_per_worker=1, processes=True, dashboard_address=None) as cluster:
        yield ["--scheduler", cluster.scheduler_address]


def on_two_local_workers(to):
    missing = archive.table_writer_missing(to)
    return pytest.param(to, contextlib.nullcontext([]), id=f"{to} on two local workers",
                        marks=pytest.mark.skipif(bool(missing), reason=missing))


@pytest.mark.parametrize("to,cluster", [*map(on_two_local_workers, ("rinex", "method", "netcdf", "parquet")),
                                        pytest.param("crx", scheduler_of_one_worker(), id="crx on a scheduler")])
def test_a_cluster_converts_as_one_process_does(tmp_path, to, cluster):
    logs = tmp_path / "logs"
    logs.mkdir()
    for seed in range(8):
        nvb("simulate", "-o", logs / f"site{seed}.nvb", "-d", 30, "-s", "GR", "--seed", seed + 1)
    (logs / "broken.nvb").write_bytes(b"\x00" * 3)
    with cluster as where:
        assert archive.main([str(logs), str(tmp_path / "cluster"), "--to", to, "--method", "1", *where]) == 1
    assert archive.main([str(logs), str(tmp_path / "one"), "--to", to, "--method", "1", "--sequential"]) == 1
    assert len(list((tmp_path / "cluster").iterdir())) == 8
    assert contents(tmp_path / "cluster") == contents(tmp_path / "one")
