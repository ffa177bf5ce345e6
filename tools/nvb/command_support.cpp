#include "nvb/command_support.h"

#include "nvb/commands.h"

#include <fmt/format.h>

#include <array>

namespace nvbtool {

void addInputOptions(CLI::App& command, InputOptions& options, const std::string& what) {
    command.add_option("FILE", options.path, what + ", - for standard input")->required();
    command.add_flag("--descramble", options.read.descramble,
                     "undo the scrambling of bzip2 blocks (for logs written with scrambling)");
}

void addOutputOption(CLI::App& command, std::string& path, const std::string& what) {
    command.add_option("-o,--output", path, what + ", - for standard output")->required();
}

void addMethodOptions(CLI::App& command, WriteOptions& options, bool methodHasDefault) {
    auto* method = command
                       .add_option("-m,--method", options.method,
                                   "compression method: 0 Huffman byte stream, 1 stored blocks, 2 Huffman "
                                   "blocks, 3 zlib, 4 bzip2 over frames, 5 bzip2, 6 brotli, 7 zstd")
                       ->check(CLI::Range(0, 7));
    if (methodHasDefault) {
        method->capture_default_str();
    } else {
        method->required();
    }
    command.add_option("-l,--level", options.level, "block size and effort: 0 32 KiB, 1 256 KiB, 2 512 KiB blocks")
        ->check(CLI::Range(0, 2))
        ->capture_default_str();
}

std::uint8_t methodOfStream(StreamShape shape, std::uint8_t blockLevel) {
    if (shape == StreamShape::Blocks && blockLevel >= 1 && blockLevel <= 7) return blockLevel;
    if (shape == StreamShape::Blocks) return 7;
    return 0;
}

std::string methodName(std::uint8_t method) {
    static constexpr std::array<const char*, 8> kMethods = {
        "Huffman byte stream", "stored blocks", "Huffman blocks", "zlib", "bzip2 over frames", "bzip2", "brotli",
        "zstd"};
    return method < kMethods.size() ? kMethods[method] : fmt::format("method {}", method);
}

int settleOutput(Output& output, int code) {
    if (code == kExitUsage) {
        output.discard();
        reportError(output.name(), "not written; a file there is left as it was");
        return code;
    }
    return output.commit() ? code : kExitUsage;
}

}  // namespace nvbtool
