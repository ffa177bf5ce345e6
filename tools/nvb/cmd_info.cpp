// info: what a log is and holds: its shape and header, records per type, time span and
// rate, satellites per system, the damage met and where, and the bytes an epoch costs.
#include "host/dat_form.h"
#include "nvb/command_support.h"
#include "nvb/commands.h"
#include "nvb/gnss_names.h"
#include "nvb/log_io.h"
#include "nvb/progress.h"
#include "nvb/record_json.h"
#include "nvb/status_report.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <vector>

namespace nvbtool {

namespace {

using json = nlohmann::ordered_json;

constexpr std::size_t kOffsetsListed = 5;
constexpr double kMsPerWeek = 604800000.0;

struct TimeTag {
    std::uint16_t week = 0;
    double towMs = 0;
    double absoluteMs() const { return week * kMsPerWeek + towMs; }
};

struct Span {
    std::uint64_t count = 0;
    TimeTag first;
    TimeTag last;
    std::map<std::int64_t, std::uint64_t> intervals;  // ms between successive records

    void add(TimeTag tag) {
        if (count > 0) ++intervals[std::llround(tag.absoluteMs() - last.absoluteMs())];
        if (count == 0) first = tag;
        last = tag;
        ++count;
    }
    // The most common step, the log's nominal interval.
    std::optional<std::int64_t> nominalIntervalMs() const {
        const auto most = std::max_element(intervals.begin(), intervals.end(),
                                           [](const auto& a, const auto& b) { return a.second < b.second; });
        if (most == intervals.end()) return std::nullopt;
        return most->first;
    }
};

struct SystemCount {
    std::set<std::uint8_t> satellites;
    std::set<std::pair<std::uint8_t, std::uint8_t>> signals;  // band, track
    std::uint64_t sightings = 0;
};

// Systems in their usual order, the three BeiDou numbers as one.
int systemOrder(std::uint8_t system) {
    return system == 7 || system == 10 ? 5 : system;
}

struct Statistics {
    std::map<int, std::uint64_t> perType;
    std::map<int, std::uint64_t> perCarrier;  // the stream's own record types, compact ones included
    Span epochs;
    Span positions;
    std::map<int, SystemCount> systems;
    std::uint64_t signalCount = 0;
    std::uint64_t slipMarks = 0;  // signals with the slip bit set
    std::map<std::uint64_t, std::map<std::string, std::uint64_t>> rec35;  // subtype, kind

    void addRec35(DeliveredRecord& record) {
        if (const auto rec = rec35DatOf(record.dat())) ++rec35[rec->subtype][rec35Kind(rec->subtype, rec->subsubtype)];
    }

