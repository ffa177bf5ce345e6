// The Python module: logs are read and written by the tool's reader and writer, so a
// script sees exactly what nvb sees. Every call that walks a log lets go of the GIL.
#include "nvb/command_support.h"
#include "nvb/commands.h"
#include "nvb/gnss_names.h"
#include "nvb/log_io.h"
#include "nvb/record_json.h"
#include "nvb/status_report.h"

#include "output/observation_tables.h"

#include <nvbdll/nvbdll.h>

#include <fmt/format.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cmath>
#include <condition_variable>
#include <deque>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace py = pybind11;

namespace nvbtool::python {

namespace {

constexpr double kMsPerWeek = 604800000.0;

// A damage report placed in the input: byte offset, library status (0 for a log cut
// short), the record type when the decoding step reported it, and a sentence.
using Problem = std::tuple<std::uint64_t, int, int, std::string>;

struct ReadOutcome {
    std::vector<Problem> problems;
    std::string unreadable;  // why nothing could be read; empty for a readable log
};

ReadOutcome outcomeOf(const ReadSummary& summary) {
    ReadOutcome outcome;
    for (const StatusEvent& event : summary.events) {
        if (event.status == NVB_STATUS_READER_TOO_OLD) continue;
        std::string text = statusText(event.status);
        if (event.recordType >= 0) text += fmt::format(" (record type {})", event.recordType);
        if (event.unpackedOffset) text += fmt::format(" (record at unpacked byte {})", *event.unpackedOffset);
        outcome.problems.emplace_back(event.offset, event.status, event.recordType, text);
    }
    if (summary.truncatedAt) {
        const std::string text =
            summary.lostFooting ? fmt::format("no block could be read after the damage: {} bytes were lost",
                                              summary.truncatedBytes)
                                : fmt::format("the log ends inside a block or record: {} bytes were not read",
                                              summary.truncatedBytes);
        outcome.problems.emplace_back(*summary.truncatedAt, 0, -1, text);
    }
    if (summary.recordsUnverified > 0 && !summary.events.empty()) {
        outcome.problems.emplace_back(
            summary.events.front().offset, 0, -1,
            fmt::format("{} delta records behind the damage were left out: they lean on records that were lost",
                        summary.recordsUnverified));
    }
    if (summary.shape == StreamShape::Empty) {
        outcome.unreadable = "is empty";
    } else if (summary.shape == StreamShape::TooShort) {
        outcome.unreadable = fmt::format("is too short to be a log ({} bytes)", summary.bytesRead);
    } else if (summary.refused) {
        outcome.unreadable = statusText(NVB_STATUS_READER_TOO_OLD);
    } else if (summary.readError) {
        outcome.unreadable = "could not be read to its end";
    } else if (summary.unreadable()) {
        outcome.unreadable = "no record could be read";
    }
    return outcome;
}

std::unique_ptr<Input> openInput(const std::string& path) {
    auto input = Input::open(path);
    if (!input) throw std::runtime_error(path + ": can't be opened");
    return input;
}

// Reads a whole log without the GIL; `onRecord` must not touch Python.
ReadOutcome readLog(const std::string& path, const LogReader::RecordHandler& onRecord) {
    py::gil_scoped_release released;
    const auto input = openInput(path);
    LogReader reader(*input, ReadOptions{});
    return outcomeOf(reader.run(onRecord));
}

py::tuple outcomeTuple(const ReadOutcome& outcome) {
    return py::make_tuple(outcome.problems, outcome.unreadable);
}

struct DeliveredCopy {
    int type;
    std::uint64_t offset;
    std::optional<std::uint32_t> unpacked;
    std::string dat;
    std::string fields;
};

DeliveredCopy copyOf(DeliveredRecord& record, bool withFields) {
    DeliveredCopy copy{record.type, record.offset, record.unpackedOffset, {}, {}};
    // The fields are taken from the structure before retrieval packs the DAT form.
    if (withFields) copy.fields = recordJson(record).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    const auto dat = record.dat();
    copy.dat.assign(reinterpret_cast<const char*>(dat.data()), dat.size());
    return copy;
}

// The records of a log as they come: a thread of its own reads ahead by at most
// kAhead records and hands them over kBatch at a time, so a long log never stands in
// memory whole.
class RecordStream {
public:
    RecordStream(std::string path, bool withFields) : withFields_(withFields) {
        worker_ = std::thread([this, path = std::move(path)] { run(path); });
    }
    ~RecordStream() { close(); }
    RecordStream(const RecordStream&) = delete;
    RecordStream& operator=(const RecordStream&) = delete;

