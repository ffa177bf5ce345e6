#!/usr/bin/env python3
"""Drives the nvb binary as a user does: python3 cli_test.py NVB [TestCase ...]."""

import datetime
import json
import math
import os
import struct
import subprocess
import sys
import tempfile
import unittest

NVB = None

NVE_MAGIC = bytes([0xD1, 0x60, 0x42, 0x2E, 0xF8, 0xF9])
SYSTEMS = {"GPS", "GLONASS", "Galileo", "BeiDou"}


def run(*args, stdin=None, timeout=120):
    return subprocess.run([NVB, *map(str, args)], input=stdin, capture_output=True, timeout=timeout)


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


class Epoch:
    """A record 27 in DAT form, cut into its blocks so that flag bytes can be added."""

    def __init__(self, record):
        flags = record[20]
        position = 21 + (4 if flags & 0x02 else 0) + (1 if flags & 0x10 else 0)
        if flags & 0x20:
            position += 3 + 9 * record[position + 2]
        self.head = bytearray(record[:position])
        self.satellites = []
        while position + 10 <= len(record):
            block = bytearray(record[position:position + record[position]])
            position += len(block)
            signals = []
            for _ in range(block[4]):
                signals.append(bytearray(record[position:position + record[position]]))
                position += signals[-1][0]
            self.satellites.append([block, signals])

    def time(self):
        return struct.unpack_from("<d", self.head, 7)[0]

    def find(self, packed_system, sv_id):
        for block, signals in self.satellites:
            if block[2] == packed_system and block[1] == sv_id:
                return block, signals
        return None

    def bytes(self):
        body = bytearray(self.head)
        for block, signals in self.satellites:
            body += block
            for signal in signals:
                body += signal
        body[1:3] = struct.pack("<H", len(body))
        return bytes(body)


def signal_range(signal):
    return struct.unpack_from("<d", signal, 5)[0]


def set_signal_range(signal, value):
    struct.pack_into("<d", signal, 5, value)


def add_signal_flags(signal, flags2, flags3=None):
    """Sets measFlags2 (and measFlags3) behind measFlags1, as a reader would deliver them."""
    assert not signal[26] & 0x80
    signal[26] |= 0x80
    extra = bytes([flags2]) if flags3 is None else bytes([flags2 | 0x80, flags3])
    signal[27:27] = extra
    signal[0] += len(extra)


def add_sv_flags2(block, value):
    assert not block[9] & 0x80
    block[9] |= 0x80
    block[10:10] = bytes([value])
    block[0] += 1


def dat(record_type, body, byte2=None):
    """A DAT record; records 34, 98 and 99 carry the high byte of their length in byte 2."""
    length = len(body) + 4
    if byte2 is None:
        byte2 = length >> 8 if record_type in (34, 98, 99) else 0
    return bytes([0x74, length & 0xFF, byte2, record_type]) + body


def pack(fmt, *values):
    return struct.pack("<" + fmt, *values)


def series(fmt, count, first, step=1):
    return pack(fmt * count, *(first + step * i for i in range(count)))


TEXT = b"$GNGGA,120000.00,4722.61,N,00832.55,E,4,24,0.6,512.3,M,47.4,M,1.0,0000*5B\r\n" * 60
TAG = pack("HI", 2301, 345600200)

# Record 33 bodies behind the subtype byte, in wire order: what a reader delivers.
REC33 = {
    1: pack("6BHdffH", 3, 1, 0x0C, 1, 2, 3, 2301, 345600.2, 0.35, -1.25, 17),
    2: pack("dddBHH", 6378137.0, -0.0033528, 12.5, 4, 1, 2),
    3: bytes([0, 12, 1, 2, 7, 1, 3, 11, 0, 10, 30, 1]),
    4: pack("I5BfH", 345600000, 1, 2, 3, 4, 5, 0.125, 2301) + series("f", 3, 9.5) + series("I", 6, 7) + pack("Bd", 9, 1.5e-9),
    **{k: series("d", 2, 4084735.25 * k) for k in range(5, 12)},
    12: series("d", 31, -0.002, 0.5),
    13: pack("BH", 2, 7) + pack("I6H", 11, *range(40, 46)) + pack("I6H", 12, *range(80, 86)),
    14: pack("dddd", 345600.2, 0.8268, 0.15, 512.25) + series("f", 12, 0.5) + pack("BBffBB", 1, 4, 1.5, 0.0, 0, 2),
    15: pack("ddfdf", 1.25, 1.5, 2.5, -3.75, 0.5) + series("d", 6, 0.001) + series("f", 6, 0.25) + bytes([5]),
    16: bytes([2, 8, 4]) + series("d", 4, 0.5),
    17: TAG + bytes([0x81, 3, 2]) + pack("H4f", 5, 1, 2, 3, 4) + pack("H4f", 9, -1, -2, -3, -4) + bytes([1, 2, 3, 4]),
    18: TAG + bytes([2]) + pack("H3f", 21, 0.25, 0.5, 0.75) + pack("H3f", 22, 1, 2, 3),
    19: TAG + bytes([1, 2, 3, 4]) + series("d", 3, 4084735.2) + series("f", 15, 0.01) + bytes([6, 7]) + series("d", 3, -0.5),
    20: TAG + bytes([1, 2]) + series("f", 5, 0.4),
    21: pack("IHIdddfHHHBB", 2, 2301, 345600200, 0.8268, 0.15, 512.25, 0.5, 1, 2, 3, 4, 7)
        + bytes([1, 0]) + series("f", 16, 0.25) + bytes([2, 0]) + series("f", 4, 1.0)
        + bytes([3, 0, 0]) + series("f", 21, 2.0),
    22: TAG + bytes([1, 2]) + pack("f", 1.5) + series("d", 3, 4084735.2) + series("d", 6, 0.04),
    23: TAG + pack("H", 3) + series("f", 10, 0.2) + series("d", 3, 4084735.2) + series("d", 6, 0.04) + bytes([1, 2]),
    25: TAG + bytes([1, 2]) + series("f", 17, 0.6) + pack("HH", 100, 103) + bytes([5, 6, 7]) + pack("H", 4),
    26: TAG + series("H", 30, 500, 3) + bytes([1, 2]),
    27: TAG + pack("BBH", 1, 2, 3) + series("d", 3, 1.5) + bytes([4, 5, 6]) + pack("IHI", 5, 6, 7) + series("d", 3, -2.5)
        + pack("HI", 8, 9) + series("d", 3, 3.25),
    28: TAG + pack("BH", 1, 2) + series("f", 3, 0.5) + series("d", 3, 0.8268) + series("f", 3, -0.5),
    29: bytes([3, 1, 2, 3, 4, 5, 6]),
    30: bytes(range(1, 11)) + pack("III", 100, 1100, 300),
}


def auxiliary_records():
    """One record of each auxiliary type and of each record 33 subtype, as a reader delivers them."""
    records = [dat(33, bytes([subtype]) + body) for subtype, body in REC33.items()]
    records += [
        dat(31, pack("HBB", 0x5354, 2, 12) + TEXT[:12]),
        dat(32, bytes([5]) + series("d", 11, 0.001) + series("H", 5, 1)),
        dat(34, bytes([1]) + pack("HB", 7, 30) + b"".join(pack("df", 345600.2 + i, 20.5 + i) for i in range(30))),
        dat(34, bytes([2]) + pack("HB", 9, 1) + pack("d4fB", 345600.2, 1, 2, 3, 4, 5)),
        dat(34, bytes([7]) + TEXT[:20]),
        dat(40, TAG + bytes([3]) + pack("Bd", 1, 23.45) + pack("Bd", 6, -3) + pack("Bd", 7, 65000), byte2=2),
        dat(98, pack("BHI", 0x80, 2301, 345600200) + bytes([9]) + TEXT[:600]),
        dat(98, pack("BHI", 0x01, 3, 4) + TEXT[:20]),
        dat(99, pack("BHI", 1, 3, 4) + TEXT[:3000]),
        dat(99, pack("BHI", 0, 3, 4) + TEXT[:50]),
    ]
    return records


# Records a log can't give back: 20 is written but no reader takes it, 101 and 102 exist
# as DAT records only.
WRITE_ONLY = [dat(20, pack("d4HI", 123456.0, 3, 4, 5, 6, 7), byte2=0), dat(101, series("d", 5, 0.5) + bytes([6, 7])),
              dat(102, pack("ddB", 1.0, 2.0, 1) + bytes([1, 2]) + series("d", 4, 1.0))]


