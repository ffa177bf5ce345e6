#!/usr/bin/env python3
"""Fails when a source file includes a header of a layer above its own."""
import pathlib
import re
import sys

# Each layer may include itself and the layers listed for it.
ALLOWED = {
    "common": set(),
    "external/io": set(),
    "stream": {"common"},
    "records": {"common", "stream"},
    "external/su": {"common", "stream", "records"},
    "rec35": {"common", "external/io", "stream", "records", "external/su"},
    "output": {"common", "stream", "records", "external/su"},
    "pipeline": {"common", "external/io", "stream", "records", "external/su", "rec35", "output"},
    "api": {"common", "external/io", "stream", "records", "external/su", "rec35", "output", "pipeline"},
}

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"')


def layer_of(path: str) -> str | None:
    for layer in sorted(ALLOWED, key=len, reverse=True):
        if path.startswith(layer + "/"):
            return layer
    return None


def main() -> int:
    src = pathlib.Path(sys.argv[1]) / "src"
    failures = []
    for file in sorted(src.rglob("*")):
        if file.suffix not in {".h", ".cpp"}:
            continue
        own = layer_of(file.relative_to(src).as_posix())
        if own is None:
            continue
        for number, line in enumerate(file.read_text().splitlines(), 1):
            match = INCLUDE.match(line)
            if not match:
                continue
            target = layer_of(match.group(1))
            if target is not None and target != own and target not in ALLOWED[own]:
                failures.append(f"{file.relative_to(src)}:{number}: {own} includes {match.group(1)}")
    for failure in failures:
        print(failure)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
