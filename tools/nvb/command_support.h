#ifndef NVB_TOOL_COMMAND_SUPPORT_H
#define NVB_TOOL_COMMAND_SUPPORT_H

#include "nvb/log_io.h"

#include <CLI/CLI.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace nvbtool {

// Every reading command: the log, "-" for standard input, and how to read it.
struct InputOptions {
    std::string path;
    ReadOptions read;
    std::vector<std::string> paths;  // every file a converting command was given
};
void addInputOptions(CLI::App& command, InputOptions& options, const std::string& what);
// A converting command's files, one or more, for convertEach() to set `path` from; the
// help of its -o (added before) tells that it then names a folder.
void addInputsOptions(CLI::App& command, InputOptions& options, const std::string& what);

// Every writing command: where to.
void addOutputOption(CLI::App& command, std::string& path, const std::string& what);

// How a writing command was asked to compress, and whether to keep Doppler, as given;
// resolveWrite() checks the options against each other.
struct WriteChoice {
    std::optional<int> method;
    std::optional<int> level;
    std::optional<int> explicitLevel;
    bool best = false;
    bool dropDoppler = false;
};
// What a command does when no method is named.
enum class MethodDefault : std::uint8_t {
    Zstd,      // method 7
    Required,  // a method or --best must be named
    Input,     // the method of the log being read
};
void addWriteOptions(CLI::App& command, WriteChoice& choice, MethodDefault methodDefault);

// The options for the writer, or, for options that contradict each other, nothing after
// telling why on standard error. With MethodDefault::Input and no method named, `method`
// is left for the caller to set.
std::optional<WriteOptions> resolveWrite(const WriteChoice& choice, MethodDefault methodDefault);

// The compression method that wrote a log of this shape and level, for commands that
// keep it: a byte stream is method 0, a block stream's level is its method.
std::uint8_t methodOfStream(StreamShape shape, std::uint8_t blockLevel);

// What rewriting a log gave: the reader's summary, the writer's, and the method written.
struct Rewritten {
    ReadSummary read;
    WriteSummary written;
    int method = 0;
};

// Writes every record the reader delivers again, each epoch's Doppler as its input
// carried it, through a writer made at the first record, when the input's method is
// known: that method when `keepMethod`, otherwise `options.method`.
Rewritten rewriteRecords(LogReader& reader, Output& output, WriteOptions options, bool keepMethod,
                         const LogReader::ProgressHandler& onProgress = {});

std::string methodName(std::uint8_t method);

// Ends a command that writes a file: with the usage or unreadable-input code nothing is
// written and a file at the target stays as it was; otherwise the output is put in place.
// Returns the command's exit code, which a failure to write makes 2.
int settleOutput(Output& output, int code);

}  // namespace nvbtool

#endif
