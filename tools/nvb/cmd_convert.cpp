// todat, fromdat, recompress and thin: a log out to DAT records and back, and a log
// rewritten through its DAT records in another method or at a longer interval.
#include "nvb/command_support.h"
#include "nvb/commands.h"
#include "nvb/log_io.h"
#include "nvb/progress.h"
#include "nvb/several_inputs.h"

#include <fmt/format.h>

#include <memory>
#include <optional>

namespace nvbtool {

namespace {

struct ToDatOptions {
    InputOptions in;
    std::string output;
};

// A rewritten log keeps its records 35 as they came.
ReadOptions nativeReading(ReadOptions read) {
    read.nativeRec35 = true;
    return read;
}

int runToDat(const ToDatOptions& options, const CommonOptions& common) {
    const auto input = Input::open(options.in.path);
    if (!input) return kExitUsage;
    const auto output = Output::open(options.output, options.in.path);
    if (!output) return kExitUsage;
    LogReader reader(*input, options.in.read);
    Progress progress(common.quiet, "todat", input->size());
    std::uint64_t records = 0;
    const ReadSummary summary = reader.run(
        [&](DeliveredRecord& record) {
            // The DAT file holds the records back to back, each as long as its header
            // says, so that fromdat can walk it without any other framing.
            const auto dat = record.dat();
            if (dat.size() < 4) return;
            output->write(dat.data(), dat.size());
            ++records;
        },
        [&](std::uint64_t done) { progress.update(done); });
    progress.finish();
    reportReadProblems(summary, input->name());
    const int code = settleOutput(*output, exitCodeOf(summary));
    if (code == kExitUsage) return code;
    reportNote(common.quiet, fmt::format("{}: {} DAT records, {} bytes", output->name(), records, output->bytes()));
    return code;
}

struct FromDatOptions {
    InputOptions in;
    std::string output;
    WriteChoice choice;
};

int runFromDat(const FromDatOptions& options, const CommonOptions& common) {
    const std::optional<WriteOptions> write = resolveWrite(options.choice, MethodDefault::Zstd);
    if (!write) return kExitUsage;
    const auto input = Input::open(options.in.path);
    if (!input) return kExitUsage;
    const auto output = Output::open(options.output, options.in.path);
    if (!output) return kExitUsage;
    LogWriter writer(*output, *write);
    DatReader reader(*input);
    Progress progress(common.quiet, "fromdat", input->size());
    std::span<std::uint8_t> record;
    std::uint64_t offset = 0;
    std::uint64_t records = 0;
    while (reader.next(record, offset)) {
        writer.put(record);
        if (++records % 256 == 0) progress.update(reader.bytesRead());
    }
    writer.finish();
    progress.finish();
    if (reader.problem()) reportErrorAt(input->name(), reader.problemOffset(), *reader.problem());
    const bool complete = reportWriteProblems(writer.summary(), output->name());
    int code = complete ? kExitClean : kExitRecovered;
    if (reader.problem()) code = records == 0 ? kExitUsage : kExitRecovered;
    if (input->failed()) code = kExitUsage;
    code = settleOutput(*output, code);
    if (code == kExitUsage) return code;
    reportNote(common.quiet,
               fmt::format("{}: {} records in {}, {} bytes", output->name(), writer.summary().recordsWritten,
                           methodName(static_cast<std::uint8_t>(write->method)), output->bytes()));
    if (writer.summary().writeOnly > 0) {
        reportNote(common.quiet, fmt::format("{}: {} records of type 20 are in the log, but no reader gives them back",
                                             output->name(), writer.summary().writeOnly));
    }
    return code;
}

// recompress and thin: read, take each record's DAT form, write it again.
struct RewriteOptions {
    InputOptions in;
    std::string output;
    WriteChoice choice;
    float interval = 0;
    std::optional<float> positionInterval;
};

int runRewrite(const RewriteOptions& options, const CommonOptions& common, MethodDefault methodDefault,
               const char* label) {
    const std::optional<WriteOptions> resolved = resolveWrite(options.choice, methodDefault);
    if (!resolved) return kExitUsage;
    // thin keeps the input's method unless told
    const bool methodNamed = options.choice.method || options.choice.best;
    const auto input = Input::open(options.in.path);
    if (!input) return kExitUsage;
    const auto output = Output::open(options.output, options.in.path);
    if (!output) return kExitUsage;
    LogReader reader(*input, nativeReading(options.in.read));
    WriteOptions write = *resolved;
    write.measurementInterval = options.interval;
    write.positionInterval = options.positionInterval.value_or(options.interval);
    Progress progress(common.quiet, label, input->size());
    const Rewritten rewritten = rewriteRecords(reader, *output, write, !methodNamed,
                                               [&](std::uint64_t done) { progress.update(done); });
    progress.finish();
    reportReadProblems(rewritten.read, input->name());
    const bool complete = reportWriteProblems(rewritten.written, output->name());
    const int readCode = exitCodeOf(rewritten.read);
    const int code = settleOutput(*output, readCode != kExitClean ? readCode : complete ? kExitClean : kExitRecovered);
    if (code == kExitUsage) return code;
    const WriteSummary& written = rewritten.written;
    const auto method = static_cast<std::uint8_t>(rewritten.method);
    if (options.interval > 0) {
        reportNote(common.quiet,
                   fmt::format("{}: kept {} of {} records, dropped {} at {} s (slips carried to the kept epochs), "
                               "{} bytes in {}",
                               output->name(), written.recordsWritten, written.recordsIn, written.thinned,
                               options.interval, output->bytes(), methodName(method)));
    } else {
        reportNote(common.quiet, fmt::format("{}: {} records, {} bytes in {}", output->name(), written.recordsWritten,
                                             output->bytes(), methodName(method)));
    }
    return code;
}

// A write option that can't be used is told once, not once per file.
int rewriteEach(RewriteOptions& options, const CommonOptions& common, MethodDefault methodDefault, const char* label) {
    if (!resolveWrite(options.choice, methodDefault)) return kExitUsage;
    return convertEach(options.in, options.output, "", common,
                       [&] { return runRewrite(options, common, methodDefault, label); });
}

}  // namespace

CommandAction addToDatCommand(CLI::App& app, const CommonOptions& common) {
    auto options = std::make_shared<ToDatOptions>();
    CLI::App* command = app.add_subcommand("todat", "write the records of a log as DAT records, back to back");
    command->fallthrough();
    addOutputOption(*command, options->output, "DAT file to write");
    addInputsOptions(*command, options->in, "log to read");
    command->add_flag("--native-rec35", options->in.read.nativeRec35,
                      "record 35 epochs and positions as they are in the log, not converted into records 27 and 29");
    return [options, &common] {
        return convertEach(options->in, options->output, ".dat", common, [&] { return runToDat(*options, common); });
    };
}

CommandAction addFromDatCommand(CLI::App& app, const CommonOptions& common) {
    auto options = std::make_shared<FromDatOptions>();
    CLI::App* command = app.add_subcommand("fromdat", "write a log from DAT records");
    command->fallthrough();
    addOutputOption(*command, options->output, "log to write");
    addInputsOptions(*command, options->in, "DAT file to read");
    addWriteOptions(*command, options->choice, MethodDefault::Zstd);
    return [options, &common] {
        if (!resolveWrite(options->choice, MethodDefault::Zstd)) return kExitUsage;
        return convertEach(options->in, options->output, ".nvb", common, [&] { return runFromDat(*options, common); });
    };
}

CommandAction addRecompressCommand(CLI::App& app, const CommonOptions& common) {
    auto options = std::make_shared<RewriteOptions>();
    CLI::App* command = app.add_subcommand("recompress", "write a log again in another compression method");
    command->fallthrough();
    addOutputOption(*command, options->output, "log to write");
    addInputsOptions(*command, options->in, "log to read");
    addWriteOptions(*command, options->choice, MethodDefault::Required);
    return [options, &common] { return rewriteEach(*options, common, MethodDefault::Required, "recompress"); };
}

CommandAction addThinCommand(CLI::App& app, const CommonOptions& common) {
    auto options = std::make_shared<RewriteOptions>();
    CLI::App* command = app.add_subcommand(
        "thin", "keep the epochs and positions at a longer interval; slips of dropped epochs go to the next kept one");
    command->fallthrough();
    addOutputOption(*command, options->output, "log to write");
    addInputsOptions(*command, options->in, "log to read");
    command->add_option("-i,--interval", options->interval, "seconds between kept epochs (and positions)")
        ->required()
        ->check(CLI::Range(0.01, 604800.0));
    command
        ->add_option("--position-interval", options->positionInterval,
                     "seconds between kept positions, when not the same")
        ->check(CLI::Range(0.01, 604800.0));
    addWriteOptions(*command, options->choice, MethodDefault::Input);
    return [options, &common] { return rewriteEach(*options, common, MethodDefault::Input, "thin"); };
}

}  // namespace nvbtool
