// nvb: reads, writes, converts and simulates receiver logs with the nvbdll library.
#include "nvb/commands.h"

#include <nvbdll/nvbdll.h>

#include <cstdio>
#include <utility>
#include <vector>

int main(int argc, char** argv) {
    CLI::App app{"nvb: read, write, convert and simulate GNSS receiver logs", "nvb"};
    app.require_subcommand(1);
    nvbtool::CommonOptions common;
    app.add_flag("-q,--quiet", common.quiet, "print nothing but results and errors");
    app.add_option("-j,--jobs", common.jobs, "files converted at once, each by a process of its own")
        ->check(CLI::Range(1, 1024))
        ->capture_default_str();
    app.footer("todat, fromdat, recompress, thin, rinex and binex take several files: -o then names a folder, "
               "and each file's result is written there under the file's name (.dat, .nvb, the same name, "
               ".rnx or .crx, .bnx). The exit code is the worst of the files'.");

    using Registration = nvbtool::CommandAction (*)(CLI::App&, const nvbtool::CommonOptions&);
    const Registration registrations[] = {
        nvbtool::addSimulateCommand, nvbtool::addInfoCommand,       nvbtool::addDumpCommand,
        nvbtool::addToDatCommand,    nvbtool::addFromDatCommand,    nvbtool::addRecompressCommand,
        nvbtool::addThinCommand,     nvbtool::addRinexCommand,      nvbtool::addBinexCommand,
    };
    std::vector<std::pair<CLI::App*, nvbtool::CommandAction>> commands;
    for (const Registration registration : registrations) {
        const std::size_t before = app.get_subcommands({}).size();
        nvbtool::CommandAction action = registration(app, common);
        commands.emplace_back(app.get_subcommands({})[before], std::move(action));
    }

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int code = app.exit(error);
        return code == 0 ? nvbtool::kExitClean : nvbtool::kExitUsage;
    }
    nvbdll_initNVBLib();
    int code = nvbtool::kExitUsage;
    for (auto& [command, action] : commands) {
        if (command->parsed()) code = action();
    }
    nvbdll_freeNVBLib();
    return code;
}
