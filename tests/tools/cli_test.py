#!/usr/bin/env python3
"""Drives the nvb binary as a user does: python3 cli_test.py NVB [TestCase ...]."""

import binascii
import datetime
import json
import math
import os
import re
import resource
import signal
import struct
import subprocess
import sys
import tempfile
import unittest
from collections import Counter
from functools import cache, reduce
from operator import xor
from pathlib import Path
from typing import NamedTuple

NVB = None

# DAT records stand back to back, each as long as its header says; a record 35 of 65535
# bytes or more tells its length behind its subtypes.
def dat_length(header):
    if header[3] <= 2:
        return header[2]
    if header[3] == 35 and header[1:3] == b"\xff\xff":
        return 24 + int.from_bytes(header[20:24], "little")
    if header[3] in (12, 17, 27, 29, 34, 35, 98, 99, 101, 102):
        return header[1] | (header[2] << 8)
    return header[1]


def dat_records(data):
    records, position = [], 0
    while position < len(data):
        length = dat_length(data[position:position + 24])
        assert data[position] == 0x74 and length >= 4, f"no DAT record at byte {position}"
        records.append(bytes(data[position:position + length]))
        position += length
    assert position == len(data)
    return records


def epoch_time(record):
    """The receive time of a record 27 in DAT form, in milliseconds."""
    return struct.unpack_from("<d", record, 7)[0]


def avro_long(value):
    value, out = (value << 1) ^ (value >> 63), bytearray()
    while value >= 0x80:
        out.append(value & 0x7F | 0x80)
        value >>= 7
    return bytes(out + bytes([value]))


# Records written from data, with what the dump shows of them: one of each navigation,
# receiver and auxiliary type and of each record 33 subtype (three no log gives back), and
# records 35 of a newer receiver.
DATA = Path(__file__).resolve().parents[1] / "data/cli"
EVERY_TYPE = json.loads((DATA / "every_type.json").read_text())
KEPT_TYPES = [row for row in EVERY_TYPE["records"] if "notReadBack" not in row]
RECORD35 = json.loads((DATA / "record35.json").read_text())
SIMULATED_INFO = json.loads((DATA / "simulated_info.json").read_text())


def dat_of_row(row):
    """A DAT record from its body's parts: struct formats and values, ["text", n] the first n
    bytes of the sentence repeated, ["hex", bytes, times], ["avro", longs...]."""
    text, body = EVERY_TYPE["sentence"].encode() * 60, b""
    for kind, *values in row["body"]:
        if kind in ("text", "hex", "avro"):
            body += {"text": lambda n: text[:n], "hex": lambda h, times=1: bytes.fromhex(h) * times,
                     "avro": lambda *longs: b"".join(map(avro_long, longs))}[kind](*values)
        else:
            body += struct.pack(kind, *(v.encode() if isinstance(v, str) else v for v in values))
    if row["type"] == 35:
        return (bytes([0x74]) + min(len(body) + 24, 0xFFFF).to_bytes(2, "little") + bytes([35]) +
                struct.pack("<QQI", row["subtype"], row["subsubtype"], len(body)) + body)
    # Records 34, 98 and 99 carry the high byte of their length in byte 2.
    length = len(body) + 4
    byte2 = row.get("byte2", length >> 8 if row["type"] in (34, 98, 99) else 0)
    return bytes([0x74, length & 0xFF, byte2, row["type"]]) + body


def pick(value, path):
    """The value at a dotted path of a dump line: * maps a list, # counts, keys lists a dict,
    as-text reads hex as text."""
    head, _, rest = path.partition(".")
    if not head:
        return value
    if head == "*":
        return [pick(item, rest) for item in value]
    step = {"#": len, "keys": sorted, "as-text": lambda v: bytes.fromhex(v).decode()}.get(head)
    return pick(step(value) if step else value[int(head) if isinstance(value, list) else head], rest)


def holds(w, found, expected):
    """Asserts the values at these dotted paths; a set compares with the keys found."""
    for path, value in expected.items():
        w.assertEqual(set(pick(found, path)) if isinstance(value, set) else pick(found, path), value, path)


def dump_shows(rows, lines=slice(None)):
    """A check: the json lines of the dump, those of `lines`, show these rows in order."""
    def check(w, result):
        for row, record in zip(rows, [json.loads(line) for line in result.stdout.splitlines()][lines], strict=True):
            holds(w, record, {"type": row["type"], **row.get("dump", {})})
    return check


NOISE = bytes((i * 37 + 11) % 251 for i in range(20000))


def dopplers(log):
    """Each signal's Doppler (None where it has none), by epoch time, satellite and signal."""
    return {(e["time"], s["sv"], g["band"], g["track"]): g.get("doppler")
            for e in lines_of(log, "-t", 27) for s in e["satellites"] for g in s["signals"]}





# A small reader of observation files: RINEX 2 and 3 and their Compact forms, written from
# the published descriptions; values stay in integer thousandths, as the files print them.
GPS_EPOCH = datetime.datetime(1980, 1, 6)


def milli(value):
    """Thousandths rounded half away from zero, as the writers round."""
    return int(math.copysign(math.floor(abs(value) * 1000 + 0.5), value))


def value_text(value):
    text = f"{abs(value) // 1000}.{abs(value) % 1000:03d}"
    return (("-" + text) if value < 0 else text).rjust(14)


def clock_text(nanoseconds):
    text = f"{nanoseconds * 1e-9:12.9f}"
    return " -" + text[2:] if text.startswith("-0.") else text


def satellite(text):
    return text[0] + f"{int(text[1:3]):02d}"


def epoch_key(fields):
    year, month, day, hour, minute = (int(f) for f in fields[:5])
    since = datetime.datetime(year + (2000 if year < 100 else 0), month, day, hour, minute) - GPS_EPOCH
    return divmod(int(since.total_seconds()) * 1000 + round(float(fields[5]) * 1000), 604800000)


