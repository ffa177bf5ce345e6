#ifndef NVB_TOOL_LOG_IO_H
#define NVB_TOOL_LOG_IO_H

#include <nvbdll/nvbdll.h>

#include "host/host_encoder.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace nvbtool {

// Fields of the library's packed structures are read by value: nothing may bind to them.
template <class T>
T fieldValue(T field) {
    return field;
}

// Messages on standard error, each starting with the program's name and the file.
void reportError(const std::string& file, const std::string& text);
void reportErrorAt(const std::string& file, std::uint64_t offset, const std::string& text);
// A line about what a command did; --quiet silences it.
void reportNote(bool quiet, const std::string& text);

// An input named on the command line: a file, or "-" for standard input.
class Input {
public:
    // Reports the failure and returns null when the input can't be opened.
    static std::unique_ptr<Input> open(const std::string& name);
    ~Input();
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;

    // Fills `buffer` as far as the input allows; 0 at the end (or on a read error, which
    // failed() then tells).
    std::size_t read(std::uint8_t* buffer, std::size_t capacity);
    bool failed() const { return failed_; }
    // The name for messages: the path, or "standard input".
    const std::string& name() const { return name_; }
    // The size of a regular file, 0 for a pipe.
    std::uint64_t size() const { return size_; }

private:
    Input(std::FILE* file, bool owned, std::string name, std::uint64_t size);
    std::FILE* file_;
    bool owned_;
    bool failed_ = false;
    std::string name_;
    std::uint64_t size_;
};

// An output named on the command line: a file, or "-" for standard output. A file is
// written beside its target under a temporary name and put in its place only by
// commit(), so that a failed command leaves the target as it was and nothing half
// written. A device or a pipe named as the target is written directly.
class Output {
public:
    // Reports the failure and returns null when the output can't be opened; binary
    // output is not sent to a terminal, nor over the input it is made from.
    static std::unique_ptr<Output> open(const std::string& name, const std::string& inputName = "",
                                        bool text = false);
    // An output that was not committed leaves nothing behind.
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    void write(const std::uint8_t* bytes, std::size_t count);
    // Flushes and puts the file in place of its target; reports and returns false when
    // anything failed to be written, and then removes what was written.
    bool commit();
    // Drops what was written; a file at the target stays as it was.
    void discard();
    std::uint64_t bytes() const { return bytes_; }
    bool failed() const { return failed_; }
    const std::string& name() const { return name_; }

private:
    Output(std::FILE* file, bool owned, std::string name, std::string target, std::string temporary);
    void fail(const std::string& what);
    std::FILE* file_;
    bool owned_;
    bool failed_ = false;
    std::uint64_t bytes_ = 0;
    std::string name_;       // for messages, as the user named it
    std::string target_;     // the file that commit() replaces
    std::string temporary_;  // the file being written, until commit()
};

// Standard output flushed, and a failure to write it reported; false when it failed.
bool flushStandardOutput();

enum class StreamShape : std::uint8_t {
    Empty,         // no byte at all
    TooShort,      // fewer bytes than stream detection needs
    PlainBytes,    // frames one after another (NVA)
    HuffmanBytes,  // frames through the static Huffman code (NVB)
    Blocks,        // header block and compressed blocks (NVB or NVE)
};

std::string shapeText(StreamShape shape, bool nveMagic);

struct ReadOptions {
    bool descramble = false;  // undo the scrambling of bzip2 blocks
    // Record 35 epochs and positions as they came, not as the records 27 and 29 they
    // convert into; what rewrites a log asks for, so that it keeps them.
    bool nativeRec35 = false;
    // Measurement epochs go through this output control (observation text, BINEX,
    // decimation) instead of the exported mode 0; epochs it keeps as text deliver nothing.
    rinex_control_t* epochOutput = nullptr;
    // Called after every record that went through `epochOutput`, so that its writer can
    // be drained before the next epoch.
    std::function<void()> afterEpochOutput;
};

// A status met while reading, where it was met.
struct StatusEvent {
    std::uint8_t status = 0;
    std::uint64_t offset = 0;                     // input byte at which the reader reported it
    std::int32_t recordType = -1;                 // the record's type for a status of the decoding step
    std::optional<std::uint32_t> unpackedOffset;  // the record's offset among the unpacked records of a block stream
};