    // The records read ahead, at least one; empty at the end (when outcome() tells what
    // was met). Taking them together spares a wait and a GIL hand-over per record.
    py::list next() {
        std::deque<DeliveredCopy> taken;
        {
            py::gil_scoped_release released;
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [&] { return queue_.size() >= kBatch || finished_; });
            taken.swap(queue_);
            changed_.notify_all();
        }
        if (taken.empty() && error_) std::rethrow_exception(error_);
        py::list rows;
        for (const DeliveredCopy& copy : taken) {
            rows.append(py::make_tuple(copy.type, copy.offset, copy.unpacked, py::bytes(copy.dat),
                                       withFields_ ? py::object(py::str(copy.fields)) : py::object(py::none())));
        }
        return rows;
    }

    py::tuple outcome() const { return outcomeTuple(outcome_); }

    void close() {
        {
            std::lock_guard lock(mutex_);
            cancelled_ = true;
        }
        changed_.notify_all();
        if (worker_.joinable()) {
            py::gil_scoped_release released;
            worker_.join();
        }
    }

private:
    static constexpr std::size_t kBatch = 64;
    static constexpr std::size_t kAhead = 4 * kBatch;
    struct Cancelled {};

    void run(const std::string& path) {
        try {
            const auto input = openInput(path);
            LogReader reader(*input, ReadOptions{});
            outcome_ = outcomeOf(reader.run([&](DeliveredRecord& record) {
                DeliveredCopy copy = copyOf(record, withFields_);
                std::unique_lock lock(mutex_);
                changed_.wait(lock, [&] { return queue_.size() < kAhead || cancelled_; });
                if (cancelled_) throw Cancelled{};
                queue_.push_back(std::move(copy));
                if (queue_.size() == kBatch) changed_.notify_all();
            }));
        } catch (const Cancelled&) {
        } catch (...) {
            error_ = std::current_exception();
        }
        std::lock_guard lock(mutex_);
        finished_ = true;
        changed_.notify_all();
    }

    bool withFields_;
    std::thread worker_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<DeliveredCopy> queue_;
    bool finished_ = false;
    bool cancelled_ = false;
    ReadOutcome outcome_;
    std::exception_ptr error_;
};

// What reading a log meets, nothing kept.
py::tuple surveyLog(const std::string& path) {
    return outcomeTuple(readLog(path, [](DeliveredRecord&) {}));
}

std::int64_t gpsNanoseconds(double week, double msOfWeek) {
    return std::llround((week * kMsPerWeek + msOfWeek) * 1e6);
}

// The signal name that RINEX 3 gives a band and tracking code ("1C"), or one made of the
// numbers where the tables have none.
std::string signalName(std::uint8_t band, std::uint8_t track) {
    for (const nvb::ObservationEntry& entry : nvb::observationEntries(303)) {
        if (entry.band != band || entry.code != track || entry.kind != nvb::kKindRange) continue;
        const std::string_view name = nvb::observationName(303, entry.row);
        if (name.size() == 3) return std::string(name.substr(1));
    }
    return fmt::format("b{}t{}", band, track);
}

template <class T>
py::array_t<T> arrayOf(const std::vector<T>& values) {
    return py::array_t<T>(static_cast<py::ssize_t>(values.size()), values.data());
}

// Names met in order of first appearance, each with its index.
struct NameIndex {
    std::vector<std::string> names;
    std::map<std::string, std::int32_t> index;