    void addEpoch(const Rec27& rec) {
        epochs.add(TimeTag{rec.weekNum, rec.receiveTime});
        for (std::size_t i = 0; i < std::min<std::size_t>(rec.nSv, NVB_MAX_SV); ++i) {
            const Rec27Sv& sv = rec.sv[i];
            SystemCount& system = systems[systemOrder(sv.rt_sattype)];
            system.satellites.insert(sv.svId);
            ++system.sightings;
            for (std::size_t j = 0; j < std::min<std::size_t>(sv.nMeas, NVB_MAX_MEAS); ++j) {
                system.signals.insert({sv.meas[j].blockType, sv.meas[j].trackType});
                ++signalCount;
                if ((sv.meas[j].measFlags1 & 0x08) != 0) ++slipMarks;
            }
        }
    }
};

std::string durationText(double seconds) {
    if (seconds < 120) return fmt::format("{:g} s", seconds);
    const auto whole = static_cast<std::int64_t>(std::llround(seconds));
    return fmt::format("{} s ({}:{:02}:{:02})", whole, whole / 3600, whole / 60 % 60, whole % 60);
}

std::string rateText(std::int64_t intervalMs) {
    if (intervalMs <= 0) return fmt::format("{} ms steps", intervalMs);
    const double seconds = static_cast<double>(intervalMs) / 1000.0;
    if (intervalMs > 1000) {
        return fmt::format("every {:g} s ({:.3g} Hz)", seconds, 1.0 / seconds);
    }
    return fmt::format("{:g} Hz (every {:g} s)", 1.0 / seconds, seconds);
}

json timeJson(const TimeTag& tag) {
    return {{"week", tag.week}, {"timeOfWeekMs", tag.towMs}, {"gps", gpsCalendarTime(tag.week, tag.towMs)}};
}

json spanJson(const Span& span) {
    json out = {{"count", span.count}};
    if (span.count == 0) return out;
    out["first"] = timeJson(span.first);
    out["last"] = timeJson(span.last);
    out["spanSeconds"] = (span.last.absoluteMs() - span.first.absoluteMs()) / 1000.0;
    if (const auto interval = span.nominalIntervalMs()) {
        out["intervalSeconds"] = static_cast<double>(*interval) / 1000.0;
        if (*interval > 0) out["rateHz"] = 1000.0 / static_cast<double>(*interval);
    }
    return out;
}

json infoJson(const std::string& name, const ReadSummary& summary, const nvb_expand_t& state, const Statistics& stats) {
    json out;
    out["file"] = name;
    out["bytes"] = summary.bytesRead;
    out["stream"] = shapeText(summary.shape, summary.nveMagic);
    out["byteMode"] = fieldValue(state.byteMode);
    out["blockLevel"] = fieldValue(state.blockLevel);
    if (summary.shape == StreamShape::Blocks) out["blockContent"] = blockLevelText(state.blockLevel);
    out["header"] = {{"seen", fieldValue(state.headerSeen)},
                     {"count", fieldValue(state.headerCount)},
                     {"writerMajor", fieldValue(state.writerMajor)},
                     {"writerMinor", fieldValue(state.writerMinor)},
                     {"minReaderMajor", fieldValue(state.minReaderMajor)},
                     {"minReaderMinor", fieldValue(state.minReaderMinor)},
                     {"tag", fieldValue(state.headerTag)},
                     {"byte12", fieldValue(state.headerByte12)},
                     {"flagBit", fieldValue(state.headerFlagBit)},
                     {"byte13", fieldValue(state.headerByte13)}};
    json types = json::object();
    for (const auto& [type, count] : stats.perType) types[std::to_string(type)] = count;
    out["records"] = types;
    json carriers = json::object();
    for (const auto& [type, count] : stats.perCarrier) carriers[std::to_string(type)] = count;
    out["carriedAs"] = carriers;
    out["recordsUndecoded"] = summary.recordsUndecoded;
    out["schemasForConversion"] = summary.schemasForConversion;
    // Records 35 by subtype, and by kind where the subtype is Avro-coded.
    json rec35 = json::object();
    for (const auto& [subtype, kinds] : stats.rec35) {
        json entry = {{"count", 0}};
        std::uint64_t count = 0;
        for (const auto& [kind, n] : kinds) {
            count += n;
            if (kind != "record") entry[kind] = n;
        }
        entry["count"] = count;
        rec35[std::to_string(subtype)] = entry;
    }
    out["record35"] = rec35;
    out["epochs"] = spanJson(stats.epochs);
    out["positions"] = spanJson(stats.positions);
    json systems = json::object();
    for (const auto& [system, count] : stats.systems) {
        systems[systemName(static_cast<std::uint8_t>(system))] = {
            {"satellites", count.satellites.size()},
            {"signals", count.signals.size()},
            {"meanInView", stats.epochs.count > 0
                               ? static_cast<double>(count.sightings) / static_cast<double>(stats.epochs.count)
                               : 0.0}};
    }
    out["satellites"] = systems;
    out["signalsPerEpoch"] =
        stats.epochs.count > 0 ? static_cast<double>(stats.signalCount) / static_cast<double>(stats.epochs.count) : 0.0;
    out["slipMarks"] = stats.slipMarks;
    const std::uint64_t epochCount = stats.perType.count(27) ? stats.perType.at(27) : 0;
    const std::uint64_t olderEpochs = stats.perType.count(17) ? stats.perType.at(17) : 0;
    if (epochCount + olderEpochs > 0) {
        out["bytesPerEpoch"] = static_cast<double>(summary.bytesRead) / static_cast<double>(epochCount + olderEpochs);
    }
    out["endSymbols"] = summary.endSymbols;
    // Statuses in the order they were first met, each with the input bytes where the
    // reader told of it and, for a record in a block stream, the record's offset among
    // the unpacked records.
    json statuses = json::array();
    for (const StatusEvent& event : summary.events) {
        auto entry =
            std::find_if(statuses.begin(), statuses.end(), [&](const json& e) { return e["status"] == event.status; });
        if (entry == statuses.end()) {
            statuses.push_back({{"status", event.status},
                                {"text", statusText(event.status)},
                                {"count", 0},
                                {"offsets", json::array()},
                                {"unpackedOffsets", json::array()}});
            entry = statuses.end() - 1;
        }
        (*entry)["count"] = (*entry)["count"].get<std::uint64_t>() + 1;
        if ((*entry)["offsets"].size() < kOffsetsListed) (*entry)["offsets"].push_back(event.offset);
        if (event.unpackedOffset && (*entry)["unpackedOffsets"].size() < kOffsetsListed) {
            (*entry)["unpackedOffsets"].push_back(*event.unpackedOffset);
        }
    }
    out["statuses"] = statuses;
    out["unverified"] = summary.recordsUnverified;
    if (summary.truncatedAt) {
        out["truncated"] = {
            {"offset", *summary.truncatedAt}, {"bytes", summary.truncatedBytes}, {"afterDamage", summary.lostFooting}};
    }
    return out;
}

void printSpan(const char* label, const json& span, const std::string& unit) {
    const std::uint64_t count = span["count"];
    if (count == 0) return;
    fmt::print("{:<17}{} {}", label, count, unit);
    const json& first = span["first"];
    const json& last = span["last"];
    fmt::print(" over {}\n", durationText(span["spanSeconds"].get<double>()));
    fmt::print("{:<17}from {} GPS (week {} {:.3f} s)\n", "", first["gps"].get<std::string>(), first["week"].get<int>(),
               first["timeOfWeekMs"].get<double>() / 1000.0);
    fmt::print("{:<17}to   {} GPS (week {} {:.3f} s)\n", "", last["gps"].get<std::string>(), last["week"].get<int>(),
               last["timeOfWeekMs"].get<double>() / 1000.0);
    if (span.contains("intervalSeconds")) {
        fmt::print("{:<17}{}\n", "", rateText(std::llround(span["intervalSeconds"].get<double>() * 1000.0)));
    }
}

void printInfo(const json& info) {
    fmt::print("{:<17}{}\n", "file", info["file"].get<std::string>());
    fmt::print("{:<17}{} bytes\n", "size", info["bytes"].get<std::uint64_t>());
    std::string stream = info["stream"].get<std::string>();
    if (info.contains("blockContent")) {
        stream +=
            fmt::format(", level {} ({})", info["blockLevel"].get<int>(), info["blockContent"].get<std::string>());
    }
    fmt::print("{:<17}{}\n", "stream", stream);
    const json& header = info["header"];
    if (header["seen"].get<int>() != 0 || header["minReaderMajor"].get<int>() != 0) {
        fmt::print("{:<17}written by {}.{:02}, needs reader {}.{:02}, tag {}, {} header block{}\n", "header",
                   header["writerMajor"].get<int>(), header["writerMinor"].get<int>(),
                   header["minReaderMajor"].get<int>(), header["minReaderMinor"].get<int>(), header["tag"].get<int>(),
                   header["count"].get<int>(), header["count"].get<int>() == 1 ? "" : "s");
    }
    std::string records;
    std::uint64_t total = 0;
    for (const auto& [type, count] : info["records"].items()) {
        records += fmt::format("{}{} x {}", records.empty() ? "" : ", ", count.get<std::uint64_t>(), type);
        total += count.get<std::uint64_t>();
    }
    fmt::print("{:<17}{}{}{}\n", "records", total, records.empty() ? "" : ": ", records);
    std::string carriers;
    for (const auto& [type, count] : info["carriedAs"].items()) {
        carriers += fmt::format("{}{} x {}", carriers.empty() ? "" : ", ", count.get<std::uint64_t>(), type);
    }
    if (carriers != records) fmt::print("{:<17}{}\n", "carried as", carriers);
    std::string rec35;
    for (const auto& [subtype, entry] : info["record35"].items()) {
        std::string kinds;
        for (const char* kind : {"schema", "reference", "delta", "other"}) {
            if (!entry.contains(kind)) continue;
            kinds += fmt::format("{}{} {}", kinds.empty() ? "" : ", ", entry[kind].get<std::uint64_t>(), kind);
        }
        rec35 += fmt::format("{}subtype {}: {}{}", rec35.empty() ? "" : "; ", subtype, entry["count"].get<std::uint64_t>(),
                             kinds.empty() ? "" : " (" + kinds + ")");
    }
    if (!rec35.empty()) fmt::print("{:<17}{}\n", "record 35", rec35);
    if (info["schemasForConversion"].get<std::uint64_t>() > 0) {
        fmt::print("{:<17}{} schemas read for the subtypes converted to plain records\n", "",
                   info["schemasForConversion"].get<std::uint64_t>());
    }
    if (info["recordsUndecoded"].get<std::uint64_t>() > 0) {
        fmt::print("{:<17}{} of types this reader does not decode\n", "",
                   info["recordsUndecoded"].get<std::uint64_t>());
    }
    printSpan("epochs", info["epochs"], "measurement epochs");
    printSpan("positions", info["positions"], "positions");
    for (const auto& [system, count] : info["satellites"].items()) {
        fmt::print("{:<17}{:<8} {:>3} satellites, {:>4.1f} in view, {} kind{} of signal\n",
                   system == info["satellites"].begin().key() ? "satellites" : "", system,
                   count["satellites"].get<int>(), count["meanInView"].get<double>(), count["signals"].get<int>(),
                   count["signals"].get<int>() == 1 ? "" : "s");
    }
    if (info["epochs"]["count"].get<std::uint64_t>() > 0) {
        fmt::print("{:<17}{:.1f} per epoch, {} marked with a slip\n", "signals", info["signalsPerEpoch"].get<double>(),
                   info["slipMarks"].get<std::uint64_t>());
    }
    if (info.contains("bytesPerEpoch"))
        fmt::print("{:<17}{:.1f}\n", "bytes per epoch", info["bytesPerEpoch"].get<double>());
    if (info["statuses"].empty() && !info.contains("truncated")) {
        fmt::print("{:<17}none\n", "damage");
        return;
    }
    bool first = true;
    for (const json& entry : info["statuses"]) {
        std::string offsets;
        for (const json& offset : entry["offsets"]) {
            offsets += fmt::format("{}{}", offsets.empty() ? "" : ", ", offset.get<std::uint64_t>());
        }
        const std::uint64_t count = entry["count"];
        if (count > entry["offsets"].size()) offsets += ", ...";
        fmt::print("{:<17}status {:>2} {}: {} time{}, at byte {}\n", first ? "damage" : "", entry["status"].get<int>(),
                   entry["text"].get<std::string>(), count, count == 1 ? "" : "s", offsets);
        first = false;
    }
    if (info["unverified"].get<std::uint64_t>() > 0) {
        fmt::print("{:<17}{} delta records behind it left out, unverifiable before their next reference\n",
                   first ? "damage" : "", info["unverified"].get<std::uint64_t>());
        first = false;
    }
    if (info.contains("truncated")) {
        fmt::print("{:<17}{} from byte {} ({} bytes not read)\n", first ? "damage" : "",
                   info["truncated"]["afterDamage"].get<bool>() ? "no block found" : "the log ends unfinished",
                   info["truncated"]["offset"].get<std::uint64_t>(), info["truncated"]["bytes"].get<std::uint64_t>());
    }
}

struct InfoOptions {
    InputOptions in;
    bool json = false;
};

int runInfo(const InfoOptions& options, const CommonOptions& common) {
    const auto input = Input::open(options.in.path);
    if (!input) return kExitUsage;
    LogReader reader(*input, options.in.read);
    Statistics stats;
    Progress progress(common.quiet, "info", input->size());
    const ReadSummary summary = reader.run(
        [&](DeliveredRecord& record) {
            ++stats.perType[record.type];
            ++stats.perCarrier[fieldValue(record.state->currentType)];
            if (record.type == 27) stats.addEpoch(*record.state->records.rec27);
            if (record.type == 35) stats.addRec35(record);
            if (record.type == 29) {
                const Rec29& position = *record.state->records.rec29;
                stats.positions.add(TimeTag{position.week, static_cast<double>(position.time)});
            }
        },
        [&](std::uint64_t done) { progress.update(done); });
    progress.finish();
    const json info = infoJson(input->name(), summary, reader.state(), stats);
    if (options.json) {
        fmt::print("{}\n", info.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
    } else {
        printInfo(info);
    }
    const bool written = flushStandardOutput();
    reportReadProblems(summary, input->name());
    return written ? exitCodeOf(summary) : kExitUsage;
}

}  // namespace

CommandAction addInfoCommand(CLI::App& app, const CommonOptions& common) {
    auto options = std::make_shared<InfoOptions>();
    CLI::App* command = app.add_subcommand(
        "info", "tell what a log is and holds: shape, header, records, time span and rate, satellites, damage");
    command->fallthrough();
    addInputOptions(*command, options->in, "log to read");
    command->add_flag("--json", options->json, "the same as one JSON object");
    return [options, &common] { return runInfo(*options, common); };
}

}  // namespace nvbtool
