#ifndef NVB_TOOL_COMMANDS_H
#define NVB_TOOL_COMMANDS_H

#include <CLI/CLI.hpp>

#include <functional>

namespace nvbtool {

// Exit codes of every command.
inline constexpr int kExitClean = 0;     // nothing wrong met
inline constexpr int kExitRecovered = 1; // damage met and recovered from
inline constexpr int kExitUsage = 2;     // usage error, or input that can't be read

// Options shared by every command.
struct CommonOptions {
    bool quiet = false;
    int jobs = 1;  // files that a converting command converts at once
};

// Each command registers its subcommand and stores the action that main() runs when it
// was chosen; the action returns the exit code.
using CommandAction = std::function<int()>;

CommandAction addSimulateCommand(CLI::App& app, const CommonOptions& common);
CommandAction addInfoCommand(CLI::App& app, const CommonOptions& common);
CommandAction addDumpCommand(CLI::App& app, const CommonOptions& common);
CommandAction addToDatCommand(CLI::App& app, const CommonOptions& common);
CommandAction addFromDatCommand(CLI::App& app, const CommonOptions& common);
CommandAction addRecompressCommand(CLI::App& app, const CommonOptions& common);
CommandAction addThinCommand(CLI::App& app, const CommonOptions& common);
CommandAction addRinexCommand(CLI::App& app, const CommonOptions& common);
CommandAction addBinexCommand(CLI::App& app, const CommonOptions& common);

}  // namespace nvbtool

#endif