class ObservationFile:
    def __init__(self, text):
        lines = text.split("\n")
        assert lines[-1] == "", "the file ends in a whole line"
        self.header, self.types, self.channels, system = [], {}, {}, ""
        for line in lines:
            self.header.append(line)
            label = line[60:].strip()
            if label == "RINEX VERSION / TYPE":
                self.version = float(line[:9])
            elif label in ("# / TYPES OF OBSERV", "SYS / # / OBS TYPES"):  # version 2 types under ""
                system = line[0].strip() or system
                self.types.setdefault(system, []).extend(line[6:60].split())
            elif label == "GLONASS SLOT / FRQ #":
                for k in range(4, 60, 7):
                    if line[k:k + 3].strip():
                        self.channels[satellite(line[k:k + 3])] = int(line[k + 3:k + 7])
            elif label == "END OF HEADER":
                break
        # An epoch's satellites stand in its line (twelve a line in version 2) or head their rows.
        self.epochs, rows, rinex3 = {}, iter(lines[len(self.header):-1]), self.version >= 3
        per_sat = 1 if rinex3 else (len(self.types[""]) + 4) // 5
        for line in rows:
            assert line.startswith(">") == rinex3, line
            count, sats = int(line[32:35] if rinex3 else line[29:32]), line[32:68]
            for _ in range(0 if rinex3 else (count - 1) // 12):
                sats += next(rows)[32:68]
            epoch = self.epochs.setdefault(epoch_key(line[1:29].split()), {})
            for k in range(count):
                row = ("" if rinex3 else sats[3 * k:3 * k + 3]) + "".join(next(rows).ljust(80) for _ in range(per_sat))
                epoch[satellite(row[:3])] = self.cells(row[:3], row[3:].ljust(16 * len(self.types_of(row[:3]))))

    def types_of(self, sat):
        return self.types.get(sat[0], []) if self.version >= 3 else self.types[""]

    def cells(self, sat, text):
        return {name: (round(float(text[16 * k:16 * k + 14]) * 1000), text[16 * k + 14:16 * k + 15].strip(),
                       text[16 * k + 15:16 * k + 16].strip())
                for k, name in enumerate(self.types_of(sat)) if text[16 * k:16 * k + 14].strip()}

def expand_compact(text):
    """Compact RINEX back to RINEX: the epoch line and flags by character, values by
    differences of the order the arc has reached."""
    crinex = text.split("\n", 2)
    assert (crinex[0][60:], crinex[1][60:]) == ("CRINEX VERS   / TYPE", "CRINEX PROG / DATE")
    end = crinex[2].index("\n", crinex[2].index("END OF HEADER")) + 1
    rinex = ObservationFile(crinex[2][:end])
    lines, rinex3 = iter(crinex[2][end:].split("\n")[:-1]), rinex.version >= 3
    out, stored, clock, values, flags, previous = [], "", [], {}, {}, set()

    def undifference(history, field):
        """The value of an arc from its next field: none, a restart, or a difference."""
        if field == "":
            history.clear()
            return None
        if "&" in field:
            history[:] = [int(field.split("&")[1])]
        else:
            levels = [int(field)]
            for k in range(min(len(history), 3) - 1, -1, -1):
                levels.insert(0, levels[0] + history[k])
            history[:] = levels
        return history[0]

    def overlay(old, new):
        """Text differences: a blank keeps the character below, '&' blanks it."""
        old = old.ljust(len(new))
        return "".join(o if c == " " else (" " if c == "&" else c) for o, c in zip(old, new)) + old[len(new):]

    for line in lines:
        stored = line if line[:1] in ("&", ">") else overlay(stored, line).rstrip()
        nanoseconds = undifference(clock, next(lines)) // (1000 if rinex3 else 1)
        count = int(stored[32:35] if rinex3 else stored[29:32])
        start = 41 if rinex3 else 32
        sats = [stored[start + 3 * k:start + 3 * k + 3] for k in range(count)]
        if rinex3:
            out.append((stored[:35] + "      " + clock_text(nanoseconds) + "000").rstrip())
        else:
            for k in range(0, count, 12):
                line = (" " + stored[1:32] if k == 0 else " " * 32) + "".join(sats[k:k + 12])
                out.append((line.ljust(68) + clock_text(nanoseconds) if k == 0 else line).rstrip())
        for sat in sats:
            key = satellite(sat)
            names = rinex.types_of(sat)
            # The values, then the flags of the row as text differences.
            fields = next(lines).split(" ", len(names)) + [""] * len(names)
            flags[key] = overlay(flags[key] if key in previous else " " * (2 * len(names)), fields[len(names)])
            cells = [undifference(values.setdefault((key, name), []), field) for name, field in zip(names, fields)]
            texts = [" " * 16 if v is None else value_text(v) + flags[key][2 * k] + flags[key][2 * k + 1]
                     for k, v in enumerate(cells)]
            if rinex3:
                out.append((sat + "".join(texts)).rstrip())
            else:
                for k in range(0, len(texts), 5):
                    out.append("".join(texts[k:k + 5]).rstrip())
        previous = {satellite(s) for s in sats}
    return "\n".join(rinex.header + out) + "\n"



def frames_of(data):
    """The blocks of a block stream behind its header block, as (start, end)."""
    spans, position = [], 17
    while position < len(data):
        end = position + 4 + int.from_bytes(data[position + 1:position + 4], "big")
        spans.append((position, end))
        position = end
    return spans


# Logs and the DAT form of each log read: made once a run, read by many, written by none.
SHARED, SHARED_DIRECTORY = {}, tempfile.TemporaryDirectory(prefix="nvb-shared-")


def shared(key, make):
    if key not in SHARED:
        path = os.path.join(SHARED_DIRECTORY.name, f"shared-{abs(hash(key))}")
        make(path)
        SHARED[key] = path
    return SHARED[key]


def succeed(*args, code=0, stdin=None, stdout=subprocess.PIPE, **options):
    result = subprocess.run([NVB, *map(str, args)], input=stdin, stdout=stdout, stderr=subprocess.PIPE, timeout=900,
                            **options)
    assert result.returncode == code, f"nvb {' '.join(map(str, args))}: {result.stderr.decode()}"
    return result


def simulated(seconds, *options):
    return shared(("log", seconds, *options),
                  lambda path: succeed("-q", "simulate", "-o", path, "--duration", seconds, *options))


def dat_of(log):
    return shared(("dat", log), lambda path: succeed("-q", "todat", log, "-o", path))


def read(path):
    return Path(path).read_bytes()


def LOG(seconds, *options):
    return lambda w: simulated(seconds, *options)


def DAT(seconds, *options):
    return lambda w: dat_of(simulated(seconds, *options))


class Case(NamedTuple):
    group: str
    name: str                # the test's name, a sentence
    command: tuple           # "@name" is a file of the case's directory; a callable makes an argument
    code: int = 0            # exit code; any but 0 comes with a reason on standard error
    says: object = None      # standard error holds this (or what says(workspace) gives)
    prints: str = None       # standard output holds this
    check: object = None     # check(workspace, result) of what the command wrote
    before: object = None    # before(workspace) makes the files the command starts from
    stdin: object = None     # stdin(workspace) gives standard input
    stdout: str = None       # a file standard output goes to
    limit: int = None        # a file size limit, which fails writes as a full disk does


class Workspace(unittest.TestCase):
    def setUp(self):
        self.directory = self.enterContext(tempfile.TemporaryDirectory(prefix="nvb-cli-"))

    def path(self, name):
        return os.path.join(self.directory, name)

    def argument(self, value):
        if callable(value):
            return value(self)
        return self.path(value[1:]) if isinstance(value, str) and value.startswith("@") else value

    def run_case(self, case):
        if case.before:
            case.before(self)
        args = [self.argument(value) for value in case.command]

        def limited():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (case.limit, case.limit))

        with open(case.stdout or os.devnull, "wb") as sink:
            result = succeed(*args, code=case.code, stdin=case.stdin(self) if case.stdin else None,
                             stdout=sink if case.stdout else subprocess.PIPE,
                             preexec_fn=limited if case.limit else None)
        stderr = result.stderr.decode()
        if case.code:
            self.assertNotEqual(stderr, "")
        if case.says is not None:
            self.assertIn(case.says(self) if callable(case.says) else case.says, stderr)
        if case.prints is not None:
            self.assertIn(case.prints, result.stdout.decode())
        if case.check:
            case.check(self, result)

    def info(self, log, code=0):
        return json.loads(succeed("info", "--json", log, code=code).stdout)

    def write(self, name, data):
        Path(self.path(name)).write_bytes(data)
        return self.path(name)