// A record that the reader delivered; the structure of its type in the state holds it.
class DeliveredRecord {
public:
    std::uint16_t type = 0;
    std::uint32_t length = 0;  // DAT length reported by the decoding step
    std::uint64_t offset = 0;  // input byte at which the record came out
    std::optional<std::uint32_t> unpackedOffset;
    nvb_expand_t* state = nullptr;

    // False for a record 27 whose compact form carried no Doppler, so that what the reader
    // gives comes from carrier phase; true for every other record.
    bool dopplerOnWire() const;

    // The DAT form, as long as its header says. Retrieval packs the system bytes of a
    // record 27 in place, so whoever reads the structure does so before calling this.
    std::span<std::uint8_t> dat();

private:
    friend class LogReader;
    std::vector<std::uint8_t>* buffer_ = nullptr;
    std::optional<std::span<std::uint8_t>> dat_;
};

struct ReadSummary {
    StreamShape shape = StreamShape::Empty;
    bool nveMagic = false;
    std::uint64_t bytesRead = 0;
    std::uint64_t recordsDelivered = 0;
    std::uint64_t recordsUndecoded = 0;  // found but of a type this reader does not decode, or empty
    std::uint64_t schemasForConversion = 0;  // record 35 schemas the library read for a subtype it converts
    // Delta records behind damage in a stream whose records carry no check of their own,
    // before the next reference of their kind: they lean on what was lost, can't be
    // verified, and are left out.
    std::uint64_t recordsUnverified = 0;
    std::uint64_t endSymbols = 0;
    std::vector<StatusEvent> events;  // statuses that tell of damage
    bool refused = false;             // the header asks for a newer reader
    bool readError = false;
    std::optional<std::uint64_t> truncatedAt;  // first byte of an unfinished block or record at the end
    std::uint64_t truncatedBytes = 0;
    bool lostFooting = false;  // the unread bytes at the end lie behind damage, not in a cut block

    bool damaged() const { return !events.empty() || truncatedAt.has_value(); }
    bool unreadable() const;
};

// Reads a log with an expand state at its defaults (Doppler rebuilt where the wire has
// none, system numbers mapped), byte by byte, so that every status and record is placed
// at the input byte where it came out. Where the library's search after damage can't
// find the next block (it has no row that matches a zstd block), the reader resumes at
// the next block that opens with the zstd magic and whose length fits, with a fresh
// state fed the stream's header block and the stream from that block on.
class LogReader {
public:
    using RecordHandler = std::function<void(DeliveredRecord&)>;
    using ProgressHandler = std::function<void(std::uint64_t bytesRead)>;

    LogReader(Input& input, const ReadOptions& options);
    ~LogReader();
    LogReader(const LogReader&) = delete;
    LogReader& operator=(const LogReader&) = delete;

    ReadSummary run(const RecordHandler& onRecord, const ProgressHandler& onProgress = {});
    // The state during and after run(): header fields, stream level.
    const nvb_expand_t& state() const { return *state_; }
    // Known from the first bytes on.
    StreamShape shape() const { return summary_.shape; }

private:
    void input(std::uint8_t byte, bool plain);
    // Bytes of a block that can only be gathered go to the library in one piece; returns
    // how many, 0 when the next byte has to go on its own.
    std::size_t inputQuiet(const std::uint8_t* bytes, std::size_t count);
    void step(std::uint8_t byte, bool plain);
    void feed(std::uint8_t byte, bool plain);
    void handle(std::int32_t result, std::uint8_t status);
    bool leftOutAsUnverified();
    void damageMet(int family);
    void watchBlocks();
    void resumeAt(std::size_t position);
    void finishSummary(bool plain);

