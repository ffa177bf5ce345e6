"""Read and write receiver logs from Python.

Logs are read by the library itself: records come as light objects, measurement epochs
and positions as xarray Datasets indexed by GPS time. Damage in a log is reported as a
:class:`DamageWarning` carrying the byte offset; a log that can't be read at all raises
:class:`UnreadableLogError`.
"""
from __future__ import annotations

import json
import os
import warnings
from typing import Iterable, Iterator, Optional, Sequence

import numpy as np

from . import _nvbdll

__all__ = [
    "DamageWarning", "UnreadableLogError", "WriteWarning", "Record", "Log", "open",
    "read_observations", "read_positions", "write", "recompress", "thin", "to_rinex",
    "GPS_EPOCH", "gps_time", "signal_name",
]

#: The start of GPS time; times are GPS time, without leap seconds.
GPS_EPOCH = np.datetime64("1980-01-06T00:00:00", "ns")
_NS_PER_MS = 1_000_000
_NS_PER_WEEK = 604_800_000 * _NS_PER_MS


class UnreadableLogError(OSError):
    """The log could not be read at all (empty, too short, of a newer format, or no
    record could be taken from it)."""


class DamageWarning(UserWarning):
    """Damage met while reading; the records around it were still delivered."""

    def __init__(self, path: str, offset: int, status: int, record_type: Optional[int], text: str):
        super().__init__(f"{path}: byte {offset}: {text}")
        self.path = path
        self.offset = offset
        self.status = status
        self.record_type = record_type
        self.text = text


class WriteWarning(UserWarning):
    """Something the writer left out or failed on."""


def _source_path(source) -> tuple[str, Optional[int]]:
    """A path the library can open: the path itself, or for a file object an anonymous
    in-memory file holding its bytes (the descriptor is the caller's to close)."""
    if isinstance(source, (str, os.PathLike)):
        path = os.fspath(source)
        if not os.path.exists(path):
            raise FileNotFoundError(path)
        return path, None
    data = source.read()
    descriptor = os.memfd_create("nvbdll-log")
    os.write(descriptor, data)
    return f"/proc/self/fd/{descriptor}", descriptor


def _report(path: str, outcome, stacklevel: int) -> None:
    problems, unreadable = outcome
    if unreadable:
        detail = f" ({problems[0][3]} at byte {problems[0][0]})" if problems else ""
        raise UnreadableLogError(f"{path}: {unreadable}{detail}")
    for offset, status, record_type, text in problems:
        warnings.warn(DamageWarning(path, offset, status, None if record_type < 0 else record_type, text),
                      stacklevel=stacklevel + 1)


def _call(source, reader, *args):
    path, descriptor = _source_path(source)
    try:
        return reader(path, *args), (os.fspath(source) if descriptor is None else repr(source))
    finally:
        if descriptor is not None:
            os.close(descriptor)


def gps_time(week, ms_of_week) -> np.datetime64:
    """A GPS week and milliseconds of the week as datetime64[ns]."""
    return GPS_EPOCH + np.timedelta64(int(week) * _NS_PER_WEEK + round(float(ms_of_week) * _NS_PER_MS), "ns")


def signal_name(band: int, track: int) -> str:
    """The name of the signal of a record's band and tracking code, as the Dataset's
    variables carry it ("1C" in "C1C")."""
    return _nvbdll.signal_name(band, track)


class Record:
    """One record of a log: its type, where it came out, its decoded fields as attributes
    (``rec.week``, ``rec.satellites``) and its DAT form in :attr:`dat`."""

    __slots__ = ("type", "offset", "unpacked_offset", "dat", "_text", "_fields")

    def __init__(self, type_: int, offset: int, unpacked_offset: Optional[int], dat: bytes, text: Optional[str]):
        self.type = type_
        self.offset = offset
        self.unpacked_offset = unpacked_offset
        self.dat = dat
        self._text = text
        self._fields = None

    @property
    def fields(self) -> dict:
        """The decoded fields, as ``nvb dump --json`` gives them."""
        if self._fields is None:
            self._fields = json.loads(self._text) if self._text else {}
        return self._fields

    @property
    def time(self) -> Optional[np.datetime64]:
        """GPS time of a record that carries a week and a time of week, else None."""
        fields = self.fields
        if "week" in fields and "time" in fields:
            return gps_time(fields["week"], fields["time"])
        return None

    def __getattr__(self, name: str):
        if name.startswith("_"):
            # a slot not yet set (a copy being made): no field has such a name
            raise AttributeError(name)
        fields = object.__getattribute__(self, "fields")
        if name in fields:
            return fields[name]
        raise AttributeError(f"record {self.type} has no field {name!r}")

    def __repr__(self) -> str:
        return f"<Record {self.type} at byte {self.offset}, {len(self.dat)} DAT bytes>"