def info_holds(target, expected):
    """A check: `nvb info --json` of target (of standard output for None) holds these values,
    named by dotted paths."""
    def check(w, result):
        holds(w, json.loads(result.stdout) if target is None else w.info(w.argument(target)), expected)
    return check


def both(*checks):
    return lambda w, result: [check(w, result) for check in checks]


def lines_of(log, *options):
    """The records of `nvb dump --json`, without the offsets and lengths that differ between logs."""
    lines = succeed("dump", "--json", *options, log).stdout.splitlines()
    return [{k: v for k, v in json.loads(line).items() if "ffset" not in k and k != "length"} for line in lines]


# simulate, info and dump
def simulated_log_is_clean(w, result):
    log = w.path("sim.nvb")
    info = w.info(log)
    w.assertTrue(all(system["satellites"] >= 4 for system in info["satellites"].values()))
    w.assertNotIn("truncated", info)
    w.assertAlmostEqual(info["bytesPerEpoch"], os.path.getsize(log) / 180)
    text = succeed("info", log).stdout.decode()
    w.assertIn("block stream (NVE), level 7 (zstd over bare records)", text)
    w.assertRegex(text, r"damage +none")


def seeds_decide_the_log(w, result):
    w.assertEqual(read(w.path("a.nvb")), read(simulated(30, "--seed", 7)))
    w.assertNotEqual(read(w.path("a.nvb")), read(simulated(30, "--seed", 8)))


def quiet_is_quiet(w, result):
    w.assertEqual(result.stderr, b"")
    w.assertNotEqual(succeed("simulate", "-o", w.path("q.nvb"), "--duration", 5).stderr, b"")
    w.assertEqual(succeed("todat", w.path("q.nvb"), "-o", w.path("q.dat"), "-q").stderr, b"")


def dump_decodes_the_fields(w, result):
    records = [json.loads(line) for line in result.stdout.splitlines()]
    # Of the epochs' fields, the observation files check every signal against the dump.
    w.assertEqual([record["type"] for record in records], [27, 29] * 30)
    for position in (record for record in records if record["type"] == 29):
        w.assertAlmostEqual(position["latitude"], 47.3769, places=3)
        w.assertEqual(position["numSVs"], len(position["satellites"]))


CASES = [
    Case("Simulate", "a simulated log reads back clean with its span rate and systems",
         ("-q", "simulate", "-o", "@sim.nvb", "--duration", 180),
         check=both(info_holds("@sim.nvb", SIMULATED_INFO["default"]), simulated_log_is_clean)),
    Case("Simulate", "interval systems and method shape the log",
         ("-q", "simulate", "-o", "@fast.nvb", "--duration", 10, "--interval", 0.2, "--systems", "GE", "--method", 0),
         check=info_holds("@fast.nvb", SIMULATED_INFO["shaped"])),
    Case("Simulate", "a seed gives the same log and another seed another",
         ("-q", "simulate", "-o", "@a.nvb", "--duration", 30, "--seed", 7), check=seeds_decide_the_log),
    Case("Simulate", "standard output and input carry a log", ("info", "--json", "-"),
         stdin=lambda w: succeed("-q", "simulate", "-o", "-", "--duration", 20).stdout,
         check=info_holds(None, {"file": "standard input", "epochs.count": 20})),
    Case("Simulate", "quiet leaves standard error empty on success",
         ("--quiet", "simulate", "-o", "@q.nvb", "--duration", 5), check=quiet_is_quiet),
    Case("Dump", "every line is a json record with decoded fields", ("dump", "--json", LOG(30)),
         check=dump_decodes_the_fields),
    Case("Dump", "the type filter keeps the records of that type", ("dump", "--json", LOG(20), "--type", 29),
         check=dump_shows([{"type": 29}] * 20)),
    Case("Dump", "text lines stand one for each record", ("dump", LOG(20)), prints="type=27 offset=",
         check=lambda w, r: w.assertEqual(len(r.stdout.splitlines()), 40)),
]