class Workspace(unittest.TestCase):
    def setUp(self):
        self._directory = tempfile.TemporaryDirectory(prefix="nvb-cli-")
        self.directory = self._directory.name

    def tearDown(self):
        self._directory.cleanup()

    def path(self, name):
        return os.path.join(self.directory, name)

    def nvb(self, *args, code=0, stdin=None, timeout=120):
        result = run(*args, stdin=stdin, timeout=timeout)
        self.assertEqual(result.returncode, code, f"nvb {' '.join(map(str, args))}: {result.stderr.decode()}")
        return result

    def simulate(self, name, *options):
        self.nvb("-q", "simulate", "-o", self.path(name), *options)
        return self.path(name)

    def dat_of(self, log):
        self.nvb("-q", "todat", log, "-o", log + ".dat")
        return self.read(log + ".dat")

    def info(self, log, code=0):
        return json.loads(self.nvb("info", "--json", log, code=code).stdout)

    @staticmethod
    def read(path):
        with open(path, "rb") as file:
            return file.read()

    @staticmethod
    def write(path, data):
        with open(path, "wb") as file:
            file.write(data)
        return path

    def write_dat(self, name, records):
        return self.write(self.path(name), b"".join(records))


class SimulateThenInfo(Workspace):
    def test_a_simulated_log_reads_back_clean_with_its_span_rate_and_systems(self):
        log = self.simulate("sim.nvb", "--duration", 180)
        self.assertEqual(self.read(log)[4:10], NVE_MAGIC)
        info = self.info(log)
        self.assertEqual(info["records"], {"27": 180, "29": 180})
        self.assertEqual(info["epochs"]["count"], 180)
        self.assertEqual(info["epochs"]["spanSeconds"], 179)
        self.assertEqual(info["epochs"]["rateHz"], 1)
        self.assertEqual(info["blockLevel"], 7)
        self.assertEqual((info["header"]["writerMajor"], info["header"]["writerMinor"]), (8, 97))
        self.assertEqual((info["header"]["minReaderMajor"], info["header"]["minReaderMinor"]), (8, 90))
        self.assertEqual(set(info["satellites"]), SYSTEMS)
        for system in info["satellites"].values():
            self.assertGreaterEqual(system["satellites"], 4)
        self.assertEqual(info["statuses"], [])
        self.assertNotIn("truncated", info)
        self.assertAlmostEqual(info["bytesPerEpoch"], os.path.getsize(log) / 180)
        text = self.nvb("info", log).stdout.decode()
        self.assertIn("block stream (NVE), level 7 (zstd over bare records)", text)
        self.assertRegex(text, r"damage +none")

    def test_interval_systems_and_method_shape_the_log(self):
        log = self.simulate("fast.nvb", "--duration", 10, "--interval", 0.2, "--systems", "GE", "--method", 0)
        info = self.info(log)
        self.assertEqual(info["epochs"]["count"], 50)
        self.assertEqual(info["epochs"]["rateHz"], 5)
        self.assertEqual(set(info["satellites"]), {"GPS", "Galileo"})
        self.assertEqual(info["stream"], "byte stream, Huffman coded (NVB)")

    def test_a_seed_gives_the_same_log_and_another_seed_another(self):
        logs = [self.simulate(f"s{i}.nvb", "--duration", 30, "--seed", seed) for i, seed in enumerate((7, 7, 8))]
        contents = [self.read(log) for log in logs]
        self.assertEqual(contents[0], contents[1])
        self.assertNotEqual(contents[0], contents[2])

    def test_standard_output_and_input_carry_a_log(self):
        log = self.nvb("-q", "simulate", "-o", "-", "--duration", 20).stdout
        info = json.loads(self.nvb("info", "--json", "-", stdin=log).stdout)
        self.assertEqual(info["file"], "standard input")
        self.assertEqual(info["epochs"]["count"], 20)


class DumpJson(Workspace):
    def test_every_line_is_a_json_record_with_decoded_fields(self):
        log = self.simulate("sim.nvb", "--duration", 30)
        lines = self.nvb("dump", "--json", log).stdout.decode().splitlines()
        records = [json.loads(line) for line in lines]
        self.assertEqual(len(records), 60)
        epochs = [record for record in records if record["type"] == 27]
        positions = [record for record in records if record["type"] == 29]
        self.assertEqual(len(epochs), 30)
        self.assertEqual([e["time"] for e in epochs], [epochs[0]["time"] + 1000 * k for k in range(30)])
        for epoch in epochs:
            self.assertGreater(len(epoch["satellites"]), 10)
            for satellite in epoch["satellites"]:
                self.assertRegex(satellite["sv"], r"^[GREC]\d\d$")
                for signal in satellite["signals"]:
                    self.assertGreater(signal["range"], 1.5e7)
                    self.assertIn("phase", signal)
        for position in positions:
            self.assertAlmostEqual(position["latitude"], 47.3769, places=3)
            self.assertEqual(position["numSVs"], len(position["satellites"]))

    def test_type_filter_and_text_lines_match_the_records(self):
        log = self.simulate("sim.nvb", "--duration", 20)
        only = [json.loads(line) for line in self.nvb("dump", "--json", log, "--type", 29).stdout.splitlines()]
        self.assertEqual({record["type"] for record in only}, {29})
        self.assertEqual(len(only), 20)
        text = self.nvb("dump", log).stdout.decode().splitlines()
        self.assertEqual(len(text), 40)
        self.assertTrue(text[0].startswith("type=27 offset="))


class DatRoundTrip(Workspace):
    def test_todat_then_fromdat_gives_back_the_same_records(self):
        log = self.simulate("sim.nvb", "--duration", 60)
        dat = self.dat_of(log)
        self.assertEqual(len(dat_records(dat)), 120)
        for method in (0, 4, 7):
            rewritten = self.path(f"m{method}.nvb")
            self.nvb("-q", "fromdat", log + ".dat", "-o", rewritten, "--method", method, "--level", 1)
            self.assertEqual(self.dat_of(rewritten), dat, f"method {method}")
        # Every system keeps antenna 0 through the DAT form, so the observation file is whole.
        rinex = [b"\n".join(line for line in self.nvb("rinex", path, "-o", "-", "--marker", "SITE").stdout.split(b"\n")
                            if not line.endswith(b"PGM / RUN BY / DATE ")) for path in (log, rewritten)]
        self.assertEqual(rinex[1], rinex[0])
        self.assertTrue(all(f"\n{system}".encode() in rinex[0] for system in "GREC"))

    def test_pipes_carry_dat_records_both_ways(self):
        log = self.simulate("sim.nvb", "--duration", 20)
        dat = self.nvb("todat", "-", "-o", "-", stdin=self.read(log)).stdout
        self.assertEqual(dat, self.dat_of(log))
        rewritten = self.nvb("fromdat", "-", "-o", "-", "-m", 3, stdin=dat).stdout
        self.assertEqual(self.nvb("todat", "-", "-o", "-", stdin=rewritten).stdout, dat)


    def test_a_plain_byte_stream_of_the_same_frames_reads_the_same(self):
        log = self.simulate("stored.nvb", "--duration", 30, "--method", 1)
        data, frames, position = self.read(log), b"", 17
        while position < len(data):
            end = position + 4 + int.from_bytes(data[position + 1:position + 4], "big")
            frames += data[position + 10:end]  # behind the block header and its magic
            position = end
        plain = self.write(self.path("plain.nva"), frames)
        self.assertEqual(self.info(plain)["stream"], "byte stream of plain frames (NVA)")
        self.assertEqual(self.dat_of(plain), self.dat_of(log))


class RecompressEveryPair(Workspace):
    def test_every_method_into_every_method_keeps_the_dat_records(self):
        log = self.simulate("sim.nvb", "--duration", 40)
        reference = self.dat_of(log)
        sizes = set()
        for source in range(8):
            first = self.path(f"from{source}.nvb")
            self.nvb("-q", "recompress", log, "-o", first, "--method", source)
            sizes.add(os.path.getsize(first))
            for target in range(8):
                second = self.path(f"from{source}to{target}.nvb")
                self.nvb("-q", "recompress", first, "-o", second, "-m", target)
                self.assertEqual(self.dat_of(second), reference, f"method {source} into {target}")
        self.assertEqual(len(sizes), 8)


class LongEpochForms(Workspace):
    def test_epochs_only_the_long_form_carries_come_back_as_they_went_in(self):
        log = self.simulate("sim.nvb", "--duration", 20)
        records = dat_records(self.dat_of(log))
        epochs = [Epoch(r) for r in records if r[3] == 27]
        always = [(b[2], b[1]) for b, s in epochs[0].satellites if b[2] == 0 and len(s) >= 2
                  and all(e.find(b[2], b[1]) for e in epochs)]
        self.assertGreaterEqual(len(always), 4)
        rollover, wide, flagged, third = always[:4]
        lowest = min(signal_range(e.find(*rollover)[1][0]) for e in epochs)
        lift = 36.0e6 - lowest  # whole metres: the ranges stay on their grid
        for k, epoch in enumerate(epochs):
            block, signals = epoch.find(*rollover)
            for signal in signals:
                set_signal_range(signal, signal_range(signal) + round(lift))
            add_signal_flags(signals[0], 0x02)  # the range rolled over
            block, signals = epoch.find(*wide)
            set_signal_range(signals[1], signal_range(signals[0]) + 150.25)
            add_signal_flags(signals[1], 0x01)  # a three-byte difference
            if k % 2 == 1:
                add_sv_flags2(epoch.find(*flagged)[0], 0x02)
            else:
                add_signal_flags(epoch.find(*third)[1][1], 0x20, 0x01)
        edited = iter(epochs)
        source = self.write_dat("long.dat", [next(edited).bytes() if r[3] == 27 else r for r in records])
        written = self.path("long.nvb")
        self.nvb("-q", "fromdat", source, "-o", written)
        carriers = self.info(written)["carriedAs"]
        self.assertNotIn("37", carriers)
        self.assertEqual(carriers["36"] + carriers["38"], 20)
        self.assertEqual(dat_records(self.dat_of(written)), dat_records(self.read(source)))