    Input& input_;
    rinex_control_t* epochOutput_;
    std::function<void()> afterEpochOutput_;
    ReadOptions options_;
    nvb_expand_t* state_;
    ReadSummary summary_;
    const RecordHandler* onRecord_ = nullptr;
    std::vector<std::uint8_t> datBuffer_;
    std::uint64_t fed_ = 0;   // input bytes read
    std::uint64_t next_ = 0;  // input offset of the next byte for the library
    std::uint64_t at_ = 0;    // input offset of the byte the library has now
    // The block the library is reading, from its first byte; after damage, everything
    // since the first byte of the block that failed.
    std::vector<std::uint8_t> window_;
    std::uint64_t windowStart_ = 0;
    std::size_t scanFrom_ = 0;
    bool lost_ = false;
    bool stuck_ = false;
    bool resumed_ = false;
    std::vector<std::uint8_t> headerBlock_;
    std::deque<std::uint8_t> replay_;  // bytes to feed again from a block found after damage
    std::array<bool, 5> awaitingReference_{};  // by compact kind, after damage
};

// The exit code that a read earns: 2 when nothing could be read, 1 when damage was met
// and reading went on, 0 when clean.
int exitCodeOf(const ReadSummary& summary);
// Tells on standard error what went wrong while reading, a few lines at most.
void reportReadProblems(const ReadSummary& summary, const std::string& file);

struct WriteOptions {
    int method = 7;                    // compressionMethod, 0 to 7
    int level = 0;                     // compressionLevel, 0 to 2
    std::optional<int> explicitLevel;  // the compressor's own level (zlib, brotli, zstd), in 32 KiB blocks
    bool keepDoppler = true;           // epochs that carry Doppler keep it on the wire
    float measurementInterval = 0;     // s; above 0 thins epochs
    float positionInterval = 0;        // s; above 0 thins positions
};

struct WriteSummary {
    std::uint64_t recordsIn = 0;
    std::uint64_t recordsWritten = 0;
    std::uint64_t epochsWritten = 0;  // records 27 and 17
    std::uint64_t longEpochs = 0;     // records 27 that needed the long delta form
    std::uint64_t thinned = 0;
    std::uint64_t writeOnly = 0;  // written, but of a type no reader gives back (20)
    std::map<int, std::uint64_t> refusedByType;
    std::vector<std::uint8_t> failures;  // statuses of the encoder
};

// Writes DAT records through an encode state into an output. The NVE form is used,
// which carries range rollovers and wide range differences. An epoch whose measurements
// carry Doppler keeps it (the long delta form) unless the options drop it; otherwise an
// epoch takes the long form only when the short one can't carry it.
class LogWriter {
public:
    LogWriter(Output& output, const WriteOptions& options);
    LogWriter(const LogWriter&) = delete;
    LogWriter& operator=(const LogWriter&) = delete;

    // One DAT record. A record 27 gets its true satellite count first (dat_form.h), so
    // its bytes may change. `dopplerOnWire` false writes an epoch's Doppler as its source
    // did: left out, for readers to rebuild.
    void put(std::span<std::uint8_t> dat, bool dopplerOnWire = true);
    // One record 35 of an Avro subtype encoded from its native record, which the writer
    // borrows for the call, under the subtype's schema (written first where the log lacks
    // it); subtype 1, the marker, with no record starts every chain again.
    void putRec35(std::uint32_t subtype, void* native);
    void finish();
    const WriteSummary& summary() const { return summary_; }

private:
    WriteOptions options_;
    HostEncoder encoder_;
    WriteSummary summary_;
    bool finished_ = false;
};

// Tells on standard error what the writer left out or failed on; returns false when
// the output is not what was asked for.
bool reportWriteProblems(const WriteSummary& summary, const std::string& file);

// DAT records back to back, each as long as its header says.
class DatReader {
public:
    explicit DatReader(Input& input);
    // The next record and its offset; false at the end, or at a record that can't be
    // read, which problem() then tells. The record stays in the reader's buffer, valid
    // until the next call.
    bool next(std::span<std::uint8_t>& record, std::uint64_t& offset);
    const std::optional<std::string>& problem() const { return problem_; }
    std::uint64_t problemOffset() const { return problemOffset_; }
    std::uint64_t bytesRead() const { return consumed_; }

private:
    bool fill(std::size_t wanted);
    Input& input_;
    std::vector<std::uint8_t> buffer_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    std::uint64_t consumed_ = 0;
    bool atEnd_ = false;
    std::optional<std::string> problem_;
    std::uint64_t problemOffset_ = 0;
};

}  // namespace nvbtool

#endif