# todat and fromdat
def same_records_and_observations(w, result):
    w.assertEqual(read(dat_of(w.path("back.nvb"))), read(dat_of(simulated(60))))
    # Every system keeps antenna 0 through the DAT form, so the observation file is whole.
    rinex = [without_program_line(succeed("rinex", path, "-o", "-", "--marker", "SITE").stdout.decode())
             for path in (simulated(60), w.path("back.nvb"))]
    w.assertEqual(rinex[1], rinex[0])
    w.assertTrue(all(f"\n{system}" in rinex[0] for system in "GREC"))


def pipes_both_ways(w, result):
    w.assertEqual(result.stdout, read(dat_of(simulated(20))))
    rewritten = succeed("fromdat", "-", "-o", "-", "-m", 3, stdin=result.stdout).stdout
    w.assertEqual(succeed("todat", "-", "-o", "-", stdin=rewritten).stdout, result.stdout)


def names_byte(name, where, what):
    """What standard error says of a damaged file: its name, the byte where(its bytes), what went wrong."""
    return lambda w: f"nvb: {w.path(name)}: byte {where(read(w.path(name)))}: {what}"


def plain_frames(w):
    data = read(simulated(30, "--method", 1))
    # Each frame stands behind its block header and the block's magic.
    return w.write("plain.nva", b"".join(data[start + 10:end] for start, end in frames_of(data)))


CASES += [
    Case("DatForm", "todat then fromdat gives back the same records and observations",
         ("-q", "fromdat", DAT(60), "-o", "@back.nvb", "--method", 4, "--level", 1),
         check=same_records_and_observations),
    Case("DatForm", "pipes carry dat records both ways", ("todat", "-", "-o", "-"),
         stdin=lambda w: read(simulated(20)), check=pipes_both_ways),
    Case("DatForm", "a plain byte stream of the same frames reads the same", ("info", "--json", plain_frames),
         check=both(info_holds(None, {"stream": "byte stream of plain frames (NVA)"}),
                    lambda w, r: w.assertEqual(read(dat_of(w.path("plain.nva"))),
                                               read(dat_of(simulated(30, "--method", 1)))))),
    Case("DatForm", "a dat file cut inside a record writes what came before",
         ("fromdat", lambda w: w.write("cut.dat", read(DAT(10)(w))[:dat_length(read(DAT(10)(w))) + 100]), "-o", "@cut.nvb"),
         code=1, says=names_byte("cut.dat", dat_length, "the input ends inside a record of type"),
         check=lambda w, r: w.assertEqual(dat_records(read(dat_of(w.path("cut.nvb")))),
                                          dat_records(read(dat_of(simulated(10))))[:1])),
]