    std::int32_t of(const std::string& name) {
        const auto [found, added] = index.try_emplace(name, static_cast<std::int32_t>(names.size()));
        if (added) names.push_back(name);
        return found->second;
    }
};

// Measurement epochs as long columns, one row per satellite and signal; the Python side
// lays them out on the time x satellite grid.
struct ObservationColumns {
    std::vector<std::int64_t> epochTime;
    std::vector<double> epochClock;
    std::vector<std::int32_t> epoch, satellite, signal;
    std::vector<double> range, phase, doppler, snr;
    std::vector<std::int16_t> slip;
    std::vector<std::int32_t> svEpoch, svIndex;
    std::vector<double> elevation, azimuth;
    NameIndex satellites;
    NameIndex signals;
    std::map<std::pair<int, int>, std::int32_t> signalOfCode;

    void add(const Rec27& rec) {
        const auto index = static_cast<std::int32_t>(epochTime.size());
        epochTime.push_back(gpsNanoseconds(fieldValue(rec.weekNum), fieldValue(rec.receiveTime)));
        epochClock.push_back(fieldValue(rec.clkOffset));
        for (std::size_t s = 0; s < std::min<std::size_t>(fieldValue(rec.nSv), NVB_MAX_SV); ++s) {
            const Rec27Sv& sv = rec.sv[s];
            // Other antennas stay out, as they do in observation output.
            if (fieldValue(sv.antennaNumber) != 0) continue;
            const std::int32_t sat = satellites.of(satelliteName(fieldValue(sv.rt_sattype), fieldValue(sv.svId)));
            svEpoch.push_back(index);
            svIndex.push_back(sat);
            elevation.push_back(fieldValue(sv.elevation));
            azimuth.push_back(fieldValue(sv.azimuth));
            for (std::size_t m = 0; m < std::min<std::size_t>(fieldValue(sv.nMeas), NVB_MAX_MEAS); ++m) {
                const Rec27Meas& meas = sv.meas[m];
                const std::pair<int, int> key{fieldValue(meas.blockType), fieldValue(meas.trackType)};
                auto found = signalOfCode.find(key);
                if (found == signalOfCode.end()) {
                    found = signalOfCode.emplace(key, signals.of(signalName(key.first, key.second))).first;
                }
                epoch.push_back(index);
                satellite.push_back(sat);
                signal.push_back(found->second);
                range.push_back(fieldValue(meas.range));
                phase.push_back(fieldValue(meas.phase));
                doppler.push_back((fieldValue(meas.measFlags1) & 0x04) != 0 ? fieldValue(meas.doppler)
                                                                           : std::numeric_limits<double>::quiet_NaN());
                snr.push_back(fieldValue(meas.snr) / 10.0);
                slip.push_back(fieldValue(meas.slipCount));
            }
        }
    }
};

py::tuple readObservations(const std::string& path) {
    ObservationColumns columns;
    const ReadOutcome outcome = readLog(path, [&](DeliveredRecord& record) {
        if (record.type == 27) columns.add(*record.state->records.rec27);
    });
    py::dict out;
    out["epoch_time"] = arrayOf(columns.epochTime);
    out["epoch_clock"] = arrayOf(columns.epochClock);
    out["epoch"] = arrayOf(columns.epoch);
    out["satellite"] = arrayOf(columns.satellite);
    out["satellite_names"] = columns.satellites.names;
    out["signal"] = arrayOf(columns.signal);
    out["signal_names"] = columns.signals.names;
    out["C"] = arrayOf(columns.range);
    out["L"] = arrayOf(columns.phase);
    out["D"] = arrayOf(columns.doppler);
    out["S"] = arrayOf(columns.snr);
    out["slip"] = arrayOf(columns.slip);
    out["sv_epoch"] = arrayOf(columns.svEpoch);
    out["sv_index"] = arrayOf(columns.svIndex);
    out["elevation"] = arrayOf(columns.elevation);
    out["azimuth"] = arrayOf(columns.azimuth);
    return py::make_tuple(out, outcomeTuple(outcome));
}

struct PositionColumns {
    std::vector<std::int64_t> time;
    std::vector<double> latitude, longitude, height, velocityNorth, velocityEast, velocityUp;
    std::vector<double> clockOffset, clockDrift, pdop, hdop, vdop, tdop, rms;
    std::vector<std::int16_t> valid, satellites, used, fixType;

