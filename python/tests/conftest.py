import json
import os
import subprocess

import pytest

NVB = os.environ.get("NVB", "nvb")


def nvb(*args, check=True):
    """Runs the command-line tool quietly and returns its completed process."""
    result = subprocess.run([NVB, "--quiet", *map(str, args)], capture_output=True)
    if check and result.returncode != 0:
        raise AssertionError(f"nvb {' '.join(map(str, args))}: exit {result.returncode}: {result.stderr.decode()}")
    return result


def dump_json(path):
    """The records of a log as the tool decodes them, one dict per record."""
    lines = nvb("dump", "--json", path).stdout.decode().splitlines()
    return [json.loads(line) for line in lines if line.strip()]


@pytest.fixture(scope="session")
def simulated(tmp_path_factory):
    """Simulated logs by method: ten minutes at 1 s of all four systems."""
    folder = tmp_path_factory.mktemp("logs")
    made = {}

    def make(method=7, duration=600, interval=1, systems="GREC", seed=1, receiver="plain"):
        key = (method, duration, interval, systems, seed, receiver)
        if key not in made:
            path = folder / f"sim_m{method}_d{duration}_i{interval}_{systems}_{seed}_{receiver}.nvb"
            nvb("simulate", "-o", path, "-m", method, "-d", duration, "-i", interval, "-s", systems, "--seed", seed,
                "--receiver", receiver)
            made[key] = path
        return made[key]

    return make
