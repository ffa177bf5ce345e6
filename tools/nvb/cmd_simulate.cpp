// simulate: a synthetic receiver's log, written through the library's own encoder.
#include "nvb/command_support.h"
#include "nvb/commands.h"
#include "nvb/log_io.h"
#include "nvb/progress.h"
#include "nvb/sim_rec35.h"
#include "nvb/simulator.h"

#include "pipeline/serialisation.h"
#include "stream/block_writer.h"

#include <fmt/format.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace nvbtool {

namespace {

// A newer receiver logs record 35 and takes a new reference after a marker every ten
// minutes of log time, as the plain records do.
constexpr std::uint32_t kMarkerSubtype = NVB_REC35_RESET_MARKER_SUBTYPE;
constexpr std::int64_t kMarkerPeriodMs = 600000;

struct SimulateCommandOptions {
    std::string output;
    SimulationOptions simulation;
    WriteChoice choice;
    std::string receiver = "plain";
};

int runSimulate(const SimulateCommandOptions& options, const CommonOptions& common) {
    const std::optional<WriteOptions> write = resolveWrite(options.choice, MethodDefault::Zstd);
    if (!write) return kExitUsage;
    const bool newer = options.receiver == "new";
    if (newer && !nvb::isBareMethod(static_cast<std::uint8_t>(write->method))) {
        reportError("usage", "a newer receiver's records 35 need method 3, 5, 6 or 7");
        return kExitUsage;
    }
    std::unique_ptr<ReceiverSimulator> simulatorHolder;
    try {
        simulatorHolder = std::make_unique<ReceiverSimulator>(options.simulation);
    } catch (const std::invalid_argument& error) {
        reportError("simulate", error.what());
        return kExitUsage;
    }
    ReceiverSimulator& simulator = *simulatorHolder;
    const auto output = Output::open(options.output);
    if (!output) return kExitUsage;
    LogWriter writer(*output, *write);
    Progress progress(common.quiet, "simulate", simulator.epochCount());
    auto measurements = std::make_unique<Rec27>();
    auto packed = std::make_unique<Rec27>();
    auto position = std::make_unique<Rec29>();
    std::vector<std::uint8_t> dat(1 << 16);
    std::uint64_t epochs = 0;
    NewerReceiverRecords natives;
    std::optional<std::int64_t> markerPeriod;
    while (simulator.next(*measurements, *position)) {
        if (newer) {
            const std::int64_t period = static_cast<std::int64_t>(measurements->receiveTime) / kMarkerPeriodMs;
            if (markerPeriod && *markerPeriod != period) writer.putRec35(kMarkerSubtype, nullptr);
            markerPeriod = period;
            natives.fill(*measurements, *position, simulator.truth());
            writer.putRec35(kNewerEpochSubtype, &natives.epoch());
            writer.putRec35(kNewerPositionSubtype, &natives.position());
            progress.update(++epochs);
            continue;
        }
        // The DAT form packs the system bytes back into the structure it is made from, so
        // it is made from a copy and the simulator's epoch stays as it left it.
        *packed = *measurements;
        // Retrieval writes rt_sattype x 65 as the DAT system byte, whose top bits the parser
        // takes as the antenna; 193 is the inverse of 65 modulo 256, so every satellite
        // reaches the log on the first antenna with its own system number.
        for (Rec27Sv& sv : packed->sv) sv.rt_sattype = static_cast<std::uint8_t>(sv.rt_sattype * 193u);
        const std::uint16_t epochLength = nvb::writeDatForm(*packed, dat.data(), dat.size());
        if (epochLength != 0) writer.put(std::span<std::uint8_t>(dat.data(), epochLength));
        const std::uint16_t positionLength = nvb::writeDatForm(*position, dat.data(), dat.size());
        if (positionLength != 0) writer.put(std::span<std::uint8_t>(dat.data(), positionLength));
        progress.update(++epochs);
    }
    writer.finish();
    progress.finish();
    const bool complete = reportWriteProblems(writer.summary(), output->name());
    const int code = settleOutput(*output, complete ? kExitClean : kExitRecovered);
    if (code == kExitUsage) return code;
    reportNote(common.quiet,
               fmt::format("{}: {} epochs over {} s with {}, {} bytes in {} ({:.0f} bytes per epoch)", output->name(),
                           epochs, options.simulation.durationSeconds, options.simulation.systems, output->bytes(),
                           methodName(static_cast<std::uint8_t>(write->method)),
                           epochs > 0 ? static_cast<double>(output->bytes()) / static_cast<double>(epochs) : 0.0));
    return code;
}

// The systems string: letters of G, R, E, C, each at most once.
std::string checkSystems(const std::string& systems) {
    if (systems.empty()) return "name at least one system of G, R, E, C";
    for (std::size_t i = 0; i < systems.size(); ++i) {
        if (std::string_view("GREC").find(systems[i]) == std::string_view::npos) {
            return fmt::format("unknown system '{}': use G (GPS), R (GLONASS), E (Galileo), C (BeiDou)", systems[i]);
        }
        if (systems.find(systems[i]) != i) return fmt::format("system '{}' named twice", systems[i]);
    }
    return {};
}

}  // namespace

CommandAction addSimulateCommand(CLI::App& app, const CommonOptions& common) {
    auto options = std::make_shared<SimulateCommandOptions>();
    CLI::App* command =
        app.add_subcommand("simulate",
                           "write the log of a simulated static receiver: GPS, GLONASS, Galileo and BeiDou satellites "
                           "rising and setting, ranges, phases and Doppler, clock drift, cycle slips, and a position "
                           "per epoch");
    command->fallthrough();
    addOutputOption(*command, options->output, "log to write");
    SimulationOptions& simulation = options->simulation;
    command->add_option("-d,--duration", simulation.durationSeconds, "seconds of log")
        ->check(CLI::Range(0.05, 7.0 * 86400.0))
        ->capture_default_str();
    command->add_option("-i,--interval", simulation.intervalSeconds, "seconds between epochs, down to 0.05")
        ->check(CLI::Range(0.05, 3600.0))
        ->capture_default_str();
    command->add_option("-s,--systems", simulation.systems, "G GPS, R GLONASS, E Galileo, C BeiDou")
        ->check(CLI::Validator(checkSystems, "GREC"))
        ->capture_default_str();
    command->add_option("--mask", simulation.elevationMaskDegrees, "elevation mask, degrees")
        ->check(CLI::Range(0.0, 60.0))
        ->capture_default_str();
    command->add_option("--seed", simulation.seed, "seed of the simulation; the same seed gives the same log")
        ->capture_default_str();
    command
        ->add_option("--receiver", options->receiver,
                     "plain: epochs and positions as records 27 and 29; new: as a newer receiver logs them, "
                     "record 35 subtypes 19 and 2 with their schemas (methods 3, 5, 6, 7)")
        ->check(CLI::IsMember({"plain", "new"}))
        ->capture_default_str();
    addWriteOptions(*command, options->choice, MethodDefault::Zstd);
    return [options, &common] { return runSimulate(*options, common); };
}

}  // namespace nvbtool