class Log:
    """The records of a log, read as they are iterated; damage is reported when the
    iteration reaches the end."""

    def __init__(self, source, fields: bool = True):
        self._source = source
        self._fields = fields

    def __iter__(self) -> Iterator[Record]:
        path, descriptor = _source_path(self._source)
        name = os.fspath(self._source) if descriptor is None else repr(self._source)
        stream = _nvbdll.RecordStream(path, self._fields)
        try:
            while rows := stream.next():
                for row in rows:
                    yield Record(*row)
            _report(name, stream.outcome(), stacklevel=3)
        finally:
            stream.close()
            if descriptor is not None:
                os.close(descriptor)

    def __len__(self) -> int:
        return sum(1 for _ in Log(self._source, fields=False))


def open(source, *, fields: bool = True) -> Log:  # noqa: A001 - the package's reading verb
    """The records of a log (a path or a binary file object). With ``fields=False`` only
    type, offset and DAT bytes are kept, which is quicker."""
    return Log(source, fields)


def _wanted(values: np.ndarray, allowed: Optional[Iterable[str]]) -> np.ndarray:
    if allowed is None:
        return np.ones(len(values), dtype=bool)
    return np.isin(values, list(allowed))


def read_observations(source, systems: Optional[Sequence[str]] = None, signals: Optional[Sequence[str]] = None):
    """The measurement epochs of a log as an xarray Dataset over time x satellite.

    Variables per signal as RINEX names them: ``C1C`` range (m), ``L1C`` phase (cycles),
    ``D1C`` Doppler (Hz, NaN where the receiver gave none), ``S1C`` SNR (dB-Hz) and
    ``slip1C`` the receiver's slip counter (-1 where the signal is absent). ``systems``
    keeps satellites by letter ("G", "R", "E", "C", ...), ``signals`` by name ("1C").
    """
    import xarray as xr

    (columns, outcome), name = _call(source, _nvbdll.read_observations)
    _report(name, outcome, stacklevel=2)
    times = GPS_EPOCH + columns["epoch_time"].astype("timedelta64[ns]")
    names = np.array(columns["satellite_names"], dtype=object)
    letters = np.array([sat[:1] for sat in names], dtype=object)
    sat_kept = _wanted(letters, systems)
    codes = np.array(columns["signal_names"], dtype=object)
    keep = sat_kept[columns["satellite"]] & _wanted(codes, signals)[columns["signal"]]
    sv_keep = sat_kept[columns["sv_index"]]

    # satellites in name order; -1 for those left out
    order = sorted(np.flatnonzero(sat_kept), key=lambda index: names[index])
    column_of = np.full(len(names), -1, dtype=np.int64)
    column_of[order] = np.arange(len(order))
    shape = (len(times), len(order))
    epoch = columns["epoch"][keep]
    column = column_of[columns["satellite"][keep]]
    signal = columns["signal"][keep]

    data_vars = {}
    for code_index in sorted(set(signal.tolist()), key=lambda index: codes[index]):
        rows = signal == code_index
        where = (epoch[rows], column[rows])
        for key in ("C", "L", "D", "S"):
            grid = np.full(shape, np.nan)
            grid[where] = columns[key][keep][rows]
            data_vars[f"{key}{codes[code_index]}"] = (("time", "sv"), grid)
        slips = np.full(shape, -1, dtype=np.int16)
        slips[where] = columns["slip"][keep][rows]
        data_vars[f"slip{codes[code_index]}"] = (("time", "sv"), slips)

    sv_where = (columns["sv_epoch"][sv_keep], column_of[columns["sv_index"][sv_keep]])
    for key in ("elevation", "azimuth"):
        grid = np.full(shape, np.nan)
        grid[sv_where] = columns[key][sv_keep]
        data_vars[key] = (("time", "sv"), grid)
    data_vars["clock_offset"] = (("time",), columns["epoch_clock"])

    sats = [str(name) for name in names[order]]
    coords = {
        "time": times,
        "sv": np.array(sats, dtype=object),
        "system": ("sv", np.array([sat[:1] for sat in sats], dtype=object)),
        "prn": ("sv", np.array([int(sat[1:]) if sat[1:].isdigit() else -1 for sat in sats], dtype=np.int16)),
    }
    return xr.Dataset(data_vars, coords=coords, attrs={"source": name, "time_scale": "GPS"})


