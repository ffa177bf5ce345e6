// dump: one line per record with its decoded fields, as text or as JSON lines.
#include "nvb/command_support.h"
#include "nvb/commands.h"
#include "nvb/log_io.h"
#include "nvb/record_json.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

namespace nvbtool {

namespace {

struct DumpOptions {
    InputOptions in;
    bool json = false;
    std::vector<int> types;
};

int runDump(const DumpOptions& options) {
    const auto input = Input::open(options.in.path);
    if (!input) return kExitUsage;
    LogReader reader(*input, options.in.read);
    const ReadSummary summary = reader.run([&](DeliveredRecord& record) {
        if (!options.types.empty() &&
            std::find(options.types.begin(), options.types.end(), record.type) == options.types.end()) {
            return;
        }
        const auto fields = recordJson(record);
        const std::string line =
            options.json ? fields.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) : recordText(fields);
        std::fwrite(line.data(), 1, line.size(), stdout);
        std::fputc('\n', stdout);
    });
    // Problems go to standard error after the lines, so a pipe still gets every record.
    const bool written = flushStandardOutput();
    reportReadProblems(summary, input->name());
    return written ? exitCodeOf(summary) : kExitUsage;
}

}  // namespace

CommandAction addDumpCommand(CLI::App& app, const CommonOptions& /*common*/) {
    auto options = std::make_shared<DumpOptions>();
    CLI::App* command = app.add_subcommand("dump", "print one line per record with its decoded fields");
    command->fallthrough();
    addInputOptions(*command, options->in, "log to read");
    command->add_flag("--json", options->json, "JSON lines, one object per record");
    command->add_option("-t,--type", options->types, "only records of these types (repeat, or separate by commas)")
        ->delimiter(',')
        ->check(CLI::Range(0, 65535));
    return [options] { return runDump(*options); };
}

}  // namespace nvbtool