    void add(const Rec29& rec) {
        time.push_back(gpsNanoseconds(fieldValue(rec.week), fieldValue(rec.time)));
        latitude.push_back(fieldValue(rec.latPos));
        longitude.push_back(fieldValue(rec.lonPos));
        height.push_back(fieldValue(rec.hgtPos));
        velocityNorth.push_back(fieldValue(rec.latVel));
        velocityEast.push_back(fieldValue(rec.lonVel));
        velocityUp.push_back(fieldValue(rec.hgtVel));
        clockOffset.push_back(fieldValue(rec.clkOffset));
        clockDrift.push_back(fieldValue(rec.clkDrift));
        pdop.push_back(fieldValue(rec.pdop));
        hdop.push_back(fieldValue(rec.hdop));
        vdop.push_back(fieldValue(rec.vdop));
        tdop.push_back(fieldValue(rec.tdop));
        rms.push_back(fieldValue(rec.rms));
        valid.push_back(fieldValue(rec.positionValid));
        satellites.push_back(fieldValue(rec.numSVs));
        used.push_back(fieldValue(rec.numSVsUsed));
        fixType.push_back(fieldValue(rec.fixType));
    }
};

py::tuple readPositions(const std::string& path) {
    PositionColumns columns;
    const ReadOutcome outcome = readLog(path, [&](DeliveredRecord& record) {
        if (record.type == 29) columns.add(*record.state->records.rec29);
    });
    py::dict out;
    out["time"] = arrayOf(columns.time);
    const std::pair<const char*, const std::vector<double>*> reals[] = {
        {"latitude", &columns.latitude},  {"longitude", &columns.longitude},
        {"height", &columns.height},      {"velocity_north", &columns.velocityNorth},
        {"velocity_east", &columns.velocityEast}, {"velocity_up", &columns.velocityUp},
        {"clock_offset", &columns.clockOffset},   {"clock_drift", &columns.clockDrift},
        {"pdop", &columns.pdop},          {"hdop", &columns.hdop},
        {"vdop", &columns.vdop},          {"tdop", &columns.tdop},
        {"rms", &columns.rms}};
    for (const auto& [name, values] : reals) out[name] = arrayOf(*values);
    out["position_valid"] = arrayOf(columns.valid);
    out["satellites"] = arrayOf(columns.satellites);
    out["satellites_used"] = arrayOf(columns.used);
    out["fix_type"] = arrayOf(columns.fixType);
    return py::make_tuple(out, outcomeTuple(outcome));
}

// What a writer left out or failed on, as sentences.
std::vector<std::string> writeProblemsOf(const WriteSummary& summary) {
    std::vector<std::string> problems;
    for (const auto& [type, count] : summary.refusedByType) {
        problems.push_back(fmt::format("{} records of type {} could not be written", count, type));
    }
    for (const std::uint8_t status : summary.failures) {
        problems.push_back(fmt::format("the encoder failed: {}", statusText(status)));
    }
    return problems;
}

std::unique_ptr<Output> openOutput(const std::string& path, const std::string& inputPath = "") {
    auto output = Output::open(path, inputPath);
    if (!output) throw std::runtime_error(path + ": can't be written");
    return output;
}

py::tuple writeRecords(const std::string& path, const std::vector<std::string>& records, int method, int level) {
    std::vector<std::uint8_t> dat;
    WriteSummary summary;
    {
        py::gil_scoped_release released;
        const auto output = openOutput(path);
        WriteOptions options;
        options.method = method;
        options.level = level;
        LogWriter writer(*output, options);
        for (const std::string& record : records) {
            dat.assign(record.begin(), record.end());
            writer.put(dat);
        }
        writer.finish();
        summary = writer.summary();
        if (!output->commit()) throw std::runtime_error(path + ": could not be written whole");
    }
    return py::make_tuple(summary.recordsWritten, writeProblemsOf(summary));
}

// recompress and thin: each record's DAT form written again, in the input's method unless
// another is asked for.
py::tuple rewriteLog(const std::string& source, const std::string& target, std::optional<int> method, int level,
                     float interval, float positionInterval) {
    ReadOutcome outcome;
    WriteSummary written;
    {
        py::gil_scoped_release released;
        const auto input = openInput(source);
        const auto output = openOutput(target, source);
        // Records 35 are written again as they came.
        ReadOptions read;
        read.nativeRec35 = true;
        LogReader reader(*input, read);
        WriteOptions options;
        options.method = method.value_or(0);
        options.level = level;
        options.measurementInterval = interval;
        options.positionInterval = positionInterval;
        const Rewritten rewritten = rewriteRecords(reader, *output, options, !method.has_value());
        outcome = outcomeOf(rewritten.read);
        written = rewritten.written;
        // Nothing read, nothing written: a file at the target stays as it was.
        if (!outcome.unreadable.empty()) {
            output->discard();
        } else if (!output->commit()) {
            throw std::runtime_error(target + ": could not be written whole");
        }
    }
    return py::make_tuple(written.recordsIn, written.recordsWritten, writeProblemsOf(written), outcomeTuple(outcome));
}

// A conversion command of the tool run in this process, as `nvb --quiet <args>` would;
// its messages go to standard error and its exit code comes back.
int runTool(const std::vector<std::string>& args) {
    py::gil_scoped_release released;
    CLI::App app{"nvb", "nvb"};
    app.require_subcommand(1);
    CommonOptions common{true};
    using Registration = CommandAction (*)(CLI::App&, const CommonOptions&);
    const Registration registrations[] = {addRinexCommand, addBinexCommand};
    std::vector<std::pair<CLI::App*, CommandAction>> commands;
    for (const Registration registration : registrations) {
        const std::size_t before = app.get_subcommands({}).size();
        CommandAction action = registration(app, common);
        commands.emplace_back(app.get_subcommands({})[before], std::move(action));
    }
    std::vector<std::string> reversed(args.rbegin(), args.rend());
    try {
        app.parse(reversed);
    } catch (const CLI::ParseError& error) {
        throw std::invalid_argument(error.what());
    }
    int code = kExitUsage;
    for (auto& [command, action] : commands) {
        if (command->parsed()) code = action();
    }
    return code;
}

}  // namespace

}  // namespace nvbtool::python

