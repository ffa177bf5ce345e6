#include "nvb/command_support.h"

#include "nvb/commands.h"

#include "rec35/rec35_codecs.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace nvbtool {

namespace {

void addReadOptions(CLI::App& command, ReadOptions& options) {
    command.add_flag("--descramble", options.descramble,
                     "undo the scrambling of bzip2 blocks (for logs written with scrambling)");
}

}  // namespace

void addInputOptions(CLI::App& command, InputOptions& options, const std::string& what) {
    command.add_option("FILE", options.path, what + ", - for standard input")->required();
    addReadOptions(command, options.read);
}

void addInputsOptions(CLI::App& command, InputOptions& options, const std::string& what) {
    command.add_option("FILE", options.paths, what + ", - for standard input; several are converted into a folder")
        ->required();
    CLI::Option* output = command.get_option("--output");
    output->description(output->get_description() +
                        "; with several files, or a folder named, the folder to write each file's result into, "
                        "under the file's name");
    addReadOptions(command, options.read);
}

void addOutputOption(CLI::App& command, std::string& path, const std::string& what) {
    command.add_option("-o,--output", path, what + ", - for standard output")->required();
}

namespace {

// The smallest files on measurement data: bzip2 over bare records in 512 KiB blocks.
constexpr int kBestMethod = 5;
constexpr int kBestLevel = 2;

struct ExplicitRange {
    int method;
    int lowest;
    int highest;
};
// The levels each compressor takes; the other methods have none to give.
constexpr std::array<ExplicitRange, 3> kExplicitRanges = {{{3, 0, 9}, {6, 0, 11}, {7, 1, 22}}};

}  // namespace

void addWriteOptions(CLI::App& command, WriteChoice& choice, MethodDefault methodDefault) {
    const char* methodDefaultText = methodDefault == MethodDefault::Zstd    ? "; 7 by default"
                                    : methodDefault == MethodDefault::Input ? "; the input's by default"
                                                                            : "";
    command
        .add_option("-m,--method", choice.method,
                    fmt::format("compression method: 0 Huffman byte stream, 1 stored blocks, 2 Huffman blocks, "
                                "3 zlib, 4 bzip2 over frames, 5 bzip2, 6 brotli, 7 zstd{}",
                                methodDefaultText))
        ->check(CLI::Range(0, 7));
    command
        .add_option("-l,--level", choice.level,
                    "block size and effort: 0 32 KiB (default), 1 256 KiB, 2 512 KiB blocks")
        ->check(CLI::Range(0, 2));
    command.add_option("--explicit-level", choice.explicitLevel,
                       "the compressor's own level, in 32 KiB blocks: zlib 0 to 9, brotli 0 to 11, zstd 1 to 22");
    command.add_flag("--best", choice.best, "the smallest file: bzip2 over bare records in 512 KiB blocks");
    command.add_flag("--drop-doppler", choice.dropDoppler,
                     "leave Doppler out of the epochs, for readers to rebuild from carrier phase (smaller, "
                     "not exact)");
}

std::optional<WriteOptions> resolveWrite(const WriteChoice& choice, MethodDefault methodDefault) {
    const auto refuse = [](const std::string& text) {
        reportError("usage", text);
        return std::optional<WriteOptions>();
    };
    WriteOptions options;
    options.keepDoppler = !choice.dropDoppler;
    if (choice.best) {
        if (choice.method || choice.level || choice.explicitLevel) {
            return refuse("--best picks the method and level itself: leave out --method, --level and --explicit-level");
        }
        options.method = kBestMethod;
        options.level = kBestLevel;
        return options;
    }
    if (!choice.method && methodDefault == MethodDefault::Required)
        return refuse("name a method with --method, or ask for --best");
    options.method = choice.method.value_or(7);
    options.level = choice.level.value_or(0);
    if (!choice.explicitLevel) return options;
    if (choice.level) return refuse("--explicit-level sets the block size itself: leave out --level");
    if (!choice.method && methodDefault == MethodDefault::Input) {
        return refuse("--explicit-level needs --method 3, 6 or 7 named");
    }
    const auto range = std::find_if(kExplicitRanges.begin(), kExplicitRanges.end(),
                                    [&](const ExplicitRange& r) { return r.method == options.method; });
    if (range == kExplicitRanges.end()) {
        return refuse(fmt::format("--explicit-level applies to methods 3 (zlib), 6 (brotli) and 7 (zstd), not {}",
                                  options.method));
    }
    if (*choice.explicitLevel < range->lowest || *choice.explicitLevel > range->highest) {
        return refuse(fmt::format("--explicit-level {} is outside {} to {} for {}", *choice.explicitLevel,
                                  range->lowest, range->highest,
                                  methodName(static_cast<std::uint8_t>(options.method))));
    }
    options.explicitLevel = choice.explicitLevel;
    return options;
}

std::uint8_t methodOfStream(StreamShape shape, std::uint8_t blockLevel) {
    if (shape == StreamShape::Blocks && blockLevel >= 1 && blockLevel <= 7) return blockLevel;
    if (shape == StreamShape::Blocks) return 7;
    return 0;
}

namespace {

// Epochs and positions of record 35 that thinning may drop are written again from their
// decoded form: a kept record's payload leans on the dropped ones before it. Every other
// record 35 goes out as it came.
void* thinnedRec35Native(const DeliveredRecord& record, const WriteOptions& options, std::uint32_t& subtype) {
    const rec35_content_t* content = record.type == 35 ? record.state->records.rec35 : nullptr;
    if (content == nullptr || content->subsubtype == 0) return nullptr;
    const bool thinned = (content->subtype == 19 && options.measurementInterval > 0) ||
                         (content->subtype == 2 && options.positionInterval > 0);
    const auto slot = nvb::rec35SlotOf(content->subtype);
    if (!thinned || !slot) return nullptr;
    subtype = static_cast<std::uint32_t>(content->subtype);
    return content->records[*slot];
}

}  // namespace

Rewritten rewriteRecords(LogReader& reader, Output& output, WriteOptions options, bool keepMethod,
                         const LogReader::ProgressHandler& onProgress) {
    std::optional<LogWriter> writer;
    const auto startWriter = [&] {
        if (keepMethod) options.method = methodOfStream(reader.shape(), reader.state().blockLevel);
        writer.emplace(output, options);
    };
    Rewritten result;
    result.read = reader.run(
        [&](DeliveredRecord& record) {
            if (!writer) startWriter();
            // Whether Doppler went on the wire is read before the DAT form is taken.
            const bool dopplerOnWire = record.dopplerOnWire();
            std::uint32_t subtype = 0;
            if (void* native = thinnedRec35Native(record, options, subtype)) {
                writer->putRec35(subtype, native);
                return;
            }
            writer->put(record.dat(), dopplerOnWire);
        },
        onProgress);
    if (!writer) startWriter();
    writer->finish();
    result.written = writer->summary();
    result.method = options.method;
    return result;
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