# Doppler, methods and levels
def doppler_in_every_method(w, result):
    source, reference, sizes = dopplers(simulated(40)), read(dat_of(simulated(40))), set()
    w.assertNotIn(None, source.values())
    for method in range(8):
        kept, dropped = w.path(f"keep{method}.nvb"), w.path(f"drop{method}.nvb")
        succeed("-q", "fromdat", dat_of(simulated(40)), "-o", kept, "--method", method)
        succeed("-q", "fromdat", dat_of(simulated(40)), "-o", dropped, "--method", method, "--drop-doppler")
        w.assertEqual(read(dat_of(kept)), reference, f"method {method}")
        rebuilt = dopplers(dropped)
        w.assertEqual(rebuilt.keys(), source.keys())
        w.assertGreater(sum(source[key] != rebuilt[key] for key in source), len(source) * 9 // 10, f"method {method}")
        w.assertLess(os.path.getsize(dropped), os.path.getsize(kept))
        sizes.add(os.path.getsize(kept))
    w.assertEqual(len(sizes), 8)
    w.assertNotIn("37", w.info(w.path("keep7.nvb"))["carriedAs"])
    w.assertNotIn("36", w.info(w.path("drop7.nvb"))["carriedAs"])


def doppler_as_carried(w, result):
    kept, dropped = simulated(40), w.path("dropped.nvb")
    succeed("-q", "fromdat", dat_of(kept), "-o", dropped, "--drop-doppler")
    w.assertEqual(read(dat_of(w.path("kept.drop"))), read(dat_of(dropped)))
    for again, log in ((w.path("again-kept.nvb"), kept), (w.path("again-dropped.nvb"), dropped)):
        succeed("-q", "recompress", log, "-o", again, "-m", 5)
        w.assertEqual(read(dat_of(again)), read(dat_of(log)))
        w.assertEqual(w.info(again)["carriedAs"].keys(), w.info(log)["carriedAs"].keys(), log)
    succeed("-q", "thin", kept, "-o", w.path("thin.nvb"), "--interval", 10)
    thinned, source = dopplers(w.path("thin.nvb")), dopplers(kept)
    w.assertEqual({key: source[key] for key in thinned}, thinned)


def best_and_explicit(w, result):
    reference = read(dat_of(simulated(300)))
    w.assertLess(os.path.getsize(w.path("best.nvb")), os.path.getsize(simulated(300)))
    w.assertEqual(w.info(w.path("best.nvb"))["blockLevel"], 5)
    w.assertEqual(read(dat_of(w.path("best.nvb"))), reference)
    for method, level in ((3, 9), (6, 5), (7, 19)):
        written = w.path(f"explicit{method}.nvb")
        succeed("-q", "recompress", simulated(300), "-o", written, "--method", method, "--explicit-level", level)
        w.assertEqual(read(dat_of(written)), reference, f"method {method}")


def slip_marks(epoch):
    return {(s["sv"], g["band"]): g["measFlags1"] & 0x08 for s in epoch["satellites"] for g in s["signals"]}


def slips_carried(source):
    """A check: thinning `source` to 30 s kept the epochs and positions of the half minutes,
    each kept signal marked slipped if it slipped since the kept epoch before, and at least
    one such slip came from a dropped epoch."""
    def check(w, result):
        thinned = w.path("thin.nvb")
        epochs, kept = lines_of(source(w), "-t", 27), {e["time"]: e for e in lines_of(thinned, "-t", 27)}
        w.assertEqual(list(kept), [e["time"] for e in epochs if e["time"] % 30000 == 0])
        w.assertEqual([p["time"] for p in lines_of(thinned, "-t", 29)], list(kept))
        pending, carried = {}, 0
        for epoch in epochs:
            own = slip_marks(epoch)
            pending.update({key: pending.get(key, 0) | slip for key, slip in own.items()})
            for key, slip in slip_marks(kept.get(epoch["time"], {"satellites": []})).items():
                w.assertEqual(slip, pending.pop(key), (epoch["time"], key))
                carried += slip and not own[key]
        w.assertGreater(carried, 0)
    return check


CASES += [
    Case("Doppler", "every method gives the records back and drop doppler rebuilds their dopplers",
         ("-q", "fromdat", DAT(40), "-o", "@drop.nvb", "--drop-doppler"), check=doppler_in_every_method),
    Case("Doppler", "recompress and thin write doppler as their input carried it",
         ("-q", "recompress", LOG(40), "-o", "@kept.drop", "-m", 7, "--drop-doppler"), check=doppler_as_carried),
    Case("Recompress", "best and explicit levels read back the same records",
         ("-q", "fromdat", DAT(300), "-o", "@best.nvb", "--best"), check=best_and_explicit),
    # The slip tables of plain epochs hold GPS, SBAS, GLONASS and Galileo signals.
    Case("Thin", "a slip in a dropped epoch lands on the next kept one",
         ("-q", "thin", LOG(600, "--systems", "GRE"), "-o", "@thin.nvb", "--interval", 30),
         check=both(info_holds("@thin.nvb", {"blockLevel": 7}), slips_carried(LOG(600, "--systems", "GRE")))),
]


# Records 35 of a newer receiver among epochs and positions


def among_epochs(seconds, rows, first, spacing, code=0):
    """A shared log of a simulated one's records with those of the rows among them, the first
    at `first` and the next each `spacing` records further; its DAT records stand beside it."""
    def make(path):
        records = dat_records(read(dat_of(simulated(seconds))))
        for k, row in reversed(list(enumerate(rows))):
            records.insert(first + k * spacing, dat_of_row(row))
        Path(path + ".dat").write_bytes(b"".join(records))
        succeed("-q", "fromdat", path + ".dat", "-o", path, "--method", 7, code=code)
    return lambda w: shared(("among", seconds, first, spacing), make)


R35 = among_epochs(60, RECORD35["records"], 1, 12)


def every_record35_kept(w, result):
    w.assertEqual(w.info(w.path("thin.nvb"))["record35"], RECORD35["info"])
    thinned, source = ([r for r in dat_records(read(dat_of(log))) if r[3] == 35] for log in (w.path("thin.nvb"), R35(w)))
    w.assertEqual(thinned, source)


CASES += [
    Case("Record35", "info counts records 35 by subtype and kind", ("info", "--json", R35),
         check=info_holds(None, {"record35": RECORD35["info"], "records.35": 10})),
    Case("Record35", "info text names the kinds of a subtype", ("info", R35),
         prints="subtype 24: 6 (1 schema, 1 reference, 4 delta)"),
    Case("Record35", "dump shows the schema and the decoded spectra", ("dump", "--json", "-t", 35, R35),
         check=dump_shows(RECORD35["records"])),
    # That recompress keeps them byte for byte is the newer receiver's case below.
    Case("Record35", "thin keeps every record 35",
         ("-q", "thin", R35, "-o", "@thin.nvb", "--interval", 10), check=every_record35_kept),
    Case("Record35", "a method that cannot carry record 35 says so", ("recompress", R35, "-o", "@m0.nvb", "-m", 0),
         code=1, says="10 records of type 35 were left out"),
]


# Damaged input: what can be read is, the rest named with the byte where it went wrong
def cut_in_block(w):
    data = read(simulated(240))
    start, end = frames_of(data)[1]
    return w.write("cut.nvb", data[:(start + end) // 2])


def cut_block_read_to_the_cut(w, result):
    read_ = dat_records(read(w.path("cut.dat")))
    w.assertGreater(len(read_), 0)
    w.assertEqual(read_, dat_records(read(dat_of(simulated(240))))[:len(read_)])
    w.assertEqual(w.info(w.path("cut.nvb"), code=1)["truncated"]["offset"], frames_of(read(simulated(240)))[1][0])


def damaged_zlib(w):
    data = bytearray(read(simulated(240, "--method", 3)))
    end = frames_of(data)[1][1]
    for i in range(end - 4, end):
        data[i] ^= 0xA5  # the zlib stream's checksum
    return w.write("damaged.nvb", data)


def damaged_block(method, where, hit):
    """A case: a byte of one block flipped costs that block and the deltas up to the next
    reference, which come every 600 s of record time."""
    def spans(w):
        data = read(simulated(1300, "--method", method))
        blocks = frames_of(data)
        return data, blocks[0 if where == "first" else len(blocks) // 2]

    def damage(w):
        data, (start, end) = spans(w)
        damaged = bytearray(data)
        damaged[{"body": (start + end) // 2, "length": start + 3, "type": start}[hit]] ^= 0x84
        return w.write("damaged.nvb", damaged)

    def check(w, result):
        data, (start, end) = spans(w)
        whole = dat_records(read(dat_of(simulated(1300, "--method", method))))
        got = dat_records(read(w.path("damaged.dat")))
        before = len(dat_records(read(dat_of(w.write("before.nvb", data[:start])))))
        up_to = len(dat_records(read(dat_of(w.write("up_to.nvb", data[:end])))))
        first_time = epoch_time(whole[0])
        resumed = next(i for i in range(up_to, len(whole)) if whole[i][3] == 27
                       and (epoch_time(whole[i]) - first_time) % 600000 == 0)
        w.assertEqual(got[:before], whole[:before])
        w.assertEqual(got[before + 1:], whole[resumed + 1:])
        # The first epoch behind the gap has no predecessor to rebuild its Doppler from.
        w.assertEqual(epoch_time(got[before]), epoch_time(whole[resumed]))
        if resumed > up_to:
            w.assertIn(f"{resumed - up_to} delta records behind the damage were left out", result.stderr.decode())

    return Case("Damage", f"a damaged {hit} of the {where} block of method {method} costs it and the deltas behind",
                ("todat", damage, "-o", "@damaged.dat"), code=1, check=check)


CASES += [
    Case("Damage", "a log cut inside a block reads to the cut and names the byte",
         ("todat", cut_in_block, "-o", "@cut.dat"), code=1, check=cut_block_read_to_the_cut,
         says=names_byte("cut.nvb", lambda data: frames_of(data)[1][0], "the log ends inside a block")),
    Case("Damage", "a byte stream cut inside a record names the byte",
         ("info", lambda w: w.write("cut0.nvb", read(simulated(30, "--method", 0))[:5000])), code=1,
         says=names_byte("cut0.nvb", len, "the log ends inside a record")),
    Case("Damage", "a damaged zlib block gives its status and names the byte", ("info", "--json", damaged_zlib),
         code=1, says=names_byte("damaged.nvb", lambda data: frames_of(data)[1][1] - 1, "zlib failed"),
         check=info_holds(None, {"statuses.*.status": [10]})),  # zlib failed
    *(damaged_block(*spot) for spot in ((7, "first", "body"), (7, "middle", "body"), (7, "middle", "length"),
                                        (7, "middle", "type"), (5, "middle", "body"))),
    Case("Damage", "an empty file is no log", ("info", lambda w: w.write("empty.nvb", b"")), code=2, says="is empty"),
    Case("Damage", "noise is no log", ("todat", lambda w: w.write("noise.nvb", NOISE[:5000]), "-o", "@n.dat"), code=2),
    Case("Damage", "a missing file is no log", ("info", "@missing.nvb"), code=2, says="can't open"),
]


# Observation files of the simulated hour, read back by the reader above
TYPES = json.loads((DATA / "observation_types.json").read_text())
HOUR = 3600


@cache
def hour_epochs():
    return lines_of(simulated(HOUR), "--type", 27)


def observation_type(version, letter, signal_):
    table, key = TYPES[str(int(version))][letter], f"{signal_['band']}/{signal_['track']}"
    if version < 3:
        return table.get(key) if version > 2.11 or letter != "C" else None
    return "1I" if version == 3.02 and table[key] == "2I" else table[key]


def observations_of(version, interval=1):
    """A case: each observation of the hour's epochs on the interval reads back as the dump
    shows it, and a signal's phase is marked slipped when it slipped since the last epoch
    written."""
    def check(w, result):
        rinex, records = ObservationFile(read(w.path("obs.rnx")).decode()), hour_epochs()
        w.assertEqual(len(rinex.epochs), len(records) // interval)
        w.assertIn(f"{interval:10.3f}", "".join(rinex.header))
        checked, slips, last_counts, pending = 0, 0, {}, set()
        for record in records:
            counts, epoch = {}, rinex.epochs.get((record["week"], round(record["time"])))
            w.assertEqual(epoch is None, round(record["time"]) % (1000 * interval) != 0)
            for sat in record["satellites"]:
                if sat["sv"][0] == "C" and version < 2.12:
                    w.assertNotIn(sat["sv"], epoch or {})
                    continue
                for signal_ in sat["signals"]:
                    suffix = observation_type(version, sat["sv"][0], signal_)
                    if not suffix:
                        continue
                    key = (sat["sv"], suffix)
                    counts[key] = signal_["slipCount"]
                    if signal_["measFlags1"] & 8 or last_counts.get(key, signal_["slipCount"]) != signal_["slipCount"]:
                        pending.add(key)
                    if epoch is None:
                        continue
                    cells = epoch[sat["sv"]]
                    code, phase, strength = cells["C" + suffix], cells["L" + suffix], cells["S" + suffix]
                    w.assertEqual((code[0], phase[0], strength[0]),
                                  (milli(signal_["range"]), milli(-signal_["phase"]), milli(signal_["snr"])))
                    w.assertIn(code[2], "123456789")
                    # Decimation tracks slips by row, so a satellite that moved may carry its row's mark.
                    if interval == 1 or key in pending:
                        w.assertEqual(phase[1] in ("1", "3", "5", "7"), key in pending, (record["time"], key))
                    slips += key in pending
                    checked += 1
                    pending.discard(key)
            last_counts = counts
        w.assertGreater(checked, 150000 // interval)
        w.assertGreater(slips, 100 // interval)
        if version >= 3.02:
            w.assertEqual(rinex.channels, {s["sv"]: s["channel"] - 256 * (s["channel"] > 127)
                                           for r in records for s in r["satellites"] if s["sv"][0] == "R"})

    return Case("RinexOutput", f"every observation of version {version} each {interval} s reads back as the dump shows it",
                ("-q", "rinex", LOG(HOUR), "-o", "@obs.rnx", "--version", version,
                 *(("--interval", interval) if interval > 1 else ())), check=check)


def without_program_line(text):
    return "".join(line for line in text.splitlines(True) if "PGM / RUN BY / DATE" not in line)


def compact_of(version):
    def check(w, result):
        plain = succeed("rinex", simulated(HOUR), "-o", "-", "--version", version, "--interval", 5).stdout.decode()
        compact = read(w.path("obs.crx")).decode()
        w.assertLess(len(compact), len(plain) / 2)
        w.assertEqual(without_program_line(expand_compact(compact)), without_program_line(plain))

    return Case("RinexOutput", f"compact rinex {version} expands to the rinex text",
                ("-q", "rinex", LOG(HOUR), "-o", "@obs.crx", "--version", version, "--interval", 5, "--crx"),
                check=check)


def epochs_before_the_cut(w, result):
    whole = succeed("rinex", simulated(HOUR), "-o", "-").stdout.decode()
    text = read(w.path("cut.rnx")).decode()
    w.assertTrue(whole[whole.index("END OF HEADER"):].startswith(text[text.index("END OF HEADER"):]))
    w.assertGreater(len(ObservationFile(text).epochs), 100)
    w.assertLess(len(ObservationFile(text).epochs), HOUR)


def binex_framed(w, result):
    data, position, records = read(w.path("obs.bnx")), 0, 0
    while position < len(data):
        w.assertEqual(data[position:position + 2], b"\xe2\x7f")
        length, size = data[position + 2], 1
        if length & 0x80:
            length, size = (length & 0x7F) << 7 | data[position + 3], 2
        body_end = position + 2 + size + length
        w.assertEqual(data[position + 2 + size], 0x05)
        # A byte of exclusive or behind a short record, a CRC-CCITT behind a longer one.
        checked, width = data[position + 1:body_end], 1 if length < 126 else 2
        w.assertEqual(int.from_bytes(data[body_end:body_end + width], "big"),
                      reduce(xor, checked) if width == 1 else binascii.crc_hqx(checked, 0))
        position = body_end + width
        records += 1
    w.assertEqual(records, HOUR)


CASES += [
    *(observations_of(version) for version in (2.11, 2.12, 3.02, 3.03)),
    observations_of(3.03, 30),
    *(compact_of(version) for version in ("2.11", "3.03")),
    Case("RinexOutput", "a cut log gives the epochs before the cut",
         ("rinex", lambda w: w.write("cut.nvb", read(simulated(HOUR))[:os.path.getsize(simulated(HOUR)) // 3]),
          "-o", "@cut.rnx"), code=1, says="the log ends inside a block", check=epochs_before_the_cut),
    Case("RinexOutput", "binex records are framed and checked", ("-q", "binex", LOG(HOUR), "-o", "@obs.bnx"),
         check=binex_framed),
]


# One log of every record type between epochs; that each comes back in every method is the
# library's to check, what the tool says of them and how it shows them is checked here.
EVERY = among_epochs(30, EVERY_TYPE["records"], 10, 0, code=1)


def every_type_back(w, result):
    lost = [row for row in EVERY_TYPE["records"] if "notReadBack" in row]
    for row in lost:
        w.assertIn(row["notReadBack"], result.stderr.decode())
    expected = [r for r in dat_records(read(EVERY(w) + ".dat")) if r not in map(dat_of_row, lost)]
    w.assertEqual(dat_records(read(dat_of(w.path("every.nvb")))), expected)
    info = w.info(w.path("every.nvb"))
    w.assertEqual((info["records"], info["statuses"]), (Counter(str(record[3]) for record in expected), []))


CASES += [
    Case("AllTypes", "every type comes back as it went and what no log keeps is named",
         ("fromdat", lambda w: EVERY(w) + ".dat", "-o", "@every.nvb", "--method", 3), code=1, check=every_type_back),
    Case("AllTypes", "dump names the fields of every type", ("dump", "--json", EVERY),
         check=dump_shows(KEPT_TYPES, slice(10, 10 + len(KEPT_TYPES)))),
    Case("AllTypes", "dump text names the entries of a list", ("dump", EVERY, "--type", 40),
         prints="entries=[{id=1 value=23.45} {id=6 value=-3} {id=7 value=65000}]"),
]


# Output that fails leaves what stood there as it was
def left_as_they_were(files):
    """The before and check of a case: these files (bytes, or a log to copy) stand there
    before the command and, as they were, alone after it."""
    def contents():
        return {name: read(data()) if callable(data) else data for name, data in files.items()}

    def before(w):
        for name, data in contents().items():
            w.write(name, data)

    def check(w, result):
        w.assertEqual({name: read(w.path(name)) for name in os.listdir(w.directory)}, contents())
    return {"before": before, "check": check}


def linked_target(w):
    os.symlink("real.dat", w.path("link.dat"))
    w.write("real.dat", b"old")
    os.chmod(w.path("real.dat"), 0o640)


def link_kept(w, result):
    w.assertTrue(os.path.islink(w.path("link.dat")))
    w.assertEqual(read(w.path("real.dat")), read(dat_of(simulated(5))))
    w.assertEqual(os.stat(w.path("real.dat")).st_mode & 0o777, 0o640)


CASES += [
    *(Case("SafeOutput", f"a failing {args[0]} leaves the target as it was", args, code=2,
           says="not written; a file there is left as it was",
           **left_as_they_were({"sim.nvb": lambda: simulated(20), "noise.bin": NOISE, "empty.nvb": b"", "keep.dat": b"keep"}))
      for args in (("recompress", "@noise.bin", "-o", "@sim.nvb", "--method", 5),
                   ("thin", "@noise.bin", "-o", "@sim.nvb", "--interval", 5), ("fromdat", "@noise.bin", "-o", "@sim.nvb"),
                   ("todat", "@empty.nvb", "-o", "@keep.dat"))),
    *(Case("SafeOutput", f"a {args[0]} whose write fails halfway leaves no partial file", args, code=2,
           says="write error", limit=50000, **left_as_they_were({"sim.nvb": lambda: simulated(300), "target.nvb": b"old"}))
      for args in (("recompress", "@sim.nvb", "-o", "@target.nvb", "--method", 1),
                   ("todat", "@sim.nvb", "-o", "@target.nvb"), ("simulate", "-o", "@target.nvb", "--duration", 300))),
    Case("SafeOutput", "a link stays a link", ("-q", "todat", LOG(5), "-o", "@link.dat"), before=linked_target,
         check=link_kept),
    Case("SafeOutput", "a device is written in place", ("-q", "todat", LOG(5), "-o", os.devnull),
         check=lambda w, r: w.assertTrue(os.path.exists(os.devnull) and not os.path.isfile(os.devnull))),
    *(Case("SafeOutput", f"{command} tells of a full standard output", (command, LOG(5)), code=2,
           says="nvb: standard output: write error", stdout="/dev/full") for command in ("info", "dump")),
]


# The simulated receiver logging as a newer one does: records 35 that read as 27 and 29
NEWER = LOG(600, "--seed", 3, "--receiver", "new")


def reads_as_plain(w, result):
    clock = {"referenceSystem": 0, "terms": []}
    # The conversion always writes an empty clock block, marked in the position flags, and a
    # RAIM byte; no clock drift.
    own = {29: {"posFlags": 0x14, "clock": clock}, 27: {"epochFlags": 0x30, "raimFault": 0, "clock": clock}}
    for plain, newer in zip(lines_of(simulated(600, "--seed", 3), "-t", "27,29"), lines_of(NEWER(w), "-t", "27,29"),
                            strict=True):
        w.assertEqual({key: newer.pop(key) for key in own[plain["type"]]}, own[plain["type"]])
        plain.pop("posFlags", None)  # the plain position's own flags
        w.assertEqual(plain.pop("epochFlags", 0), 0)
        satellites = (r.pop("satellites") if r["type"] == 27 else [] for r in (plain, newer))
        for sat, other in zip(*satellites, strict=True):
            # the newer receiver's quarter degrees rounded to whole ones (a record 27 holds two of azimuth)
            for field in ("azimuth", "elevation"):
                w.assertLessEqual(abs(sat.pop(field) - other.pop(field)), 1)
            for signal_, converted in zip(sat.pop("signals"), other.pop("signals"), strict=True):
                # range folded with the carrier phase onto a 2^-7 grid
                w.assertAlmostEqual(signal_.pop("range"), converted.pop("range"), delta=2 ** -8 + 1e-7)
                w.assertEqual(converted, signal_)
            w.assertEqual(other, sat)
        w.assertEqual(newer, plain)


def records35_as_they_came(w, result):
    native = read(shared(("native", NEWER(w)), lambda path: succeed("-q", "todat", "--native-rec35", NEWER(w),
                                                                     "-o", path)))
    succeed("-q", "todat", "--native-rec35", w.path("m5.nvb"), "-o", w.path("m5.dat"))
    w.assertEqual(read(w.path("m5.dat")), native)
    w.assertEqual({r[3] for r in dat_records(native)}, {35})


def rinex_as_plain(w, result):
    texts = (read(w.path("new.obs")).decode(), succeed("rinex", simulated(600, "--seed", 3), "-o", "-").stdout.decode())
    new, old = ([line for line in text.splitlines() if line.startswith(">")] for text in texts)
    w.assertEqual((len(new), new), (600, old))


CASES += [
    Case("Record35", "a newer receiver's log reads as the plain one within each field's resolution",
         ("info", NEWER), prints="1200: 600 x 27, 600 x 29",
         check=both(info_holds(NEWER, {"schemasForConversion": 2, "recordsUndecoded": 0}), reads_as_plain)),
    Case("Record35", "thinning a newer receiver's log carries the slips of dropped epochs to the next kept one",
         ("-q", "thin", NEWER, "-o", "@thin.nvb", "--interval", 30),
         check=both(info_holds("@thin.nvb", {"carriedAs": {"35"}}), slips_carried(NEWER))),
    Case("Record35", "recompress keeps a newer receiver's records 35 byte for byte",
         ("-q", "recompress", NEWER, "-o", "@m5.nvb", "-m", 5), check=records35_as_they_came),
    Case("Record35", "rinex gives a newer receiver's epochs as the plain ones",
         ("-q", "rinex", NEWER, "-o", "@new.obs"), check=rinex_as_plain),
]


# Wrong usage and help, one case a line of the table
CASES += [
    *(Case("Usage", name, tuple(LOG(5) if arg == "LOG" else arg for arg in args.split()), code=int(code),
           prints=None if int(code) else "Usage")
      for code, name, args in ((field.strip() for field in line.split("|"))
                               for line in read(DATA / "usage.txt").decode().splitlines() if line[0] != "#")),
    Case("Usage", "writing over the input is wrong usage", ("recompress", LOG(5), "-o", LOG(5), "--method", 3),
         code=2, check=lambda w, r: w.assertEqual(w.info(simulated(5))["epochs"]["count"], 5)),
]


for case_ in CASES:
    group = globals().setdefault(case_.group, type(case_.group, (Workspace,), {}))
    name = "test_" + re.sub(r"[^a-z0-9]+", "_", case_.name.lower()).strip("_")
    assert not hasattr(group, name), f"two cases named {case_.name}"
    setattr(group, name, lambda self, case=case_: self.run_case(case))


class SeveralInputs(Workspace):
    def test_jobs_write_what_one_file_at_a_time_does_and_exit_with_the_worst_code(self):
        logs = [self.write(f"site{seed}.nvb", read(simulated(20, "--seed", seed))) for seed in (1, 2, 3)]
        broken = self.write("broken.nvb", b"\x02\x00")
        for jobs in (1, 3):
            result = succeed("--jobs", jobs, "todat", *logs, broken, "-o", self.path(f"out{jobs}"), code=2)
            self.assertIn(f"{broken}: is too short", result.stderr.decode())
            for log in logs:
                name = os.path.basename(log)[:-4] + ".dat"
                self.assertEqual(read(self.path(f"out{jobs}/{name}")), read(dat_of(log)))
        succeed("rinex", logs[0], self.path("site1.rnx"), "-o", self.path("out1"), code=2)  # two site1.rnx
        succeed("todat", *logs, "-o", logs[0], code=2)


if __name__ == "__main__":
    NVB = os.path.abspath(sys.argv[1])
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]], verbosity=2)
