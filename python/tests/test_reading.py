import copy
import io
import math
import warnings

import numpy as np
import pytest

import nvbdll
from conftest import dump_json, nvb


@pytest.mark.parametrize("method", [0, 1, 7])
def test_records_carry_the_dat_forms_that_todat_writes(simulated, tmp_path, method):
    log = simulated(method=method, duration=120)
    nvb("todat", log, "-o", tmp_path / "log.dat")
    records = list(nvbdll.open(log, fields=False))
    assert b"".join(record.dat for record in records) == (tmp_path / "log.dat").read_bytes()
    assert {record.type for record in records} == {27, 29}


def test_record_fields_are_those_of_the_tool_with_gps_time(simulated):
    log = simulated(duration=30)
    records = list(nvbdll.open(log))
    assert [record.fields for record in records] == dump_json(log)
    epoch = next(record for record in records if record.type == 27)
    assert epoch.week == epoch.fields["week"] and epoch.satellites
    assert epoch.time == nvbdll.GPS_EPOCH + np.timedelta64(round((epoch.week * 604800e3 + epoch.fields["time"]) * 1e6),
                                                           "ns")
    with pytest.raises(AttributeError):
        epoch.no_such_field
    assert copy.copy(epoch).fields == epoch.fields


def test_dataset_equals_the_tool_value_for_value(simulated):
    log = simulated(duration=3600)
    ds = nvbdll.read_observations(log)
    epochs = [record for record in dump_json(log) if record["type"] == 27]
    assert ds.sizes["time"] == len(epochs) == 3600
    assert ds.time.dtype == np.dtype("datetime64[ns]")
    column = {sv: index for index, sv in enumerate(ds.sv.values)}
    grids = {name: ds[name].values for name in ds.data_vars}
    filled = 0
    for row, epoch in enumerate(epochs):
        assert ds.time.values[row] == nvbdll.gps_time(epoch["week"], epoch["time"])
        # the tool writes a single with the digits that tell it apart: compared as singles
        assert np.float32(grids["clock_offset"][row]) == np.float32(epoch["clkOffset"])
        for sat in epoch["satellites"]:
            cell = (row, column[sat["sv"]])
            assert (grids["elevation"][cell], grids["azimuth"][cell]) == (sat["elevation"], sat["azimuth"])
            for signal in sat["signals"]:
                code = nvbdll.signal_name(signal["band"], signal["track"])
                assert grids[f"C{code}"][cell] == signal["range"]
                assert grids[f"L{code}"][cell] == signal["phase"]
                assert grids[f"S{code}"][cell] == signal["snr"]
                assert grids[f"slip{code}"][cell] == signal["slipCount"]
                if "doppler" in signal:
                    assert np.float32(grids[f"D{code}"][cell]) == np.float32(signal["doppler"])
                else:
                    assert math.isnan(grids[f"D{code}"][cell])
                filled += 1
    # no two signals of a satellite share a cell, and nothing else fills one
    assert filled == sum(int((grid >= 0).sum()) for name, grid in grids.items() if name.startswith("slip"))


def test_dataset_keeps_only_the_systems_and_signals_asked_for(simulated):
    log = simulated(duration=60)
    full = nvbdll.read_observations(log)
    ds = nvbdll.read_observations(log, systems=["G", "E"], signals=["1C"])
    assert set(ds.system.values) == {"G", "E"}
    assert [name for name in ds.data_vars if name.startswith("C1") or name.startswith("C2")] == ["C1C"]
    assert set(ds.prn.values) <= set(full.prn.values)
    np.testing.assert_array_equal(ds.C1C.values, full.C1C.sel(sv=ds.sv).values)


def test_positions_equal_the_tool(simulated):
    log = simulated(duration=60)
    ds = nvbdll.read_positions(log)
    positions = [record for record in dump_json(log) if record["type"] == 29]
    assert ds.sizes["time"] == len(positions)
    np.testing.assert_array_equal(ds.latitude.values, [p["latitude"] for p in positions])
    np.testing.assert_array_equal(ds.height.values, [p["height"] for p in positions])
    np.testing.assert_array_equal(ds.satellites_used.values, [p["numSVsUsed"] for p in positions])
    assert ds.time.values[0] == nvbdll.gps_time(positions[0]["week"], positions[0]["time"])