def read_positions(source):
    """The position records of a log as an xarray Dataset over GPS time."""
    import xarray as xr

    (columns, outcome), name = _call(source, _nvbdll.read_positions)
    _report(name, outcome, stacklevel=2)
    times = GPS_EPOCH + columns.pop("time").astype("timedelta64[ns]")
    return xr.Dataset({key: (("time",), values) for key, values in columns.items()}, coords={"time": times},
                      attrs={"source": name, "time_scale": "GPS"})


def _warn_writes(path: str, problems: list, stacklevel: int) -> None:
    for text in problems:
        warnings.warn(WriteWarning(f"{path}: {text}"), stacklevel=stacklevel + 1)


def write(path, records: Iterable, method: int = 7, level: int = 0) -> int:
    """Writes records (:class:`Record` objects or DAT bytes) as a log in a compression
    method (0 to 7) and level (0 to 2), as ``nvb fromdat`` does; returns the count written."""
    if not 0 <= method <= 7 or not 0 <= level <= 2:
        raise ValueError("method is 0 to 7, level 0 to 2")
    dats = [bytes(record.dat if isinstance(record, Record) else record) for record in records]
    written, problems = _nvbdll.write_records(os.fspath(path), dats, method, level)
    _warn_writes(os.fspath(path), problems, stacklevel=2)
    return written


def _rewrite(source, target, method, level, interval, position_interval, stacklevel=3) -> int:
    if method is not None and not 0 <= method <= 7 or not 0 <= level <= 2:
        raise ValueError("method is 0 to 7, level 0 to 2")
    path = os.fspath(source)
    if not os.path.exists(path):
        raise FileNotFoundError(path)
    _, written, problems, outcome = _nvbdll.rewrite(path, os.fspath(target), method, level, interval,
                                                    position_interval)
    _report(path, outcome, stacklevel)
    _warn_writes(os.fspath(target), problems, stacklevel)
    return written


def recompress(source, target, method: int, level: int = 0) -> int:
    """Writes a log again in another compression method, as ``nvb recompress``."""
    return _rewrite(source, target, method, level, 0.0, 0.0)


def thin(source, target, interval: float, position_interval: Optional[float] = None,
         method: Optional[int] = None, level: int = 0) -> int:
    """Keeps the epochs and positions at a longer interval (seconds), as ``nvb thin``; the
    input's method unless another is given."""
    if interval <= 0 or (position_interval is not None and position_interval <= 0):
        raise ValueError("intervals are above 0 s")
    return _rewrite(source, target, method, level, interval,
                    interval if position_interval is None else position_interval)


def to_rinex(source, target, version: str = "3.03", compact: bool = False, interval: Optional[float] = None,
             marker: Optional[str] = None) -> None:
    """Writes the measurement epochs as a RINEX observation file, as ``nvb rinex``; its
    messages go to standard error."""
    path = os.fspath(source)
    if not os.path.exists(path):
        raise FileNotFoundError(path)
    if os.path.isdir(target):
        # the tool would write into the folder from a process of its own
        raise IsADirectoryError(os.fspath(target))
    args = ["rinex", path, "-o", os.fspath(target), "--version", version]
    if compact:
        args.append("--crx")
    if interval is not None:
        args += ["--interval", repr(float(interval))]
    if marker is not None:
        args += ["--marker", marker]
    code = _nvbdll.run_tool(args)
    if code == 2:
        raise UnreadableLogError(f"{path}: could not be converted (see the messages above)")
    if code == 1:
        # the tool tells the damage on standard error; a script gets it as warnings too
        _report(path, _nvbdll.survey(path), stacklevel=2)