PYBIND11_MODULE(_nvbdll, module) {
    using namespace nvbtool::python;
    module.doc() = "Reading and writing receiver logs; the nvbdll package wraps these calls.";
    // The Huffman tree is built once for the process and lives as long as it.
    nvbdll_initNVBLib();
    char version[8] = {};
    nvbdll_getNVBLibVersion(version);
    module.attr("library_version") = std::string(version, 4);
    py::class_<RecordStream>(module, "RecordStream")
        .def(py::init<std::string, bool>(), py::arg("path"), py::arg("fields"))
        .def("next", &RecordStream::next)
        .def("outcome", &RecordStream::outcome)
        .def("close", &RecordStream::close);
    module.def("survey", &surveyLog, py::arg("path"));
    module.def("read_observations", &readObservations, py::arg("path"));
    module.def("read_positions", &readPositions, py::arg("path"));
    module.def("write_records", &writeRecords, py::arg("path"), py::arg("records"), py::arg("method"),
               py::arg("level"));
    module.def("rewrite", &rewriteLog, py::arg("source"), py::arg("target"), py::arg("method"), py::arg("level"),
               py::arg("interval"), py::arg("position_interval"));
    module.def("signal_name", &signalName, py::arg("band"), py::arg("track"));
    module.def("run_tool", &runTool, py::arg("args"));
}