def dopplers(dat):
    """Each signal's Doppler bytes and Doppler-present bit, by epoch time, satellite and signal."""
    found = {}
    for record in dat_records(dat):
        if record[3] != 27:
            continue
        epoch = Epoch(record)
        for block, signals in epoch.satellites:
            for signal in signals:
                found[(epoch.time(), block[2], block[1], signal[1], signal[2])] = (signal[21:25], signal[26] & 0x04)
    return found


class KeepDoppler(Workspace):
    def changed(self, before, after):
        self.assertEqual(before.keys(), after.keys())
        return sum(before[key] != after[key] for key in before)

    def test_every_method_gives_every_doppler_back_and_drop_doppler_rebuilds_them(self):
        log = self.simulate("sim.nvb", "--duration", 40)
        source = dopplers(self.dat_of(log))
        self.assertTrue(all(present for _, present in source.values()))
        for method in range(8):
            kept, dropped = self.path(f"keep{method}.nvb"), self.path(f"drop{method}.nvb")
            self.nvb("-q", "fromdat", log + ".dat", "-o", kept, "--method", method)
            self.nvb("-q", "fromdat", log + ".dat", "-o", dropped, "--method", method, "--drop-doppler")
            self.assertEqual(self.changed(source, dopplers(self.dat_of(kept))), 0, f"method {method}")
            rebuilt = self.changed(source, dopplers(self.dat_of(dropped)))
            self.assertGreater(rebuilt, len(source) * 9 // 10, f"method {method}")
            self.assertLess(os.path.getsize(dropped), os.path.getsize(kept))
        self.assertNotIn("37", self.info(self.path("keep7.nvb"))["carriedAs"])
        self.assertNotIn("36", self.info(self.path("drop7.nvb"))["carriedAs"])
        simulated = self.info(self.simulate("dropped.nvb", "--duration", 40, "--drop-doppler"))
        self.assertEqual(simulated["carriedAs"]["37"], 39)

    def test_recompress_and_thin_write_doppler_as_their_input_carried_it(self):
        kept = self.simulate("kept.nvb", "--duration", 40)
        dropped = self.path("dropped.nvb")
        self.dat_of(kept)
        self.nvb("-q", "fromdat", kept + ".dat", "-o", dropped, "--drop-doppler")
        for log in (kept, dropped):
            self.nvb("-q", "recompress", log, "-o", log + ".bz2", "-m", 5)
            self.assertEqual(self.dat_of(log + ".bz2"), self.dat_of(log), log)
            self.assertEqual(self.info(log + ".bz2")["carriedAs"].keys(), self.info(log)["carriedAs"].keys(), log)
        self.nvb("-q", "recompress", kept, "-o", kept + ".drop", "-m", 7, "--drop-doppler")
        self.assertEqual(self.dat_of(kept + ".drop"), self.dat_of(dropped))
        self.nvb("-q", "thin", kept, "-o", kept + ".thin", "--interval", 10)
        thinned = dopplers(self.dat_of(kept + ".thin"))
        source = dopplers(self.dat_of(kept))
        self.assertEqual({key: source[key] for key in thinned}, thinned)

    def test_best_and_explicit_levels_read_back_the_same_records(self):
        log = self.simulate("sim.nvb", "--duration", 300)
        dat = self.dat_of(log)
        self.nvb("-q", "fromdat", log + ".dat", "-o", self.path("best.nvb"), "--best")
        self.assertLess(os.path.getsize(self.path("best.nvb")), os.path.getsize(log))
        self.assertEqual(self.info(self.path("best.nvb"))["blockLevel"], 5)
        self.assertEqual(self.dat_of(self.path("best.nvb")), dat)
        for method, level in ((3, 9), (6, 5), (7, 19)):
            written = self.path(f"explicit{method}.nvb")
            self.nvb("-q", "recompress", log, "-o", written, "--method", method, "--explicit-level", level)
            self.assertEqual(self.dat_of(written), dat, f"method {method}")


class ThinCarriesSlips(Workspace):
    def test_a_slip_in_a_dropped_epoch_lands_on_the_next_kept_one(self):
        log = self.simulate("sim.nvb", "--duration", 120, "--systems", "GR")
        records = dat_records(self.dat_of(log))
        epochs = [Epoch(r) for r in records if r[3] == 27]

        # A signal without slips; the first epoch of a lock marks one of its own.
        def steady(key):
            signals = [e.find(*key) for e in epochs]
            return all(s and s[1][0][25] == signals[0][1][0][25] for s in signals) and not any(
                s[1][0][26] & 0x08 for s in signals[1:])

        key = next((b[2], b[1]) for b, s in epochs[0].satellites if b[2] == 0 and steady((b[2], b[1])))
        times = [int(e.time()) for e in epochs]
        marked = next(k for k, t in enumerate(times) if t % 30000 == 15000)
        epochs[marked].find(*key)[1][0][26] |= 0x08
        edited = iter(epochs)
        source = self.write_dat("slip.dat", [next(edited).bytes() if r[3] == 27 else r for r in records])
        self.nvb("-q", "fromdat", source, "-o", self.path("slip.nvb"))

        thinned = self.path("thin.nvb")
        self.nvb("-q", "thin", self.path("slip.nvb"), "-o", thinned, "--interval", 30)
        kept = [json.loads(line) for line in self.nvb("dump", "--json", thinned).stdout.splitlines()]
        kept_epochs = [r for r in kept if r["type"] == 27]
        expected = [t for t in times if t % 30000 == 0]
        self.assertEqual([int(e["time"]) for e in kept_epochs], expected)
        self.assertEqual([r["time"] for r in kept if r["type"] == 29], expected)
        name = ("G%02d" % key[1])
        carried = times[marked] - times[marked] % 30000 + 30000
        for epoch in kept_epochs[1:]:
            signal = next(s for s in epoch["satellites"] if s["sv"] == name)["signals"][0]
            self.assertEqual(bool(signal["measFlags1"] & 0x08), int(epoch["time"]) == carried, epoch["time"])
        self.assertEqual(self.info(thinned)["blockLevel"], 7)


def varint(value):
    out = bytearray()
    while value >= 0x80:
        out.append(value & 0x7F | 0x80)
        value >>= 7
    return bytes(out + bytes([value]))


def avro_long(value):
    return varint((value << 1) ^ (value >> 63) if value >= 0 else ((-value) << 1) - 1)


def rec35_dat(subtype, subsubtype, payload):
    length = 24 + len(payload)
    return (bytes([0x74]) + min(length, 0xFFFF).to_bytes(2, "little") + bytes([35]) +
            struct.pack("<QQI", subtype, subsubtype, len(payload)) + payload)


FFT_SCHEMA = (b'{"type": "record", "name": "rec35_sub24", "namespace": "com.halvane.nve.avro", "version": 2, '
              b'"description": "FFT Data", "fields": [{"name": "gps_msecs", "type": "long"}, '
              b'{"name": "center_freq", "type": "double"}, {"name": "bin_size", "type": "float"}, '
              b'{"name": "peak_freq", "type": "double"}, {"name": "peak_snr", "type": "float"}, '
              b'{"name": "mean_val", "type": "long"}, {"name": "FreqData", "type": {"type": "array", "items": "long"}}, '
              b'{"name": "antenna_num", "type": "long"}]}\0')


def fft_payload(msecs, bins):
    body = avro_long(msecs) + struct.pack("<dfdf", 1575.42e6, 2441.40625, 1575.43e6, 31.5) + avro_long(-60)
    if bins:
        body += avro_long(len(bins)) + b"".join(avro_long(b) for b in bins)
    return body + avro_long(0) + avro_long(1)


class Record35(Workspace):
    """A newer receiver's log: epochs and positions, and records 35 among them."""

    def setUp(self):
        super().setUp()
        plain = dat_records(self.dat_of(self.simulate("sim.nvb", "--duration", 60)))
        extra = [rec35_dat(24, 0, FFT_SCHEMA), rec35_dat(24, 1, fft_payload(345600000, [5, -7, 900]))]
        # Residuals of the linear time: the step once, then nothing while it holds.
        extra += [rec35_dat(24, 2, fft_payload(residual, [])) for residual in (1000, 0, 0, 0)]
        extra += [rec35_dat(0, 0, bytes(range(256)) * 40), rec35_dat(13, 3, b"an unknown subtype"),
                  rec35_dat(12345678, 0, bytes(200)), rec35_dat(0, 0, bytes(70000))]
        records = []
        for k, record in enumerate(plain):
            records.append(record)
            if k % 12 == 0 and extra:
                records.append(extra.pop(0))
        self.assertEqual(extra, [])
        self.log = self.path("r35.nvb")
        self.nvb("-q", "fromdat", self.write_dat("r35.dat", records), "-o", self.log, "--method", 7)
        self.expected = {"0": {"count": 2}, "12345678": {"count": 1}, "13": {"count": 1},
                         "24": {"count": 6, "delta": 4, "reference": 1, "schema": 1}}

    def record35(self, log):
        return [json.loads(line) for line in self.nvb("dump", "--json", "-t", 35, log).stdout.splitlines()]

    def test_info_counts_records_35_by_subtype_and_kind(self):
        info = self.info(self.log)
        self.assertEqual(info["record35"], self.expected)
        self.assertEqual(info["records"]["35"], 10)
        self.assertIn("subtype 24: 6 (1 schema, 1 reference, 4 delta)", self.nvb("info", self.log).stdout.decode())

    def test_dump_shows_the_schema_and_the_decoded_spectra(self):
        records = self.record35(self.log)
        self.assertEqual(len(records), 10)
        schema = next(r for r in records if r["subtype"] == 24 and r["kind"] == "schema")
        self.assertEqual(schema["schema"], {"name": "rec35_sub24", "version": 2, "description": "FFT Data"})
        spectra = [r["values"] for r in records if r["subtype"] == 24 and r["kind"] != "schema"]
        self.assertEqual(spectra[0]["FreqData"], [5, -7, 900])
        self.assertEqual([s["gps_msecs"] for s in spectra], [345600000 + 1000 * k for k in range(5)])
        self.assertEqual(next(r for r in records if r["subtype"] == 13)["hex"], b"an unknown subtype".hex())

    def test_recompress_and_thin_keep_every_record_35(self):
        reference = [r for r in dat_records(self.dat_of(self.log)) if r[3] == 35]
        for method in (3, 5, 6, 7):
            out = self.path(f"m{method}.nvb")
            self.nvb("-q", "recompress", self.log, "-o", out, "-m", method)
            self.assertEqual([r for r in dat_records(self.dat_of(out)) if r[3] == 35], reference, f"method {method}")
        thinned = self.path("thin.nvb")
        self.nvb("-q", "thin", self.log, "-o", thinned, "--interval", 10)
        self.assertEqual(self.info(thinned)["record35"], self.expected)
        self.assertEqual([r for r in dat_records(self.dat_of(thinned)) if r[3] == 35], reference)

    def test_a_method_that_cannot_carry_record_35_says_so(self):
        result = self.nvb("recompress", self.log, "-o", self.path("m0.nvb"), "-m", 0, code=1)
        self.assertIn(b"10 records of type 35 were left out", result.stderr)


class DamagedInput(Workspace):
    def blocks_of(self, data):
        """Start and end of each block behind the header block."""
        spans, position = [], 17
        while position < len(data):
            end = position + 4 + int.from_bytes(data[position + 1:position + 4], "big")
            spans.append((position, end))
            position = end
        return spans

    def test_a_log_cut_inside_a_block_reads_to_the_cut_and_names_the_byte(self):
        log = self.simulate("sim.nvb", "--duration", 240)
        data = self.read(log)
        blocks = self.blocks_of(data)
        self.assertGreater(len(blocks), 2)
        start, end = blocks[1]
        cut = self.write(self.path("cut.nvb"), data[:(start + end) // 2])
        result = self.nvb("todat", cut, "-o", self.path("cut.dat"), code=1)
        self.assertIn(f"nvb: {cut}: byte {start}: the log ends inside a block", result.stderr.decode())
        whole = dat_records(self.dat_of(log))
        read = dat_records(self.read(self.path("cut.dat")))
        self.assertGreater(len(read), 0)
        self.assertEqual(read, whole[:len(read)])
        info = self.info(cut, code=1)
        self.assertEqual(info["truncated"]["offset"], start)

    def test_a_byte_stream_cut_inside_a_record_and_a_damaged_block_give_exit_code_1(self):
        log = self.simulate("huffman.nvb", "--duration", 30, "--method", 0)
        data = self.read(log)
        cut = self.write(self.path("cut0.nvb"), data[:len(data) // 2])
        result = self.nvb("info", cut, code=1)
        self.assertIn(f"nvb: {cut}: byte {len(data) // 2}: the log ends inside a record", result.stderr.decode())

        log = self.simulate("zlib.nvb", "--duration", 240, "--method", 3)
        data = bytearray(self.read(log))
        start, end = self.blocks_of(data)[1]
        for i in range(end - 4, end):
            data[i] ^= 0xA5  # the zlib stream's checksum
        damaged = self.write(self.path("damaged.nvb"), data)
        result = self.nvb("info", "--json", damaged, code=1)
        statuses = {entry["status"] for entry in json.loads(result.stdout)["statuses"]}
        self.assertIn(10, statuses)  # zlib failed
        self.assertIn(f"nvb: {damaged}: byte {end - 1}: zlib failed", result.stderr.decode())

    def test_a_damaged_block_costs_itself_and_the_deltas_up_to_the_next_reference(self):
        # References come every 600 s of record time, so 1300 s holds three.
        whole_logs = {}
        for method, where, hit in [(7, "first", "body"), (7, "middle", "body"), (7, "middle", "length"),
                                   (7, "middle", "type"), (5, "middle", "body")]:
            with self.subTest(method=method, where=where, hit=hit):
                if method not in whole_logs:
                    log = self.simulate(f"m{method}.nvb", "--duration", 1300, "--method", method)
                    whole_logs[method] = (self.read(log), dat_records(self.dat_of(log)))
                data, whole = whole_logs[method]
                blocks = self.blocks_of(data)
                start, end = blocks[0 if where == "first" else len(blocks) // 2]
                damaged = bytearray(data)
                damaged[{"body": (start + end) // 2, "length": start + 3, "type": start}[hit]] ^= 0x84
                damaged = self.write(self.path("damaged.nvb"), damaged)
                result = self.nvb("todat", damaged, "-o", self.path("damaged.dat"), code=1)
                read = dat_records(self.read(self.path("damaged.dat")))

                before = len(dat_records(self.dat_of(self.write(self.path("before.nvb"), data[:start]))))
                up_to = len(dat_records(self.dat_of(self.write(self.path("up_to.nvb"), data[:end]))))
                first_time = Epoch(whole[0]).time()
                resumed = next(i for i in range(up_to, len(whole)) if whole[i][3] == 27
                               and (Epoch(whole[i]).time() - first_time) % 600000 == 0)
                self.assertEqual(read[:before], whole[:before])
                self.assertEqual(read[before + 1:], whole[resumed + 1:])
                # The first epoch behind the gap has no predecessor to rebuild its Doppler
                # from, as the first epoch of a log has none.
                self.assertEqual(Epoch(read[before]).time(), Epoch(whole[resumed]).time())
                left_out = resumed - up_to
                if left_out > 0:
                    self.assertIn(f"{left_out} delta records behind the damage were left out",
                                  result.stderr.decode())

    def test_what_is_no_log_at_all_is_unreadable(self):
        empty = self.write_dat("empty.nvb", [])
        self.assertIn("is empty", self.nvb("info", empty, code=2).stderr.decode())
        noise = self.write_dat("noise.nvb", [bytes((i * 37 + 11) % 251 for i in range(5000))])
        self.nvb("todat", noise, "-o", self.path("noise.dat"), code=2)
        self.assertIn("can't open", self.nvb("info", self.path("missing.nvb"), code=2).stderr.decode())

    def test_a_dat_file_cut_inside_a_record_writes_what_came_before(self):
        log = self.simulate("sim.nvb", "--duration", 10)
        dat = self.dat_of(log)
        records = dat_records(dat)
        cut = self.write_dat("cut.dat", [dat[:len(records[0]) + 100]])
        result = self.nvb("fromdat", cut, "-o", self.path("cut.nvb"), code=1)
        self.assertIn(f"nvb: {cut}: byte {len(records[0])}: the input ends inside a record of type",
                      result.stderr.decode())
        self.assertEqual(dat_records(self.dat_of(self.path("cut.nvb"))), records[:1])

# A small reader of observation files: RINEX 2 and 3 and their Compact forms, written from
# the published descriptions; values stay in integer thousandths, as the files print them.
GPS_EPOCH = datetime.datetime(1980, 1, 6)
LETTERS = {0: "G", 1: "S", 2: "R", 3: "E", 4: "J", 5: "C", 7: "C", 10: "C", 9: "I"}


def milli(value):
    """Thousandths rounded half away from zero, as the writers round."""
    return int(math.copysign(math.floor(abs(value) * 1000 + 0.5), value))


def thousandths(field):
    text = field.strip()
    if not text:
        return None
    negative = text.startswith("-")
    whole, _, fraction = text.lstrip("-").partition(".")
    value = int(whole or "0") * 1000 + int(fraction)
    return -value if negative else value


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
    year += 2000 if year < 100 else 0
    ms = round(float(fields[5]) * 1000)
    delta = datetime.datetime(year, month, day, hour, minute) - GPS_EPOCH
    total = int(delta.total_seconds()) * 1000 + ms
    return total // 604800000, total % 604800000


class ObservationFile:
    def __init__(self, text):
        lines = text.split("\n")
        assert lines[-1] == "", "the file ends in a whole line"
        self.header, self.types, self.channels = [], {}, {}
        index = 0
        while True:
            line = lines[index]
            index += 1
            self.header.append(line)
            label = line[60:].strip()
            if label == "RINEX VERSION / TYPE":
                self.version = float(line[:9])
            elif label == "# / TYPES OF OBSERV":
                self.types.setdefault("", []).extend(line[6:60].split())
            elif label == "SYS / # / OBS TYPES":
                self.types.setdefault(line[0] if line[0] != " " else self.last_system, []).extend(line[7:60].split())
                self.last_system = line[0] if line[0] != " " else self.last_system
            elif label == "GLONASS SLOT / FRQ #":
                for k in range(4, 60, 7):
                    if line[k:k + 3].strip():
                        self.channels[satellite(line[k:k + 3])] = int(line[k + 3:k + 7])
            elif label == "END OF HEADER":
                break
        self.body = lines[index:-1]
        self.epochs = {}
        reader = self.read3 if self.version >= 3 else self.read2
        reader(iter(self.body))

    def types_of(self, sat):
        return self.types.get(sat[0], []) if self.version >= 3 else self.types[""]

    def cells(self, sat, text):
        return {name: (thousandths(text[16 * k:16 * k + 14]), text[16 * k + 14:16 * k + 15].strip(),
                       text[16 * k + 15:16 * k + 16].strip())
                for k, name in enumerate(self.types_of(sat)) if text[16 * k:16 * k + 14].strip()}

    def read3(self, lines):
        for line in lines:
            assert line.startswith(">"), line
            count = int(line[32:35])
            epoch = self.epochs.setdefault(epoch_key(line[2:29].split()), {})
            for _ in range(count):
                row = next(lines)
                epoch[satellite(row[:3])] = self.cells(row[:3], row[3:].ljust(16 * len(self.types_of(row[:3]))))

    def read2(self, lines):
        per_sat = (len(self.types[""]) + 4) // 5
        for line in lines:
            count = int(line[29:32])
            sats = [line[32 + 3 * k:35 + 3 * k] for k in range(min(count, 12))]
            while len(sats) < count:
                more = next(lines)
                sats += [more[32 + 3 * k:35 + 3 * k] for k in range(min(count - len(sats), 12))]
            epoch = self.epochs.setdefault(epoch_key(line[1:26].split()), {})
            for sat in sats:
                text = "".join(next(lines).ljust(80) for _ in range(per_sat))
                epoch[satellite(sat)] = self.cells(sat, text)


def expand_compact(text):
    """Compact RINEX back to RINEX: the epoch line and flags by character, values by
    differences of the order the arc has reached."""
    lines = iter(text.split("\n")[:-1])
    assert next(lines)[60:] == "CRINEX VERS   / TYPE"
    assert next(lines)[60:] == "CRINEX PROG / DATE"
    out, header = [], []
    for line in lines:
        header.append(line)
        if line[60:].strip() == "END OF HEADER":
            break
    rinex = ObservationFile("\n".join(header) + "\n")
    rinex3 = rinex.version >= 3
    stored, clock, values, flags, previous = "", [], {}, {}, set()

    def undifference(history, field):
        if "&" in field:
            history[:] = [int(field.split("&")[1])]
        else:
            levels = [int(field)]
            for k in range(min(len(history), 3) - 1, -1, -1):
                levels.insert(0, levels[0] + history[k])
            history[:] = levels
        return history[0]

    for line in lines:
        if line[:1] in ("&", ">"):
            stored = line
        else:
            merged = list(stored.ljust(len(line)))
            for i, c in enumerate(line):
                merged[i] = merged[i] if c == " " else (" " if c == "&" else c)
            stored = "".join(merged).rstrip()
        nanoseconds = undifference(clock, next(lines)) // (1000 if rinex3 else 1)
        count = int(stored[32:35] if rinex3 else stored[29:32])
        start = 41 if rinex3 else 32
        sats = [stored[start + 3 * k:start + 3 * k + 3] for k in range(count)]
        if rinex3:
            out.append((stored[:35] + "      " + clock_text(nanoseconds) + "000").rstrip())
        else:
            head = " " + stored[1:32]
            for k in range(0, count, 12):
                chunk = "".join(sats[k:k + 12])
                out.append(((head if k == 0 else " " * 32) + chunk).ljust(68 if k == 0 else 0) +
                           (clock_text(nanoseconds) if k == 0 else "").rstrip() if k else
                           (head + chunk).ljust(68) + clock_text(nanoseconds))
                out[-1] = out[-1].rstrip()
        for sat in sats:
            key = satellite(sat)
            names = rinex.types_of(sat)
            row, position = next(lines), 0
            if key not in previous:
                flags[key] = [" "] * (2 * len(names))
            cells = []
            for name in names:
                end = row.find(" ", position)
                field = row[position:] if end < 0 else row[position:end]
                position = len(row) if end < 0 else end + 1
                history = values.setdefault((key, name), [])
                if field == "":
                    history.clear()
                    cells.append(None)
                else:
                    cells.append(undifference(history, field))
            for i, c in enumerate(row[position:]):
                flags[key][i] = flags[key][i] if c == " " else (" " if c == "&" else c)
            texts = [" " * 16 if v is None else value_text(v) + flags[key][2 * k] + flags[key][2 * k + 1]
                     for k, v in enumerate(cells)]
            if rinex3:
                out.append((sat + "".join(texts)).rstrip())
            else:
                for k in range(0, len(texts), 5):
                    out.append("".join(texts[k:k + 5]).rstrip())
        previous = {satellite(s) for s in sats}
    return "\n".join(header + out) + "\n"


class RinexOutput(Workspace):
    """nvb rinex and nvb binex on the simulated hour."""

    # Observation types of the simulator's signals, by system letter and (band, track).
    TYPES3 = {"G": {(0, 0): "1C", (1, 5): "2X", (2, 7): "5Q"}, "R": {(0, 0): "1C", (1, 0): "2C"},
              "E": {(0, 20): "1X", (2, 8): "5X", (3, 11): "7X"}, "C": {(6, 26): "2I", (7, 29): "6I"}}
    TYPES2 = {"G": {(0, 0): "A", (1, 5): "C", (2, 7): "5"}, "R": {(0, 0): "A", (1, 0): "D"},
              "E": {(0, 20): "B", (2, 8): "5"}, "C": {(6, 26): "2", (7, 29): "6"}}

    @classmethod
    def setUpClass(cls):
        cls._shared = tempfile.TemporaryDirectory(prefix="nvb-rinex-")
        cls.log = os.path.join(cls._shared.name, "hour.nvb")
        # A whole hour takes a while under the sanitizers, on a loaded machine.
        assert run("-q", "simulate", "-o", cls.log, timeout=900).returncode == 0
        dump = run("dump", "--json", "--type", "27", cls.log, timeout=900).stdout.decode().splitlines()
        cls.records = [json.loads(line) for line in dump]

    @classmethod
    def tearDownClass(cls):
        cls._shared.cleanup()

    def convert(self, name, *options, code=0, log=None):
        self.nvb("-q", "rinex", log or self.log, "-o", self.path(name), *options, code=code, timeout=900)
        return self.read(self.path(name)).decode()

    def expected_type(self, version, letter, signal):
        if version < 3:
            suffix = self.TYPES2[letter].get((signal["band"], signal["track"]))
            return suffix and (version > 2.11 or letter != "C") and suffix
        suffix = self.TYPES3[letter][(signal["band"], signal["track"])]
        return "1I" if version == 3.02 and suffix == "2I" else suffix

    def test_the_simulated_hour_reads_back_in_every_version(self):
        for version in ("2.11", "2.12", "3.02", "3.03"):
            with self.subTest(version=version):
                rinex = ObservationFile(self.convert(f"hour{version}.rnx", "--version", version))
                self.assertEqual(len(rinex.epochs), len(self.records))
                checked, slips, last_counts = 0, 0, {}
                for record in self.records:
                    epoch = rinex.epochs[(record["week"], round(record["time"]))]
                    counts = {}
                    for sat in record["satellites"]:
                        letter = sat["sv"][0]
                        if letter == "C" and float(version) < 2.12:
                            self.assertNotIn(sat["sv"], epoch)
                            continue
                        for signal in sat["signals"]:
                            suffix = self.expected_type(float(version), letter, signal)
                            if not suffix:
                                continue
                            key = (sat["sv"], suffix)
                            counts[key] = signal["slipCount"]
                            cells = epoch[sat["sv"]]
                            code, phase, strength = (cells["C" + suffix], cells["L" + suffix], cells["S" + suffix])
                            self.assertEqual(code[0], milli(signal["range"]))
                            self.assertEqual(phase[0], milli(-signal["phase"]))
                            self.assertEqual(strength[0], milli(signal["snr"]))
                            self.assertIn(code[2], "123456789")
                            slipped = signal["measFlags1"] & 8 or last_counts.get(key, signal["slipCount"]) != signal["slipCount"]
                            self.assertEqual(phase[1] in ("1", "3", "5", "7"), bool(slipped), (record["time"], key))
                            slips += bool(slipped)
                            checked += 1
                    last_counts = counts
                self.assertGreater(checked, 150000)
                self.assertGreater(slips, 100)
                if float(version) >= 3.02:
                    glonass = {s["sv"]: s["channel"] - 256 * (s["channel"] > 127)
                               for r in self.records for s in r["satellites"] if s["sv"][0] == "R"}
                    self.assertEqual(rinex.channels, glonass)

    def test_compact_rinex_expands_to_the_rinex_text(self):
        def without_program_line(text):
            return "".join(line for line in text.splitlines(True) if "PGM / RUN BY / DATE" not in line)

        for version in ("2.11", "3.03"):
            with self.subTest(version=version):
                plain = self.convert(f"c{version}.rnx", "--version", version, "--interval", 5)
                compact = self.convert(f"c{version}.crx", "--version", version, "--interval", 5, "--crx")
                self.assertLess(len(compact), len(plain) / 2)
                self.assertEqual(without_program_line(expand_compact(compact)), without_program_line(plain))

    def test_decimation_keeps_whole_intervals_and_marks_the_slips_it_drops(self):
        rinex = ObservationFile(self.convert("thin.rnx", "--interval", 30))
        self.assertEqual(len(rinex.epochs), len(self.records) // 30)
        self.assertTrue(all(tow % 30000 == 0 for _, tow in rinex.epochs))
        self.assertIn("    30.000", "".join(rinex.header))
        slipped_since = set()
        for record in self.records:
            for sat in record["satellites"]:
                for signal in sat["signals"]:
                    if signal["measFlags1"] & 8:
                        slipped_since.add((sat["sv"], signal["band"], signal["track"]))
            if round(record["time"]) % 30000:
                continue
            epoch = rinex.epochs[(record["week"], round(record["time"]))]
            for sat in record["satellites"]:
                for signal in sat["signals"]:
                    cell = epoch[sat["sv"]]["L" + self.expected_type(3.03, sat["sv"][0], signal)]
                    key = (sat["sv"], signal["band"], signal["track"])
                    if key in slipped_since:
                        self.assertEqual(cell[1], "1", (record["time"], key))
            slipped_since.clear()

    def test_a_cut_log_gives_the_epochs_before_the_cut_and_exit_code_1(self):
        whole = self.convert("whole.rnx")
        data = self.read(self.log)
        cut = self.write(self.path("cut.nvb"), data[:len(data) // 3])
        result = self.nvb("rinex", cut, "-o", self.path("cut.rnx"), code=1, timeout=900)
        self.assertIn("the log ends inside a block", result.stderr.decode())
        text = self.read(self.path("cut.rnx")).decode()
        body = text[text.index("END OF HEADER"):]
        self.assertTrue(whole[whole.index("END OF HEADER"):].startswith(body))
        epochs = ObservationFile(text).epochs
        self.assertGreater(len(epochs), 100)
        self.assertLess(len(epochs), len(self.records))

    def test_binex_records_are_framed_and_checked(self):
        self.nvb("-q", "binex", self.log, "-o", self.path("hour.bnx"), timeout=900)
        data, position, records = self.read(self.path("hour.bnx")), 0, 0
        while position < len(data):
            self.assertEqual(data[position:position + 2], b"\xe2\x7f")
            length, size = data[position + 2], 1
            if length & 0x80:
                length, size = (length & 0x7F) << 7 | data[position + 3], 2
            body_end = position + 2 + size + length
            checked = data[position + 1:body_end]
            self.assertEqual(data[position + 2 + size], 0x05)
            if length < 126:
                xor = 0
                for byte in checked:
                    xor ^= byte
                self.assertEqual(data[body_end], xor)
                position = body_end + 1
            else:
                crc = 0
                for byte in checked:
                    crc ^= byte << 8
                    for _ in range(8):
                        crc = ((crc << 1) ^ 0x1021 if crc & 0x8000 else crc << 1) & 0xFFFF
                self.assertEqual(int.from_bytes(data[body_end:body_end + 2], "big"), crc)
                position = body_end + 2
            records += 1
        self.assertEqual(records, len(self.records))


class AuxiliaryRecords(Workspace):
    def log_with_every_type(self):
        """A simulated log with every auxiliary record in the middle, and the same without
        the records no log gives back."""
        simulated = dat_records(self.dat_of(self.simulate("sim.nvb", "--duration", 6)))
        aux = auxiliary_records()
        source = self.write_dat("every.dat", simulated[:4] + aux + WRITE_ONLY + simulated[4:])
        return source, simulated[:4] + aux + simulated[4:]

    def test_every_type_goes_through_every_method_and_comes_back_as_it_went(self):
        source, expected = self.log_with_every_type()
        for method in range(8):
            log = self.path(f"every{method}.nvb")
            stderr = self.nvb("fromdat", source, "-o", log, "--method", method, code=1).stderr.decode()
            self.assertIn("1 records of type 101 were left out", stderr)
            self.assertIn("1 records of type 102 were left out", stderr)
            self.assertIn("1 records of type 20 are in the log, but no reader gives them back", stderr)
            self.assertEqual(dat_records(self.dat_of(log)), expected, f"method {method}")

    def test_a_system_list_starts_the_epochs_and_positions_over_with_references(self):
        source, _ = self.log_with_every_type()
        log = self.path("every.nvb")
        self.nvb("-q", "fromdat", source, "-o", log, code=1)
        carriers = self.info(log)["carriedAs"]
        self.assertEqual(carriers["38"], 2)  # the first epoch, and the first behind record 33 subtype 3
        self.assertEqual(carriers["57"], 2)

    def test_dump_names_the_fields_of_every_type(self):
        source, _ = self.log_with_every_type()
        log = self.path("every.nvb")
        self.nvb("-q", "fromdat", source, "-o", log, code=1)
        records = [json.loads(line) for line in self.nvb("dump", "--json", log).stdout.splitlines()]
        subtypes = {r["subtype"]: r for r in records if r["type"] == 33}
        self.assertEqual(sorted(subtypes), [s for s in range(1, 31) if s != 24])
        self.assertEqual(subtypes[14]["latitude"], 0.8268)
        self.assertEqual([t["system"] for t in subtypes[3]["triples"]], [0, 2, 3, 10])
        self.assertEqual(len(subtypes[13]["entries"]), 2)
        self.assertEqual(subtypes[13]["entries"][1]["dword1"], 12)
        self.assertEqual(len(subtypes[22]["matrix"]), 6)  # the upper triangle the wire carries
        self.assertEqual(subtypes[21]["groupC"]["singles5"], [18.0, 19.0, 20.0, 21.0, 22.0])
        self.assertEqual(set(subtypes[21]["groupB"]), {"bytes", "lead"})  # kind 2: the leading singles only
        values = {r["type"]: r for r in records if r["type"] in (31, 32, 40, 99)}
        self.assertEqual([(e["id"], e["value"]) for e in values[40]["entries"]], [(1, 23.45), (6, -3), (7, 65000)])
        self.assertEqual(values[40]["subtype"], 2)
        self.assertEqual(bytes.fromhex(values[99]["payload"]), TEXT[:50])
        self.assertEqual(bytes.fromhex(values[31]["data"]), TEXT[:12])
        self.assertEqual(values[32]["subtype"], 5)
        timed = [r for r in records if r["type"] == 34]
        self.assertEqual([r["kind"] for r in timed], [1, 2, 7])
        self.assertEqual(len(timed[0]["entries"]), 30)
        text = self.nvb("dump", log, "--type", 40).stdout.decode()
        self.assertIn("entries=[{id=1 value=23.45} {id=6 value=-3} {id=7 value=65000}]", text)


class SafeOutput(Workspace):
    def assert_alone(self, *names):
        """Nothing half written stands beside the named files."""
        self.assertEqual(sorted(os.listdir(self.directory)), sorted(names))

    def test_a_command_that_fails_leaves_the_target_as_it_was(self):
        log = self.simulate("sim.nvb", "--duration", 20)
        kept = self.read(log)
        noise = self.write(self.path("noise.bin"), bytes((i * 37 + 11) % 251 for i in range(20000)))
        empty = self.write(self.path("empty.nvb"), b"")
        keep = self.write(self.path("keep.dat"), b"keep")
        for args in (["recompress", noise, "-o", log, "--method", 5], ["thin", noise, "-o", log, "--interval", 5],
                     ["fromdat", noise, "-o", log], ["todat", empty, "-o", keep]):
            with self.subTest(args=args[0]):
                result = self.nvb(*args, code=2)
                self.assertIn("not written; a file there is left as it was", result.stderr.decode())
                self.assertEqual(self.read(log), kept)
                self.assertEqual(self.read(keep), b"keep")
                self.assert_alone("sim.nvb", "noise.bin", "empty.nvb", "keep.dat")

    def test_a_write_that_fails_halfway_leaves_no_partial_file(self):
        import resource
        import signal

        def small_files():
            # A file size limit fails writes as a full disk does.
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (50000, 50000))

        log = self.simulate("sim.nvb", "--duration", 300)
        kept = self.read(log)
        target = self.write(self.path("target.nvb"), b"old")
        for args in (["recompress", log, "-o", target, "--method", 1], ["todat", log, "-o", target],
                     ["simulate", "-o", target, "--duration", 300]):
            with self.subTest(args=args[0]):
                result = subprocess.run([NVB, *map(str, args)], capture_output=True, timeout=120,
                                        preexec_fn=small_files)
                self.assertEqual(result.returncode, 2, result.stderr.decode())
                self.assertIn("write error", result.stderr.decode())
                self.assertEqual(self.read(target), b"old")
                self.assertEqual(self.read(log), kept)
                self.assert_alone("sim.nvb", "target.nvb")

    def test_a_link_stays_a_link_and_a_device_is_written_in_place(self):
        log = self.simulate("sim.nvb", "--duration", 5)
        os.symlink("real.dat", self.path("link.dat"))
        self.write(self.path("real.dat"), b"old")
        os.chmod(self.path("real.dat"), 0o640)
        self.nvb("-q", "todat", log, "-o", self.path("link.dat"))
        self.assertTrue(os.path.islink(self.path("link.dat")))
        self.assertEqual(self.read(self.path("real.dat")), self.dat_of(log))
        self.assertEqual(os.stat(self.path("real.dat")).st_mode & 0o777, 0o640)
        self.nvb("-q", "todat", log, "-o", os.devnull)
        self.assertTrue(os.path.exists(os.devnull) and not os.path.isfile(os.devnull))

    def test_info_and_dump_tell_of_a_full_standard_output(self):
        if not os.path.exists("/dev/full"):
            self.skipTest("no /dev/full")
        log = self.simulate("sim.nvb", "--duration", 5)
        for command in ("info", "dump"):
            with open("/dev/full", "wb") as full:
                result = subprocess.run([NVB, command, log], stdout=full, stderr=subprocess.PIPE, timeout=120)
            self.assertEqual(result.returncode, 2, command)
            self.assertIn("nvb: standard output: write error", result.stderr.decode())
ORBIT = (5153.6372, 0.01234, 0.9634, -2.0941, 0.6712, 1.2034, 4.61e-9, -8.21e-9, 1.12e-10, 2.31e-6,
         -1.41e-6, 254.3125, 180.1875, 3.21e-8, -1.13e-8, 1.207e-4, -3.41e-12, 0.0, 302400.0)
SBAS = bytes.fromhex("246c03d21b008f113ae007559 02c41fe0019b3660d7218c4005e2a80".replace(" ", ""))


def navigation_and_receiver_dats():
    """One or more real-looking DAT records of each navigation and receiver type."""
    ephemeris = struct.pack("<BB2H2B3I19dI9sB", 12, 0, 2345, 61, 1, 0, 345600, 345600, 64, *ORBIT, 7,
                            bytes(9), 0)
    common = struct.pack("<BB2H2B3I19dI", 3, 0, 2345, 61, 1, 0, 345600, 345600, 64, *ORBIT, 7)
    galileo = struct.pack("<BHIHI15dBHBHI4dHI4d", 11, 2345, 345600, 81, 345600, *ORBIT[:15], 1, 517, 0,
                          0xFFFF, 345600, *ORBIT[15:19], 0xFFFF, 345600, *ORBIT[:4])
    beidou = struct.pack("<B4sH11d", 23, bytes([1, 0, 3, 0]), 745, *ORBIT[3:14])
    sbas_eph = struct.pack("<BHI2s11d", 131, 2345, 345600, bytes([2, 0]), *ORBIT[:11])
    page = struct.pack("<IHBBBBBBB31s", 345618, 2345, 11, 4, 0x05, 0, 5, 0, 31, bytes(range(31)))
    description = bytes([9, 6]) + struct.pack("<IH", 0xA1B2C3, 0x0545) + bytes([12]) + b"TR-9 GNSS RX" + \
        bytes([9]) + b"5.45.0017" + bytes([6]) + struct.pack("<3H", 1, 16, 0x0203) + bytes([1, 7, 6]) + \
        struct.pack("<I", 0x12345678) + bytes([0x9A, 0xBC, 4, 1, 2, 3, 4, 2, 5, 6, 1, 8])
    pairs = struct.pack("<dd", 1.5, -0.0078125) + struct.pack("<dd", -2.0, 0.001953125)
    table12 = struct.pack("<BBHHBBH4sHd8sIIH14sd", 3, 1, 2, 3, 4, 5, 6, bytes(4), 7, 86400.0, bytes(8), 8, 9,
                          10, bytes(14), 0.25) + pairs
    wire22 = struct.pack(">B4d8s3s6s3s4H", 2, *ORBIT[:4], bytes(8), b"abc", bytes(6), b"def", 1, 2, 3, 4) + \
        struct.pack(">12I", *range(100, 112)) + struct.pack(">HIIHH", 5, 6, 7, 8, 9)
    return [
        dat(21, ephemeris),
        dat(28, bytes([5]) + common),
        dat(28, bytes([3]) + galileo),
        dat(28, bytes([10]) + beidou),
        dat(28, bytes([1]) + sbas_eph),
        dat(25, struct.pack("<IHB", 345600, 2345, 131) + SBAS),
        dat(25, struct.pack("<IHBB", 345601, 2345, 131, 0x00) + SBAS, byte2=2),
        dat(25, struct.pack("<IHBB", 345602, 2345, 131, 0x40) + SBAS + bytes([0xC6, 0x3F, 0xB1, 0x0A]), byte2=2),
        dat(26, struct.pack("<IHBBIB", 345618, 2345, 12, 1, 0x8B, 38) + bytes(range(38)), byte2=6),
        dat(26, page, byte2=2),
        dat(26, struct.pack("<IHBBIBB", 345618, 2345, 4, 6, 2, 9, 11) + bytes(range(11)), byte2=7),
        dat(26, struct.pack("<IHBBIBB", 345618, 2345, 195, 1, 2, 3, 125) + bytes(range(125)), byte2=12),
        dat(5, struct.pack("<H5sB4d2sB", 1, b"ANT-3", 2, 0.0512, 0.0, 0.0, 0.1, bytes(2), 16) +
            b"ANT-3 CHOKE RING"),
        dat(5, struct.pack("<H12d2I", 3, *ORBIT[:12], 4, 5), byte2=3),
        bytes([0x74, 100, 0, 12]) + table12,
        dat(15, struct.pack("<11dddd7sB", *ORBIT[:11], -2.0, 300.0, 4000000000.0, b"setting", 9)),
        dat(19, struct.pack("<Hd", 77, 654321.0), byte2=5),
        dat(19, struct.pack("<Hd", 78, -3.25e-7), byte2=6),
        dat(19, struct.pack("<BHd", 1, 79, 42.125), byte2=7),
        dat(22, wire22),
        dat(24, struct.pack(">12d2I", *ORBIT[:12], 302400, 302407)),
        dat(30, struct.pack("<IHH", 12345, 2, 1)),
        dat(30, description, byte2=1),
        dat(30, bytes([3, 8]) + struct.pack("<II", 1, 2) + bytes([3, 7, 8, 9, 4]) + struct.pack("<I", 4), byte2=3),
    ]


def repeating_subframes(seconds):
    """Navigation data blocks of three satellites, a block each a second, cycling through
    eight messages of which two change every two minutes; the last one's blocks are 32 bytes
    long with preamble and check. Crosses a week change."""
    sats = ((120, 3, 0), (124, 17, 0), (126, 40, 0x40))
    records, time, week = [], 604800 - seconds // 2, 2345
    for second in range(seconds):
        for tag, slot, flag in sats:
            index = (second + tag) % 8
            issue = second // 120 if index < 2 else 0
            data = bytearray((tag * 7 + index * 31 + issue * 13 + i * 5) & 0xFF for i in range(28))
            data[0] = slot << 2 | index & 3
            data[27] &= 0xC0  # the writer sends the top two bits of the last byte alone
            if flag:
                body = struct.pack("<IHBB", time, week, tag, flag) + bytes(data) + bytes([0x53, index, issue, 9])
                records.append(dat(25, body, byte2=2))
            else:
                records.append(dat(25, struct.pack("<IHB", time, week, tag) + bytes(data)))
        time += 1
        if time == 604800:
            time, week = 0, week + 1
    return records


def drifting_lists(count):
    """Sensor lists a second apart whose values drift; an identifier comes in the middle of
    the list, one goes for a while and comes back, and some lists have another subtype."""
    raw = {1: 2345, 2: 1800, 3: 100, 6: 0xFFF0, 7: 65000, 9: 250}
    records = []
    for i in range(count):
        for ident in raw:
            if (i * ident) % 7 < 3:
                raw[ident] = (raw[ident] + (i * 13 + ident) % 9 - 4) & 0xFFFF
        if i == count // 4:
            raw[4] = 512
        idents = [k for k in sorted(raw) if not (count // 2 <= i < count // 2 + 30 and k == 3)]
        entries = b""
        for ident in idents:
            value = raw[ident]
            if ident == 6:
                value = value - 0x10000 if value >= 0x8000 else value
            elif ident not in (7, 8):
                value = (value - 0x10000 if value >= 0x8000 else value) / 100
            entries += pack("Bd", ident, value)
        body = pack("HIB", 2345, 345600000 + 1000 * i, len(idents)) + entries
        records.append(dat(40, body, byte2=2 if i % 100 == 99 else 1))
    return records


class NavigationAndReceiverRecords(Workspace):
    def test_a_log_with_every_type_reads_back_to_the_same_dat_records_in_every_method(self):
        log = self.simulate("sim.nvb", "--duration", 30)
        epochs = dat_records(self.dat_of(log))
        extra = navigation_and_receiver_dats()
        # A record 19 of subtype 1 goes out as its subtype byte alone and reads back as
        # whatever stands behind it.
        tagged = dat(19, struct.pack("<dH", 3000000000.0, 77), byte2=1)
        mixed = epochs[:10] + extra + epochs[10:] + [tagged]
        source = self.write_dat("mixed.dat", mixed)
        for method in range(8):
            written = self.path(f"m{method}.nvb")
            self.nvb("-q", "fromdat", source, "-o", written, "--method", method)
            back = dat_records(self.dat_of(written))
            self.assertEqual(back[:-1], mixed[:-1], f"method {method}")
            self.assertEqual(back[-1][:4], tagged[:4])
            self.assertNotEqual(back[-1], tagged)

        info = self.info(self.path("m7.nvb"))
        counts = {}
        for record in mixed:
            counts[str(record[3])] = counts.get(str(record[3]), 0) + 1
        self.assertEqual(info["records"], counts)
        self.assertEqual(info["statuses"], [])

        lines = self.nvb("dump", "--json", self.path("m3.nvb"), "--type", "21,25,26,28,5,12,15,19,22,24,30")
        records = [json.loads(line) for line in lines.stdout.splitlines()]
        self.assertEqual(len(records), len(extra) + 1)
        by_type = {}
        for record in records:
            by_type.setdefault(record["type"], []).append(record)
        self.assertEqual(by_type[21][0]["sv"], "G12")
        self.assertEqual(by_type[21][0]["doubles"], list(ORBIT))
        self.assertEqual([r["subtype"] for r in by_type[28]], [5, 3, 10, 1])
        self.assertEqual(by_type[28][1]["system"], "Galileo")
        self.assertEqual(by_type[28][2]["doubles"], list(ORBIT[3:14]))
        self.assertEqual([r["preamble"] for r in by_type[25][1:]], [0x9A, 0xC6])
        self.assertEqual(by_type[26][1]["payloadIndex"], 0)
        self.assertEqual(bytes.fromhex(by_type[5][0]["text"]), b"ANT-3 CHOKE RING")
        self.assertEqual([(p["first"], p["second"]) for p in by_type[12][0]["pairs"]], [(1.5, -0.0078125), (-2.0, 0.001953125)])
        self.assertEqual(by_type[15][0]["signedValue1"], -2.0)
        self.assertEqual([r["subtype"] for r in by_type[19]], [5, 6, 7, 1])
        self.assertEqual(by_type[22][0]["dwordTables"], list(range(100, 112)))  # four tables of three
        self.assertEqual(by_type[24][0]["counters"], [302400, 302407])
        self.assertEqual(bytes.fromhex(by_type[30][1]["b"]["text"]), b"TR-9 GNSS RX")
        self.assertEqual(by_type[30][1]["d"]["words"], [1, 16, 0x0203])

    def test_repeating_navigation_blocks_and_lists_read_back_the_same_in_every_method(self):
        log = self.simulate("sim.nvb", "--duration", 20)
        epochs = dat_records(self.dat_of(log))
        subframes, lists = repeating_subframes(700), drifting_lists(700)
        carried = [record for pair in zip(subframes[::3], subframes[1::3], subframes[2::3], lists) for record in pair]
        mixed = epochs[:10] + navigation_and_receiver_dats()[:5] + carried + epochs[10:]
        source = self.write_dat("repeating.dat", mixed)
        for method in range(8):
            written = self.path(f"r{method}.nvb")
            self.nvb("-q", "fromdat", source, "-o", written, "--method", method)
            self.assertEqual(dat_records(self.dat_of(written)), mixed, f"method {method}")
        carriers = self.info(self.path("r0.nvb"))["carriedAs"]
        # One restart at the start and one at the week change; most blocks are references.
        self.assertEqual(carriers["85"], 2)
        self.assertGreater(carriers["84"], 1000)
        self.assertGreater(carriers["86"], 500)
        self.assertGreater(carriers["41"], 600)
        self.assertEqual(carriers["41"] + carriers.get("40", 0), 700)

    def test_records_the_writer_cannot_take_are_named_and_the_rest_is_written(self):
        refused = [dat(26, struct.pack("<IHBB", 345618, 2345, 11, 4) + bytes(70), byte2=14),
                   dat(25, bytes(40), byte2=1), dat(28, bytes([12]) + bytes(60))]
        kept = navigation_and_receiver_dats()[:3]
        source = self.write_dat("refused.dat", kept + refused)
        result = self.nvb("fromdat", source, "-o", self.path("refused.nvb"), code=1)
        for record_type in (25, 26, 28):
            self.assertIn(f"1 records of type {record_type} were left out", result.stderr.decode())
        self.assertEqual(dat_records(self.dat_of(self.path("refused.nvb"))), kept)


class UsageErrors(Workspace):
    def test_wrong_usage_gives_exit_code_2_and_help_gives_0(self):
        log = self.simulate("sim.nvb", "--duration", 5)
        wrong = [
            [],
            ["frobnicate"],
            ["info"],
            ["info", log, "--no-such-option"],
            ["simulate"],
            ["simulate", "-o", self.path("x.nvb"), "--interval", 0.01],
            ["simulate", "-o", self.path("x.nvb"), "--systems", "GX"],
            ["recompress", log, "-o", self.path("x.nvb")],
            ["recompress", log, "-o", self.path("x.nvb"), "--method", 8],
            ["fromdat", log, "-o", self.path("x.nvb"), "--level", 3],
            ["thin", log, "-o", self.path("x.nvb")],
            ["dump", log, "--type", "x"],
            ["todat", log, "-o", os.path.join(self.directory, "no", "such", "dir.dat")],
            ["recompress", log, "-o", log, "--method", 3],
            ["recompress", log, "-o", self.path("x.nvb"), "--best", "--method", 5],
            ["fromdat", log, "-o", self.path("x.nvb"), "--best", "--level", 2],
            ["fromdat", log, "-o", self.path("x.nvb"), "--explicit-level", 5, "--level", 1],
            ["fromdat", log, "-o", self.path("x.nvb"), "--explicit-level", 5, "--method", 4],
            ["simulate", "-o", self.path("x.nvb"), "--explicit-level", 23],
            ["thin", log, "-o", self.path("x.nvb"), "--interval", 5, "--explicit-level", 3],
        ]
        for args in wrong:
            result = run(*args)
            self.assertEqual(result.returncode, 2, f"nvb {args}: {result.stderr.decode()}")
            self.assertNotEqual(result.stderr, b"", args)
        for command in ("simulate", "info", "dump", "todat", "fromdat", "recompress", "thin"):
            result = self.nvb(command, "--help")
            self.assertIn(b"Usage", result.stdout)
        self.nvb("--help")
        self.assertEqual(self.info(log)["epochs"]["count"], 5)  # not written over

    def test_quiet_leaves_standard_error_empty_on_success(self):
        log = self.path("quiet.nvb")
        result = self.nvb("--quiet", "simulate", "-o", log, "--duration", 5)
        self.assertEqual(result.stderr, b"")
        self.assertNotEqual(self.nvb("simulate", "-o", log, "--duration", 5).stderr, b"")
        self.assertEqual(self.nvb("todat", log, "-o", self.path("q.dat"), "-q").stderr, b"")


class SeveralInputs(Workspace):
    def test_jobs_write_what_one_file_at_a_time_does_and_exit_with_the_worst_code(self):
        logs = [self.simulate(f"site{seed}.nvb", "--duration", 20, "--seed", seed) for seed in (1, 2, 3)]
        broken = self.write(self.path("broken.nvb"), b"\x02\x00")
        for jobs in (1, 3):
            result = self.nvb("--jobs", jobs, "todat", *logs, broken, "-o", self.path(f"out{jobs}"), code=2)
            self.assertIn(f"{broken}: is too short", result.stderr.decode())
            for log in logs:
                name = os.path.basename(log)[:-4] + ".dat"
                self.assertEqual(self.read(self.path(f"out{jobs}/{name}")), self.dat_of(log))
        self.nvb("rinex", logs[0], self.path("site1.rnx"), "-o", self.path("out1"), code=2)  # two site1.rnx
        self.nvb("todat", *logs, "-o", logs[0], code=2)


if __name__ == "__main__":
    NVB = os.path.abspath(sys.argv[1])
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]], verbosity=2)