def test_a_newer_receivers_epochs_and_positions_read_as_the_plain_ones(simulated):
    plain, newer = (simulated(duration=120, receiver=receiver) for receiver in ("plain", "new"))
    ds, converted = nvbdll.read_observations(plain), nvbdll.read_observations(newer)
    assert list(converted.data_vars) == list(ds.data_vars)
    for name in ds.data_vars:
        # range folded with the carrier phase onto a 2^-7 grid; quarter degrees rounded to whole ones
        tolerance = 2 ** -8 + 1e-7 if name.startswith("C") else 1 if name in ("azimuth", "elevation") else 0
        np.testing.assert_allclose(converted[name], ds[name], rtol=0, atol=tolerance, err_msg=name)
    assert nvbdll.read_positions(newer).equals(nvbdll.read_positions(plain))


def test_a_file_object_reads_as_its_path(simulated):
    log = simulated(duration=30)
    with open(log, "rb") as file:
        from_file = [record.dat for record in nvbdll.open(file, fields=False)]
    assert from_file == [record.dat for record in nvbdll.open(log, fields=False)]
    ds = nvbdll.read_observations(io.BytesIO(log.read_bytes()))
    assert ds.equals(nvbdll.read_observations(log))


def test_a_reading_left_early_stops_its_reader_and_the_next_starts_afresh(simulated):
    log = simulated()
    records = nvbdll.open(log, fields=False)
    for count, record in enumerate(records):
        if count == 300:
            break
    partial = iter(records)
    first = next(partial)
    del partial
    assert first.dat == next(iter(records)).dat
    assert len(records) == 1200


def test_logs_read_on_threads_as_one_after_another(simulated):
    from concurrent.futures import ThreadPoolExecutor

    logs = [simulated(method=method, duration=120) for method in (0, 3, 7)] * 2
    alone = [nvbdll.read_observations(log) for log in logs]
    with ThreadPoolExecutor(len(logs)) as pool:
        together = list(pool.map(nvbdll.read_observations, logs))
    assert all(a.equals(b) for a, b in zip(alone, together))


def damaged_copy(log, target, start, count=40):
    data = bytearray(log.read_bytes())
    for index in range(start, start + count):
        data[index] ^= 0x5A
    target.write_bytes(bytes(data))
    return target


@pytest.mark.parametrize("method,start", [(0, 5000), (7, 100000)])
def test_damage_is_a_warning_at_its_byte_and_reading_goes_on(simulated, tmp_path, method, start):
    log = damaged_copy(simulated(method=method), tmp_path / "damaged.nvb", start)
    with pytest.warns(nvbdll.DamageWarning) as caught:
        records = list(nvbdll.open(log, fields=False))
    offsets = [warning.message.offset for warning in caught if warning.category is nvbdll.DamageWarning]
    assert offsets and min(offsets) >= start
    assert f"byte {offsets[0]}" in str(caught[0].message)
    assert 0 < len(records) < 1200
    # a user who wants damage to stop the script makes the warning an error
    with warnings.catch_warnings():
        warnings.simplefilter("error", nvbdll.DamageWarning)
        with pytest.raises(nvbdll.DamageWarning):
            nvbdll.read_observations(log)


@pytest.mark.parametrize(
    "content,reason",
    [(b"", "is empty"), (b"\x02\x00", "too short"), (bytes(range(256)) * 20, "no record could be read")],
    ids=["empty", "two bytes", "noise"],
)
def test_an_unreadable_log_raises(tmp_path, content, reason):
    path = tmp_path / "unreadable.nvb"
    path.write_bytes(content)
    for read in (lambda: list(nvbdll.open(path)), lambda: nvbdll.read_observations(path),
                 lambda: nvbdll.read_positions(path)):
        with warnings.catch_warnings():
            warnings.simplefilter("ignore", nvbdll.DamageWarning)
            with pytest.raises(nvbdll.UnreadableLogError, match=reason):
                read()


def test_a_missing_log_is_not_found(tmp_path):
    with pytest.raises(FileNotFoundError):
        nvbdll.read_observations(tmp_path / "absent.nvb")
