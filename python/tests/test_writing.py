import warnings

import pytest

import nvbdll
from conftest import nvb


@pytest.mark.parametrize("method", range(8))
def test_a_log_written_from_python_is_the_tools_and_reads_back(simulated, tmp_path, method):
    source = simulated(duration=60)
    records = list(nvbdll.open(source, fields=False))
    target = tmp_path / "written.nvb"
    assert nvbdll.write(target, records, method=method, level=method % 3) == len(records)
    nvb("todat", source, "-o", tmp_path / "source.dat")
    nvb("fromdat", tmp_path / "source.dat", "-o", tmp_path / "tool.nvb", "-m", method, "-l", method % 3)
    assert target.read_bytes() == (tmp_path / "tool.nvb").read_bytes()
    nvb("todat", target, "-o", tmp_path / "target.dat")
    assert b"".join(record.dat for record in nvbdll.open(target, fields=False)) == (tmp_path / "target.dat").read_bytes()
    assert nvbdll.read_observations(target).equals(nvbdll.read_observations(source))
    assert nvbdll.read_positions(target).equals(nvbdll.read_positions(source))
    # bytes do as well as records
    again = tmp_path / "again.nvb"
    nvbdll.write(again, [record.dat for record in records], method=method, level=method % 3)
    assert again.read_bytes() == target.read_bytes()


@pytest.mark.parametrize(
    "call,command",
    [
        (lambda s, t: nvbdll.recompress(s, t, method=3, level=1), ["recompress", "-m", "3", "-l", "1"]),
        (lambda s, t: nvbdll.recompress(s, t, method=0), ["recompress", "-m", "0"]),
        (lambda s, t: nvbdll.thin(s, t, interval=5), ["thin", "-i", "5"]),
        (lambda s, t: nvbdll.thin(s, t, 10, position_interval=30, method=6), ["thin", "-i", "10", "--position-interval",
                                                                             "30", "-m", "6"]),
        (lambda s, t: nvbdll.to_rinex(s, t, version="2.11", marker="SITE"), ["rinex", "--version", "2.11", "--marker",
                                                                             "SITE"]),
        (lambda s, t: nvbdll.to_rinex(s, t, compact=True, interval=2, marker="SITE"), ["rinex", "--crx", "--interval",
                                                                                      "2", "--marker", "SITE"]),
    ],
    ids=["recompress", "recompress to plain bytes", "thin", "thin positions apart", "rinex 2", "compact rinex"],
)
def test_conversions_write_what_the_tool_writes(simulated, tmp_path, call, command):
    source = simulated(duration=60)
    call(source, tmp_path / "python.out")
    nvb(command[0], source, "-o", tmp_path / "tool.out", *command[1:])
    # the creation time in a RINEX header is the only thing allowed to differ
    def lines(path):
        return [line for line in path.read_bytes().splitlines() if b"PROG / DATE" not in line
                and b"PGM / RUN BY / DATE" not in line]
    assert lines(tmp_path / "python.out") == lines(tmp_path / "tool.out")


def test_bad_arguments_are_refused_before_anything_is_written(simulated, tmp_path):
    source = simulated(duration=30)
    for call in (lambda: nvbdll.write(tmp_path / "x.nvb", [], method=8),
                 lambda: nvbdll.recompress(source, tmp_path / "x.nvb", method=0, level=3),
                 lambda: nvbdll.thin(source, tmp_path / "x.nvb", interval=0)):
        with pytest.raises(ValueError):
            call()
    with pytest.raises(ValueError):
        nvbdll.to_rinex(source, tmp_path / "x.rnx", version="4.00")
    with pytest.raises(IsADirectoryError):
        nvbdll.to_rinex(source, tmp_path)
    assert not (tmp_path / "x.nvb").exists()


@pytest.mark.parametrize("convert", [lambda s, t: nvbdll.recompress(s, t, method=7), nvbdll.to_rinex],
                         ids=["recompress", "rinex"])
def test_converting_a_damaged_log_warns_at_the_damage_and_keeps_what_was_read(simulated, tmp_path, convert):
    data = bytearray(simulated(method=0, duration=60).read_bytes())
    for index in range(3000, 3040):
        data[index] ^= 0x5A
    (tmp_path / "damaged.nvb").write_bytes(bytes(data))
    with pytest.warns(nvbdll.DamageWarning) as caught:
        convert(tmp_path / "damaged.nvb", tmp_path / "kept")
    assert min(warning.message.offset for warning in caught) >= 3000
    if convert is nvbdll.to_rinex:
        return
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", nvbdll.DamageWarning)
        assert len(nvbdll.open(tmp_path / "damaged.nvb")) == len(nvbdll.open(tmp_path / "kept"))


def test_an_unreadable_log_leaves_the_target_as_it_was(tmp_path):
    (tmp_path / "short.nvb").write_bytes(b"\x02\x00\x00")
    for call in (lambda: nvbdll.recompress(tmp_path / "short.nvb", tmp_path / "out", method=7),
                 lambda: nvbdll.thin(tmp_path / "short.nvb", tmp_path / "out", interval=5),
                 lambda: nvbdll.to_rinex(tmp_path / "short.nvb", tmp_path / "out")):
        with pytest.raises(nvbdll.UnreadableLogError, match="short"):
            call()
        assert not (tmp_path / "out").exists()
        (tmp_path / "out").write_bytes(b"earlier")
        with pytest.raises(nvbdll.UnreadableLogError):
            call()
        assert (tmp_path / "out").read_bytes() == b"earlier"
        (tmp_path / "out").unlink()
