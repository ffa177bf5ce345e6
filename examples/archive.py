#!/usr/bin/env python3
"""Converts a folder of receiver logs with dask: one task per log, each with a reader
state of its own, on a local cluster or on a distributed scheduler.

    archive.py LOGS OUT --to rinex                   RINEX 3.03 observation files
    archive.py LOGS OUT --to method --method 0       the logs again in another method
    archive.py LOGS OUT --to netcdf | parquet        observation tables (needs scipy or
                                                     netCDF4, or pyarrow)
    archive.py ... --scheduler tcp://host:8786       on an existing cluster
    archive.py ... --sequential                      in this process, one log after another

Every worker must be able to import nvbdll and see both folders.
"""
import argparse
import sys
import warnings
from pathlib import Path

import nvbdll

SUFFIXES = {"rinex": ".rnx", "crx": ".crx", "method": ".nvb", "netcdf": ".nc", "parquet": ".parquet"}
# The modules that xarray and pandas write these tables with, any one of them; they are
# not among the package's own requirements.
TABLE_WRITERS = {"netcdf": ("netCDF4", "scipy"), "parquet": ("pyarrow", "fastparquet")}


def table_writer_missing(to: str) -> str:
    """Why the tables of `to` can't be written here, or "" when they can."""
    import importlib.util

    if to not in TABLE_WRITERS or any(importlib.util.find_spec(name) for name in TABLE_WRITERS[to]):
        return ""
    return f"--to {to} needs the Python package {' or '.join(TABLE_WRITERS[to])}, and neither is installed"


def convert(source: str, out_dir: str, to: str, method: int) -> dict:
    """Converts one log; returns what happened to it, damage included."""
    target = Path(out_dir) / (Path(source).stem + SUFFIXES[to])
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        try:
            if to in ("rinex", "crx"):
                nvbdll.to_rinex(source, target, compact=to == "crx")
            elif to == "method":
                nvbdll.recompress(source, target, method=method)
            else:
                table = nvbdll.read_observations(source).to_dataframe().dropna(how="all")
                if to == "netcdf":
                    table.to_xarray().to_netcdf(target)
                else:
                    table.reset_index().to_parquet(target)
        except nvbdll.UnreadableLogError as error:
            return {"log": source, "output": None, "error": str(error), "warnings": []}
    return {"log": source, "output": str(target), "error": None, "warnings": [str(w.message) for w in caught]}


def run(logs, out_dir, to, method, scheduler=None, workers=2, sequential=False):
    Path(out_dir).mkdir(parents=True, exist_ok=True)
    args = (str(out_dir), to, method)
    if sequential:
        return [convert(str(log), *args) for log in logs]
    import dask.bag as db
    from distributed import Client, LocalCluster

    bag = db.from_sequence([str(log) for log in logs], npartitions=max(1, len(logs))).map(convert, *args)
    if scheduler:
        with Client(scheduler) as client:
            return bag.compute(scheduler=client.get)
    with LocalCluster(n_workers=workers, threads_per_worker=1, processes=True, dashboard_address=None) as cluster, \
            Client(cluster) as client:
        return bag.compute(scheduler=client.get)


def main(argv=None) -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("logs", type=Path, help="folder of logs")
    parser.add_argument("out", type=Path, help="folder for the results")
    parser.add_argument("--to", choices=sorted(SUFFIXES), default="rinex")
    parser.add_argument("--method", type=int, default=7, help="compression method for --to method")
    parser.add_argument("--pattern", default="*.nvb", help="which files of the folder are logs")
    parser.add_argument("--scheduler", help="address of a distributed scheduler; a local cluster without it")
    parser.add_argument("--workers", type=int, default=2, help="workers of the local cluster")
    parser.add_argument("--sequential", action="store_true", help="no cluster: one log after another")
    options = parser.parse_args(argv)
    missing = table_writer_missing(options.to)
    if missing:
        parser.error(missing)
    logs = sorted(options.logs.glob(options.pattern))
    results = run(logs, options.out, options.to, options.method, options.scheduler, options.workers,
                  options.sequential)
    failed = 0
    for result in results:
        if result["error"]:
            failed += 1
            print(result["error"], file=sys.stderr)
        for text in result["warnings"]:
            print(text, file=sys.stderr)
    print(f"{len(results) - failed} of {len(results)} logs converted into {options.out}")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
