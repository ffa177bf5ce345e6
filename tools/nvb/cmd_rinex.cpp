// rinex and binex: a log's measurement epochs as RINEX observation text (2.11, 2.12, 3.02,
// 3.03), Compact RINEX, or BINEX records, written by the library's observation output;
// the tool adds the header lines that describe the site and the program.
#include "nvb/command_support.h"
#include "nvb/commands.h"
#include "nvb/log_io.h"
#include "nvb/progress.h"
#include "nvb/several_inputs.h"
#include "nvb/sim_orbits.h"

#include "external/su/epoch_image.h"
#include "output/observation_output.h"
#include "output/observation_tables.h"
#include "records/measurement_records.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <array>
#include <cmath>
#include <ctime>
#include <filesystem>
#include <map>
#include <optional>
#include <memory>
#include <vector>

namespace nvbtool {

namespace {

// The writer holds any one epoch several times over; it is drained after every record.
constexpr std::size_t kWriterCapacity = std::size_t{1} << 20;
constexpr std::uint8_t kGlonass = 2;
constexpr std::size_t kGlonassSlots = 24;

struct ConvertOptions {
    InputOptions in;
    std::string output;
    std::string version = "3.03";
    bool compact = false;
    double interval = 0.0;
    std::string marker;
};

// What the first pass finds: where the antenna stands, the GLONASS channels, the epoch
// rate, and (in the control) every observation type the file will carry.
struct Survey {
    std::array<double, 3> position{};
    std::uint64_t positions = 0;
    std::array<std::optional<std::int8_t>, kGlonassSlots> gloChannels{};
    std::map<std::int64_t, std::uint64_t> steps;  // ms between epochs
    std::uint64_t epochs = 0;
    std::uint32_t systems = 0;                     // bit per rinexSystemIndex
    std::uint8_t writerMajor = 0;
    std::uint8_t writerMinor = 0;
};

std::array<double, 3> earthFixed(double latitudeDeg, double longitudeDeg, double height) {
    const sim::Site site = sim::makeSite(latitudeDeg, longitudeDeg, height);
    return {site.position.x, site.position.y, site.position.z};
}

void surveyEpoch(const Rec27& rec, rinex_control_t& control, epoch_rinex_t& work, Survey& survey, double& lastMs) {
    const double ms = fieldValue(rec.weekNum) * 604800000.0 + fieldValue(rec.receiveTime);
    if (survey.epochs++ != 0 && ms > lastMs) ++survey.steps[std::llround(ms - lastMs)];
    lastMs = ms;
    for (std::size_t sat = 0; sat < std::min<std::size_t>(fieldValue(rec.nSv), nvb::kEpochMaxSatellites); ++sat) {
        const Rec27Sv& sv = rec.sv[sat];
        const std::uint8_t system = nvb::rinexSystemIndex(fieldValue(sv.rt_sattype));
        if (fieldValue(sv.antennaNumber) != 0 || !nvb::systemAllowed(system, control.rinexVersion)) continue;
        survey.systems |= 1u << std::min<std::uint8_t>(system, 31);
        if (system == kGlonass && fieldValue(sv.svId) >= 1 && fieldValue(sv.svId) <= kGlonassSlots) {
            survey.gloChannels[fieldValue(sv.svId) - 1u] = static_cast<std::int8_t>(fieldValue(sv.channel));
        }
        std::memset(work.cells[0], 0, sizeof work.cells[0]);
        for (std::size_t index = 0; index < std::min<std::size_t>(fieldValue(sv.nMeas), nvb::kEpochMaxSignals); ++index) {
            const Rec27Meas& meas = sv.meas[index];
            nvb::rinexCollectSignal(control, work, 0, system, fieldValue(meas.blockType), fieldValue(meas.trackType), false,
                                    fieldValue(meas.slipCount), fieldValue(meas.range), fieldValue(meas.phase),
                                    fieldValue(meas.snr));
        }
    }
}

// An epoch converted from record 35 passes no epoch expander, so it is handed to the
// observation output here in the wire form the expanders hand it theirs.
void outputConvertedEpoch(const Rec27& rec, rinex_control_t& control, epoch_rinex_t& work) {
    nvb_frame_t frame{};
    const std::uint16_t length = nvb::writeRec27(rec, frame, 1, true);
    epoch_image_t image;
    if (length == 0 || nvb::parseEpochImage(image, frame.data, length).status != 0) return;
    (void)nvb::finishEpochOutput(image, frame.data, length, control, work);
}

// RINEX date formats of the PGM / RUN BY / DATE line, and Compact RINEX's own.
std::string creationDate(bool rinex3, bool compact) {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    if (compact) return fmt::format("{:%d-%b-%y %H:%M}", utc);
    return rinex3 ? fmt::format("{:%Y%m%d %H%M%S} UTC", utc) : fmt::format("{:%d-%b-%y %H:%M}", utc);
}

template <typename... Args>
void line(std::string& text, const char* format, Args... args) {
    char buffer[128];
    std::snprintf(buffer, sizeof buffer, format, args...);
    text += buffer;
}

// The header lines that the library leaves to the host, in the published order; the
// library goes on with the type lines, the time of the first epoch and END OF HEADER.
std::string hostHeader(const ConvertOptions& options, const Survey& survey, std::uint16_t version) {
    const bool rinex3 = version >= 300;
    std::string text;
    if (options.compact) {
        line(text, "%-20s%-40s%-20s\n", rinex3 ? "3.0" : "1.0", "COMPACT RINEX FORMAT", "CRINEX VERS   / TYPE");
        line(text, "%-40s%-20sCRINEX PROG / DATE\n", "nvb rinex", creationDate(rinex3, true).c_str());
    }
    std::string systems = "M (MIXED)";
    const char letters[] = "GSREJCI";
    for (std::uint8_t system = 0; system < 7; ++system) {
        if (survey.systems == (1u << system)) systems = std::string(1, letters[system]);
    }
    if (!rinex3 && systems.size() > 1) systems = "M";
    line(text, "%9.2f           %-20s%-20sRINEX VERSION / TYPE\n", version / 100.0, "OBSERVATION DATA", systems.c_str());
    line(text, "%-20s%-20s%-20sPGM / RUN BY / DATE \n", "nvb rinex", "", creationDate(rinex3, false).c_str());
    line(text, "%-60sMARKER NAME         \n", options.marker.c_str());
    line(text, "%-20s%-40.40sOBSERVER / AGENCY   \n", "", "");
    const std::string writer = fmt::format("{}.{:02}", survey.writerMajor, survey.writerMinor);
    line(text, "%-20s%-20s%-20sREC # / TYPE / VERS \n", "", "", writer.c_str());
    line(text, "%-20s%-20s                    ANT # / TYPE        \n", "", "");
    std::array<double, 3> xyz{};
    if (survey.positions != 0) {
        for (std::size_t i = 0; i < 3; ++i) xyz[i] = survey.position[i] / static_cast<double>(survey.positions);
    }
    line(text, "%14.4f%14.4f%14.4f                  APPROX POSITION XYZ \n", xyz[0], xyz[1], xyz[2]);
    line(text, "%14.4f%14.4f%14.4f                  ANTENNA: DELTA H/E/N\n", 0.0, 0.0, 0.0);
    if (!rinex3) line(text, "%6s%6s%6s                                          WAVELENGTH FACT L1/2\n", "1", "1", "");
    return text;
}

std::optional<std::uint16_t> versionNumber(const std::string& text) {
    static const std::map<std::string, std::uint16_t> kVersions = {
        {"2.11", 211}, {"2.12", 212}, {"3.02", 302}, {"3.03", 303}};
    const auto found = kVersions.find(text);
    if (found == kVersions.end()) return std::nullopt;
    return found->second;
}

int runConvert(const ConvertOptions& options, std::uint8_t mode, const CommonOptions& common, const char* label) {
    const std::uint16_t version = versionNumber(options.version).value_or(0);
    if (options.in.path == "-") {
        reportError("standard input", "can't be read twice; name the log as a file");
        return kExitUsage;
    }
    rinex_writer_t writer{};
    std::vector<std::uint8_t> buffer(kWriterCapacity);
    writer.data = buffer.data();
    writer.capacity = static_cast<std::uint32_t>(buffer.size());
    rinex_control_t control{};
    nvb::ObservationOutput output(control, mode, mode == nvb::kOutputBinex ? 303 : version, writer);
    auto work = std::make_unique<epoch_rinex_t>();
    if (!output.started()) {
        reportError(options.in.path, "observation output could not be set up");
        return kExitUsage;
    }

    auto input = Input::open(options.in.path);
    if (!input) return kExitUsage;
    Progress progress(common.quiet, label, 2 * input->size());
    Survey survey;
    double lastMs = 0.0;
    {
        LogReader reader(*input, options.in.read);
        const ReadSummary summary = reader.run(
            [&](DeliveredRecord& record) {
                const nvb_expand_t& state = *record.state;
                if (record.type == 27) surveyEpoch(*state.records.rec27, control, *work, survey, lastMs);
                const Rec29& position = *state.records.rec29;
                if (record.type == 29 && fieldValue(position.positionValid) != 0) {
                    const auto xyz = earthFixed(fieldValue(position.latPos), fieldValue(position.lonPos),
                                                fieldValue(position.hgtPos));
                    for (std::size_t i = 0; i < 3; ++i) survey.position[i] += xyz[i];
                    ++survey.positions;
                }
            },
            [&](std::uint64_t done) { progress.update(done); });
        if (summary.unreadable()) {
            progress.finish();
            reportReadProblems(summary, input->name());
            return kExitUsage;
        }
        survey.writerMajor = reader.state().writerMajor;
        survey.writerMinor = reader.state().writerMinor;
    }

    // One list of observation types for the whole file: what the first pass saw.
    control.keepObsList = 1;
    control.skipCollect = 1;
    control.interval = static_cast<std::uint32_t>(std::llround(options.interval * 1000.0));
    if (options.interval > 0) {
        control.obsIntervalSeconds = options.interval;
    } else if (!survey.steps.empty()) {
        control.obsIntervalSeconds = static_cast<double>(survey.steps.begin()->first) / 1000.0;
    }
    for (std::size_t slot = 0; slot < kGlonassSlots; ++slot) {
        if (survey.gloChannels[slot]) control.gloChannels[slot] = *survey.gloChannels[slot];
    }

    const auto out = Output::open(options.output, options.in.path, mode != nvb::kOutputBinex);
    if (!out) return kExitUsage;
    if (mode != nvb::kOutputBinex) {
        const std::string header = hostHeader(options, survey, version);
        out->write(reinterpret_cast<const std::uint8_t*>(header.data()), header.size());
    }
    std::uint64_t epochs = 0;
    const auto drain = [&] {
        if (writer.length == 0) return;
        ++epochs;
        out->write(writer.data, writer.length);
        writer.length = 0;
    };
    input = Input::open(options.in.path);
    if (!input) return kExitUsage;
    ReadOptions read = options.in.read;
    read.epochOutput = &control;
    read.afterEpochOutput = drain;
    LogReader reader(*input, read);
    const std::uint64_t firstPass = input->size();
    const ReadSummary summary = reader.run(
        [&](DeliveredRecord& record) {
            if (record.type != 27 || fieldValue(record.state->currentType) != 35) return;
            outputConvertedEpoch(*record.state->records.rec27, control, *work);
            drain();
        },
        [&](std::uint64_t done) { progress.update(firstPass + done); });
    drain();
    progress.finish();
    reportReadProblems(summary, input->name());
    int code = exitCodeOf(summary);
    if (mode != nvb::kOutputBinex && control.headerOpen != 0) {
        const std::string end = "                                                            END OF HEADER       \n";
        out->write(reinterpret_cast<const std::uint8_t*>(end.data()), end.size());
        reportError(input->name(), "holds no measurement epoch");
        code = std::max(code, kExitRecovered);
    }
    if (writer.refused != 0) {
        reportError(out->name(), fmt::format("{} epochs did not fit the output buffer and were left out", writer.refused));
        code = std::max(code, kExitRecovered);
    }
    code = settleOutput(*out, code);
    if (code == kExitUsage) return code;
    const std::string form = mode == nvb::kOutputBinex ? "BINEX 0x7F-05"
                             : options.compact        ? fmt::format("Compact RINEX {}", options.version)
                                                      : fmt::format("RINEX {}", options.version);
    reportNote(common.quiet, fmt::format("{}: {} epochs in {}, {} bytes", out->name(), epochs, form, out->bytes()));
    return code;
}

}  // namespace

CommandAction addRinexCommand(CLI::App& app, const CommonOptions& common) {
    auto options = std::make_shared<ConvertOptions>();
    CLI::App* command = app.add_subcommand("rinex", "write the measurement epochs of a log as a RINEX observation file");
    command->fallthrough();
    addOutputOption(*command, options->output, "RINEX file to write");
    addInputsOptions(*command, options->in, "log to read (a file: it is read twice)");
    command->add_option("--version", options->version, "RINEX version")
        ->check(CLI::IsMember({"2.11", "2.12", "3.02", "3.03"}))
        ->capture_default_str();
    command->add_flag("--crx", options->compact, "write Compact RINEX");
    command->add_option("--interval", options->interval,
                        "keep only epochs on this interval, s; slips of the dropped epochs are marked on the kept ones")
        ->check(CLI::PositiveNumber);
    command->add_option("--marker", options->marker, "marker name for the header");
    return [options, &common] {
        return convertEach(options->in, options->output, options->compact ? ".crx" : ".rnx", common, [&] {
            if (options->marker.empty()) options->marker = std::filesystem::path(options->in.path).stem().string();
            return runConvert(*options, options->compact ? nvb::kOutputCompactRinex : nvb::kOutputRinex, common,
                              "rinex");
        });
    };
}

CommandAction addBinexCommand(CLI::App& app, const CommonOptions& common) {
    auto options = std::make_shared<ConvertOptions>();
    CLI::App* command = app.add_subcommand("binex", "write the measurement epochs of a log as BINEX 0x7F-05 records");
    command->fallthrough();
    addOutputOption(*command, options->output, "BINEX file to write");
    addInputsOptions(*command, options->in, "log to read (a file: it is read twice)");
    command->add_option("--interval", options->interval, "keep only epochs on this interval, s")
        ->check(CLI::PositiveNumber);
    return [options, &common] {
        return convertEach(options->in, options->output, ".bnx", common,
                           [&] { return runConvert(*options, nvb::kOutputBinex, common, "binex"); });
    };
}

}  // namespace nvbtool
