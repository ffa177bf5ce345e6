#ifndef NVB_TOOL_SEVERAL_INPUTS_H
#define NVB_TOOL_SEVERAL_INPUTS_H

#include "nvb/command_support.h"
#include "nvb/commands.h"

#include <functional>
#include <string>

namespace nvbtool {

// Runs a converting command over every file it was given. One file and an output that
// is not a folder: `convert` runs here, as for any command. Otherwise `output` is a
// folder (made when missing) and each file is converted by a process of its own, at most
// common.jobs at a time, into the folder under its own name with `suffix` in place of
// its extension (an empty suffix keeps the name whole). Returns the worst exit code.
int convertEach(InputOptions& in, std::string& output, const std::string& suffix, const CommonOptions& common,
                const std::function<int()>& convert);

}  // namespace nvbtool

#endif
