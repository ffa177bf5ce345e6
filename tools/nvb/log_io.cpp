#include "nvb/log_io.h"

#include "host/dat_form.h"
#include "nvb/status_report.h"

#include "common/byte_sum.h"
#include "pipeline/expansion.h"
#include "pipeline/serialisation.h"
#include "rec35/rec35_codecs.h"
#include "records/dat_parser.h"
#include "stream/block_codecs.h"
#include "stream/block_reader.h"
#include "stream/framing.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace nvbtool {

void reportError(const std::string& file, const std::string& text) {
    fmt::print(stderr, "nvb: {}: {}\n", file, text);
}

void reportErrorAt(const std::string& file, std::uint64_t offset, const std::string& text) {
    fmt::print(stderr, "nvb: {}: byte {}: {}\n", file, offset, text);
}

void reportNote(bool quiet, const std::string& text) {
    if (!quiet) fmt::print(stderr, "nvb: {}\n", text);
}

namespace {

constexpr std::size_t kWriteBuffer = 1 << 18;

}  // namespace

Input::Input(std::FILE* file, bool owned, std::string name, std::uint64_t size)
    : file_(file), owned_(owned), name_(std::move(name)), size_(size) {}

Input::~Input() {
    if (owned_) std::fclose(file_);
}

std::unique_ptr<Input> Input::open(const std::string& name) {
    if (name == "-") return std::unique_ptr<Input>(new Input(stdin, false, "standard input", 0));
    struct stat info {};
    if (stat(name.c_str(), &info) != 0) {
        reportError(name, fmt::format("can't open: {}", std::strerror(errno)));
        return nullptr;
    }
    if (S_ISDIR(info.st_mode)) {
        reportError(name, "can't open: is a directory");
        return nullptr;
    }
    std::FILE* file = std::fopen(name.c_str(), "rb");
    if (file == nullptr) {
        reportError(name, fmt::format("can't open: {}", std::strerror(errno)));
        return nullptr;
    }
    const std::uint64_t size = S_ISREG(info.st_mode) ? static_cast<std::uint64_t>(info.st_size) : 0;
    return std::unique_ptr<Input>(new Input(file, true, name, size));
}

std::size_t Input::read(std::uint8_t* buffer, std::size_t capacity) {
    const std::size_t count = std::fread(buffer, 1, capacity, file_);
    if (count < capacity && std::ferror(file_) != 0 && !failed_) {
        failed_ = true;
        reportError(name_, fmt::format("read error: {}", std::strerror(errno)));
    }
    return count;
}

Output::Output(std::FILE* file, bool owned, std::string name, std::string target, std::string temporary)
    : file_(file), owned_(owned), name_(std::move(name)), target_(std::move(target)),
      temporary_(std::move(temporary)) {
    // Records go out a few hundred bytes at a time; the file sees them in large writes.
    if (owned_) std::setvbuf(file_, nullptr, _IOFBF, kWriteBuffer);
}

Output::~Output() {
    discard();
}

namespace {

bool sameFile(const std::string& first, const std::string& second) {
    struct stat a {};
    struct stat b {};
    if (first == "-" || second == "-" || stat(first.c_str(), &a) != 0 || stat(second.c_str(), &b) != 0) return false;
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// The mode a new file gets from the process's umask.
mode_t newFileMode() {
    const mode_t mask = umask(0);
    umask(mask);
    return static_cast<mode_t>(0666 & ~mask);
}

}  // namespace

std::unique_ptr<Output> Output::open(const std::string& name, const std::string& inputName, bool text) {
    if (!inputName.empty() && sameFile(name, inputName)) {
        reportError(name, "is the input too; write to another file");
        return nullptr;
    }
    if (name == "-") {
        if (!text && isatty(STDOUT_FILENO) == 1) {
            reportError("standard output", "is a terminal; name a file with -o, or send it through a pipe");
            return nullptr;
        }
        return std::unique_ptr<Output>(new Output(stdout, false, "standard output", "", ""));
    }
    // The temporary file stands beside the file a link points to, so that the link stays.
    std::string target = name;
    struct stat existing {};
    const bool exists = stat(name.c_str(), &existing) == 0;
    if (exists && !S_ISREG(existing.st_mode)) {
        std::FILE* file = std::fopen(name.c_str(), "wb");
        if (file == nullptr) {
            reportError(name, fmt::format("can't open: {}", std::strerror(errno)));
            return nullptr;
        }
        return std::unique_ptr<Output>(new Output(file, true, name, "", ""));
    }
    if (exists) {
        char* resolved = realpath(name.c_str(), nullptr);
        if (resolved != nullptr) {
            target = resolved;
            std::free(resolved);
        }
    }
    const std::size_t slash = target.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : target.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? target : target.substr(slash + 1);
    std::string temporary = (slash == std::string::npos ? "" : directory) + "." + base + ".XXXXXX";
    const int descriptor = mkstemp(temporary.data());
    if (descriptor < 0) {
        reportError(name, fmt::format("can't create: {}", std::strerror(errno)));
        return nullptr;
    }
    fchmod(descriptor, exists ? static_cast<mode_t>(existing.st_mode & 07777) : newFileMode());
    std::FILE* file = fdopen(descriptor, "wb");
    if (file == nullptr) {
        reportError(name, fmt::format("can't create: {}", std::strerror(errno)));
        close(descriptor);
        unlink(temporary.c_str());
        return nullptr;
    }
    return std::unique_ptr<Output>(new Output(file, true, name, target, temporary));
}

void Output::fail(const std::string& what) {
    if (!failed_) reportError(name_, fmt::format("{}: {}", what, std::strerror(errno)));
    failed_ = true;
}

void Output::write(const std::uint8_t* bytes, std::size_t count) {
    if (failed_ || count == 0) return;
    if (std::fwrite(bytes, 1, count, file_) != count) {
        fail("write error");
        return;
    }
    bytes_ += count;
}

bool Output::commit() {
    if (file_ == nullptr) return !failed_;
    if (std::fflush(file_) != 0) fail("write error");
    if (!temporary_.empty() && !failed_ && fsync(fileno(file_)) != 0) fail("write error");
    if (owned_) {
        const bool closed = std::fclose(file_) == 0;
        file_ = nullptr;
        if (!closed) fail("write error");
    }
    file_ = nullptr;
    if (!failed_ && !temporary_.empty()) {
        if (std::rename(temporary_.c_str(), target_.c_str()) != 0) {
            fail("can't put the new file in place");
        } else {
            temporary_.clear();
        }
    }
    discard();
    return !failed_;
}

void Output::discard() {
    if (file_ != nullptr && owned_) std::fclose(file_);
    file_ = nullptr;
    if (!temporary_.empty()) unlink(temporary_.c_str());
    temporary_.clear();
}

bool flushStandardOutput() {
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return true;
    reportError("standard output", fmt::format("write error: {}", std::strerror(errno)));
    return false;
}

std::string shapeText(StreamShape shape, bool nveMagic) {
    switch (shape) {
        case StreamShape::Empty:
            return "empty";
        case StreamShape::TooShort:
            return "too short to be a log";
        case StreamShape::PlainBytes:
            return "byte stream of plain frames (NVA)";
        case StreamShape::HuffmanBytes:
            return "byte stream, Huffman coded (NVB)";
        case StreamShape::Blocks:
            return nveMagic ? "block stream (NVE)" : "block stream (NVB)";
    }
    return "unknown";
}

namespace {

constexpr std::size_t kReadChunk = 1 << 16;
// Room for the longest DAT form retrieval can write (its length is 16 bits).
constexpr std::size_t kDatCapacity = 65536 + 64;
constexpr std::size_t kShownEvents = 8;
constexpr std::uint8_t kDopplerPresent = 0x04;  // measFlags1

// Resuming after damage: a zstd block is type 8, a 24-bit length, then the zstd frame.
constexpr std::uint8_t kZstdBlockType = 8;
constexpr std::array<std::uint8_t, 4> kZstdMagic = {0x28, 0xB5, 0x2F, 0xFD};
constexpr std::size_t kBlockHeader = nvb::kBlockHeaderLength;
constexpr std::size_t kLongestBlock = nvb::kBlockCapacity;
constexpr std::size_t kLongestHeaderBlock = 64;
// Scanned bytes that the window keeps before it drops them.
constexpr std::size_t kScannedKept = 1 << 16;

struct Detected {
    StreamShape shape;
    bool nve;
};

// The library tells block streams from byte streams by the first ten bytes; whether a
// byte stream is Huffman coded it leaves to the host, so a stream that opens with a
// whole plain frame is taken as plain.
Detected detectShape(std::span<const std::uint8_t> head) {
    if (head.empty()) return {StreamShape::Empty, false};
    if (head.size() >= 10 && head[0] == 0 && head[1] == 0 && head[2] == 0) {
        const auto magic = head.subspan(4, 6);
        if (std::equal(magic.begin(), magic.end(), nvb::kFirstHeaderMagic.begin())) return {StreamShape::Blocks, false};
        if (std::equal(magic.begin(), magic.end(), nvb::kSecondHeaderMagic.begin())) return {StreamShape::Blocks, true};
    }
    if (head.size() >= 6 && head[0] == nvb::kStartByte) {
        const std::uint8_t type = head[2];
        const std::uint32_t length = nvb::addLengthExtension(type, head[1], head[3]);
        if (length >= 6 && length <= nvb::kMaxFrameLength && length <= head.size()) {
            if (nvb::isCompactType(type)) {
                // A compact frame's trailer checks the frame it expands to; the next
                // frame's start byte has to do.
                if (length == head.size() || head[length] == nvb::kStartByte) return {StreamShape::PlainBytes, false};
            } else if (nvb::byteSum(head.data(), length - 3) == nvb::readU16BigEndian(head.data() + length - 3)) {
                return {StreamShape::PlainBytes, false};
            }
        }
    }
    return {StreamShape::HuffmanBytes, false};
}

std::size_t blockLengthAt(const std::uint8_t* block) {
    return (static_cast<std::size_t>(block[1]) << 16) | (static_cast<std::size_t>(block[2]) << 8) | block[3];
}

// The header block a stream opens with, to be fed again to a fresh state.
std::vector<std::uint8_t> headerBlockOf(std::span<const std::uint8_t> head) {
    if (head.size() < kBlockHeader || head[0] != 0) return {};
    const std::size_t length = kBlockHeader + blockLengthAt(head.data());
    if (length > kLongestHeaderBlock || length > head.size()) return {};
    return {head.begin(), head.begin() + static_cast<std::ptrdiff_t>(length)};
}

bool isZstdBlockStart(const std::uint8_t* bytes) {
    const std::size_t length = blockLengthAt(bytes);
    return bytes[0] == kZstdBlockType && length >= kZstdMagic.size() && length + kBlockHeader <= kLongestBlock &&
           std::equal(kZstdMagic.begin(), kZstdMagic.end(), bytes + kBlockHeader);
}

// A block that the library keeps at the front of its input, meeting it again with every
// byte: an unknown type, or a scrambled block while descrambling is off.
bool blockStays(const nvb_expand_t& state) {
    if (state.searching != 0 || state.inputFill < kBlockHeader + blockLengthAt(state.blockInput)) return false;
    const std::uint8_t type = state.blockInput[0];
    return type > kZstdBlockType || (type == 6 && (state.descramble & 1u) == 0);
}

bool isBareLevel(std::uint8_t level) {
    return level == 3 || level == 5 || level == 6 || level == 7;
}

// The compact kinds whose deltas lean on a history (epochs, positions, solutions, the two
// generations of records 17), by the type that carries them, and whether that type is the
// kind's reference form, which stands alone.
struct CarriedForm {
    std::uint16_t type;
    std::size_t kind;
    bool reference;
};
constexpr CarriedForm kCarriedForms[] = {
    {36, 0, false}, {37, 0, false}, {38, 0, true},  {39, 0, false}, {54, 1, false}, {55, 1, true},
    {56, 2, false}, {57, 2, true},  {66, 3, false}, {67, 3, true},  {74, 3, false}, {75, 3, true},
    {68, 4, false}, {69, 4, true},  {76, 4, false}, {77, 4, true},
};

const CarriedForm* carriedForm(std::uint16_t type) {
    const auto* found = std::find_if(std::begin(kCarriedForms), std::end(kCarriedForms),
                                     [type](const CarriedForm& form) { return form.type == type; });
    return found == std::end(kCarriedForms) ? nullptr : found;
}

nvb_expand_t* newReaderState(const ReadOptions& options) {
    nvb_expand_t* state = nvbdll_GetNVBStateHandle();
    if (state == nullptr) throw std::bad_alloc();
    state->descramble = options.descramble ? 1 : 0;
    // Schema records are delivered, so that a log written from what is read keeps every
    // one; epochs and positions of record 35 come converted unless asked for as they are.
    state->rec35Assembly.schema_swallow = 0;
    if (options.nativeRec35) {
        state->convertRec35Sub2 = 0;
        state->convertRec35Sub9 = 0;
        state->convertRec35Sub19 = 0;
    }
    return state;
}

}  // namespace

std::span<std::uint8_t> DeliveredRecord::dat() {
    if (!dat_) {
        std::vector<std::uint8_t>& buffer = *buffer_;
        // A record 35 may pass 64 KB; the reported length is the room retrieval needs.
        if (buffer.size() < length + 64u) buffer.resize(length + 64u);
        std::memset(buffer.data(), 0, std::min<std::size_t>(buffer.size(), length + 4u));
        // Whole: retrieval gives a record 34 from the generic area and cuts a 98 or 99
        // above 255 bytes to the low byte of its length. A record 35 tells its own length.
        std::array<std::uint8_t, NVB_MAX_SV> systemBytes{};
        std::size_t satellites = 0;
        if (type == 27 && state->records.rec27 != nullptr) {
            const Rec27& epoch = *state->records.rec27;
            satellites = std::min<std::size_t>(epoch.nSv, systemBytes.size());
            for (std::size_t i = 0; i < satellites; ++i) {
                systemBytes[i] = static_cast<std::uint8_t>(epoch.sv[i].antennaNumber << 6 | (epoch.sv[i].rt_sattype & 0x3F));
            }
        }
        if (type == 35) {
            nvbdll_retrieveDATRecord(state, static_cast<std::int16_t>(type), buffer.data());
        } else {
            nvb::wholeDatForm(*state, static_cast<std::int16_t>(type), static_cast<std::uint16_t>(length),
                              buffer.data(), buffer.size());
        }
        const std::size_t size = std::min(datRecordLength(buffer), buffer.size());
        dat_ = std::span<std::uint8_t>(buffer.data(), size);
        restoreSystemBytes(*dat_, std::span<const std::uint8_t>(systemBytes.data(), satellites));
    }
    return *dat_;
}

bool DeliveredRecord::dopplerOnWire() const {
    const std::uint16_t carrier = fieldValue(state->currentType);
    if (type != 27 || carrier < 36 || carrier > 39) return true;
    // After an expansion the codec's last image is the epoch as its compact form held it.
    const epoch_image_t& image = state->epochHistory.previous;
    const std::size_t satellites = std::min<std::size_t>(image.nSv, std::size(image.sats));
    for (std::size_t i = 0; i < satellites; ++i) {
        const epoch_sat_row_t& sat = image.sats[i];
        const std::size_t signals = std::min<std::size_t>(sat.nMeas, std::size(sat.signals));
        for (std::size_t j = 0; j < signals; ++j) {
            if ((sat.signals[j].measFlags1 & kDopplerPresent) != 0) return true;
        }
    }
    return false;
}

bool ReadSummary::unreadable() const {
    return shape == StreamShape::Empty || shape == StreamShape::TooShort || refused || readError ||
           (recordsDelivered == 0 && damaged());
}

LogReader::LogReader(Input& input, const ReadOptions& options)
    : input_(input), epochOutput_(options.epochOutput), afterEpochOutput_(options.afterEpochOutput),
      options_(options), state_(newReaderState(options)), datBuffer_(kDatCapacity) {}

LogReader::~LogReader() {
    nvbdll_FreeNVBStateHandle(state_);
}

ReadSummary LogReader::run(const RecordHandler& onRecord, const ProgressHandler& onProgress) {
    onRecord_ = &onRecord;
    summary_ = ReadSummary{};
    fed_ = 0;
    next_ = 0;
    window_.clear();
    replay_.clear();
    lost_ = stuck_ = resumed_ = false;
    awaitingReference_.fill(false);
    std::vector<std::uint8_t> chunk(kReadChunk);
    std::size_t count = input_.read(chunk.data(), chunk.size());
    const std::span<const std::uint8_t> head(chunk.data(), count);
    const Detected detected = detectShape(head);
    summary_.shape = detected.shape;
    summary_.nveMagic = detected.nve;
    if (detected.shape == StreamShape::Blocks) headerBlock_ = headerBlockOf(head);
    const bool plain = detected.shape == StreamShape::PlainBytes;
    while (count > 0) {
        for (std::size_t i = 0; i < count;) {
            const std::size_t quiet = inputQuiet(chunk.data() + i, count - i);
            if (quiet == 0) input(chunk[i], plain);
            i += std::max<std::size_t>(quiet, 1);
        }
        if (onProgress) onProgress(fed_);
        count = input_.read(chunk.data(), chunk.size());
    }
    finishSummary(plain);
    onRecord_ = nullptr;
    return summary_;
}

void LogReader::input(std::uint8_t byte, bool plain) {
    ++fed_;
    step(byte, plain);
    while (!replay_.empty()) {
        const std::uint8_t again = replay_.front();
        replay_.pop_front();
        step(again, plain);
    }
}

std::size_t LogReader::inputQuiet(const std::uint8_t* bytes, std::size_t count) {
    if (summary_.shape != StreamShape::Blocks || lost_ || stuck_ || !replay_.empty()) return 0;
    const std::size_t taken = nvb::takeQuietBlockBytes(*state_, bytes, count);
    if (taken == 0) return 0;
    fed_ += taken;
    next_ += taken;
    at_ = next_ - 1;
    window_.insert(window_.end(), bytes, bytes + taken);
    return taken;
}

void LogReader::step(std::uint8_t byte, bool plain) {
    at_ = next_++;
    if (summary_.shape != StreamShape::Blocks) {
        feed(byte, plain);
        return;
    }
    window_.push_back(byte);
    feed(byte, plain);
    watchBlocks();
}

void LogReader::watchBlocks() {
    stuck_ = blockStays(*state_);
    const bool inTrouble = state_->searching != 0 || stuck_;
    if (inTrouble && !lost_) scanFrom_ = 1;  // position 0 is the block that failed
    lost_ = inTrouble;
    if (!lost_) {
        // Only the block the library is reading is kept.
        const std::size_t held = std::min<std::size_t>(state_->inputFill, window_.size());
        window_.erase(window_.begin(), window_.end() - static_cast<std::ptrdiff_t>(held));
        return;
    }
    if (headerBlock_.empty()) return;
    for (; scanFrom_ + kBlockHeader + kZstdMagic.size() <= window_.size(); ++scanFrom_) {
        const std::uint8_t* candidate = window_.data() + scanFrom_;
        if (!isZstdBlockStart(candidate)) continue;
        if (scanFrom_ + kBlockHeader + blockLengthAt(candidate) > window_.size()) return;  // not whole yet
        resumeAt(scanFrom_);
        return;
    }
    if (scanFrom_ > kScannedKept) {
        window_.erase(window_.begin(), window_.begin() + static_cast<std::ptrdiff_t>(scanFrom_));
        scanFrom_ = 0;
    }
}

void LogReader::resumeAt(std::size_t position) {
    const std::uint64_t from = next_ - window_.size() + position;
    const std::uint32_t headers = state_->headerCount;
    nvbdll_FreeNVBStateHandle(state_);
    state_ = newReaderState(options_);
    at_ = from;
    for (const std::uint8_t byte : headerBlock_) feed(byte, false);
    state_->headerCount = headers;
    replay_.insert(replay_.begin(), window_.begin() + static_cast<std::ptrdiff_t>(position), window_.end());
    window_.clear();
    next_ = from;
    lost_ = false;
    stuck_ = false;
    resumed_ = true;
    damageMet(-1);
}

void LogReader::damageMet(int kind) {
    if (summary_.shape != StreamShape::Blocks) return;
    if (kind < 0) {
        awaitingReference_.fill(true);
    } else {
        awaitingReference_[static_cast<std::size_t>(kind)] = true;
    }
}

bool LogReader::leftOutAsUnverified() {
    const CarriedForm* form = carriedForm(fieldValue(state_->currentType));
    if (form == nullptr) return false;
    bool& awaiting = awaitingReference_[form->kind];
    if (form->reference) {
        awaiting = false;
        return false;
    }
    // Framed levels check each expanded record against its own checksum.
    if (!awaiting || !isBareLevel(fieldValue(state_->blockLevel))) return false;
    ++summary_.recordsUnverified;
    return true;
}

void LogReader::feed(std::uint8_t byte, bool plain) {
    std::uint8_t status = 0;
    if (plain) {
        const std::int32_t result = nvbdll_getNVARecordByByte(state_, byte, &status);
        handle(result, status);
        return;
    }
    std::uint8_t more = 0;
    std::int32_t result = nvbdll_getNVBRecordByByte(state_, byte, &status, 1, &more);
    handle(result, status);
    while (more == 1) {
        status = 0;
        result = nvbdll_getNVBRecordByByte(state_, 0, &status, 0, &more);
        handle(result, status);
    }
}

void LogReader::handle(std::int32_t result, std::uint8_t status) {
    const bool blocks = summary_.shape == StreamShape::Blocks;
    const std::uint64_t at = at_;
    if (status == NVB_STATUS_HUFFMAN_END) {
        ++summary_.endSymbols;
    } else if (status == NVB_STATUS_READER_TOO_OLD) {
        if (!summary_.refused) summary_.events.push_back(StatusEvent{status, at, -1, std::nullopt});
        summary_.refused = true;
    } else if (isDamageStatus(status) && !(stuck_ && result <= 0)) {
        // A block that stays repeats its status with every byte: it is told once.
        StatusEvent event{status, at, -1, std::nullopt};
        if (blocks && result > 0) event.unpackedOffset = fieldValue(state_->recordOffset);
        summary_.events.push_back(event);
        damageMet(-1);
    }
    if (result <= 0 || (status != NVB_STATUS_OK && status != NVB_STATUS_RESYNCHRONISED)) return;
    if (resumed_) {
        // The first record of the block found after damage tells that reading goes on.
        summary_.events.push_back(
            StatusEvent{NVB_STATUS_RESYNCHRONISED, at, -1, fieldValue(state_->recordOffset)});
        resumed_ = false;
    }
    if (leftOutAsUnverified()) return;

    std::uint16_t type = 0;
    std::uint8_t processStatus = 0;
    const std::uint32_t length = epochOutput_ != nullptr
                                     ? nvb::processRecordWithOutput(*state_, *epochOutput_, type, processStatus)
                                     : nvbdll_processNVBRecord(state_, 0, &type, &processStatus);
    if (epochOutput_ != nullptr && afterEpochOutput_) afterEpochOutput_();
    const std::optional<std::uint32_t> unpacked =
        blocks ? std::optional<std::uint32_t>(fieldValue(state_->recordOffset)) : std::nullopt;
    if (processStatus != NVB_STATUS_OK) {
        summary_.events.push_back(StatusEvent{processStatus, at, fieldValue(state_->currentType), unpacked});
        if (const CarriedForm* form = carriedForm(fieldValue(state_->currentType))) {
            damageMet(static_cast<int>(form->kind));
        }
        return;
    }
    if (length == 0) {
        // A converting reader keeps the schemas of the subtypes it converts and hands nothing for them.
        ++(fieldValue(state_->currentType) == 35 ? summary_.schemasForConversion : summary_.recordsUndecoded);
        return;
    }
    DeliveredRecord record;
    record.type = type;
    record.length = length;
    record.offset = at;
    record.unpackedOffset = unpacked;
    record.state = state_;
    record.buffer_ = &datBuffer_;
    ++summary_.recordsDelivered;
    (*onRecord_)(record);
}

void LogReader::finishSummary(bool plain) {
    summary_.bytesRead = fed_;
    summary_.readError = input_.failed();
    if (fed_ == 0) {
        summary_.shape = StreamShape::Empty;
        return;
    }
    if (!plain && state_->detectPending != 0) {
        summary_.shape = StreamShape::TooShort;
        return;
    }
    if (summary_.refused) return;
    if (summary_.shape == StreamShape::Blocks) {
        if (state_->inputFill > 0) {
            summary_.truncatedBytes = state_->inputFill;
            summary_.truncatedAt = fed_ - std::min<std::uint64_t>(fed_, state_->inputFill);
            // Still searching at the end: nothing behind the last damage could be read,
            // not only the bytes the search kept.
            summary_.lostFooting = lost_;
            if (summary_.lostFooting && !summary_.events.empty()) {
                summary_.truncatedAt = std::min(*summary_.truncatedAt, summary_.events.back().offset + 1);
                summary_.truncatedBytes = fed_ - *summary_.truncatedAt;
            }
        }
        return;
    }
    const nvb_frame_assembly_t& assembly = state_->frameAssembly;
    if (assembly.fill > 0 && assembly.bytes[0] == nvb::kStartByte) {
        summary_.truncatedBytes = assembly.fill;
        // Plain bytes stand in the assembly as they came; Huffman coded ones do not, so
        // the end of the input is the best place to name.
        summary_.truncatedAt = plain ? fed_ - std::min<std::uint64_t>(fed_, assembly.fill) : fed_;
    }
}

int exitCodeOf(const ReadSummary& summary) {
    if (summary.unreadable()) return 2;
    if (summary.damaged()) return 1;
    return 0;
}

void reportReadProblems(const ReadSummary& summary, const std::string& file) {
    if (summary.shape == StreamShape::Empty) {
        reportError(file, "is empty");
        return;
    }
    if (summary.shape == StreamShape::TooShort) {
        reportError(file, fmt::format("is too short to be a log ({} bytes)", summary.bytesRead));
        return;
    }
    std::size_t shown = 0;
    for (const StatusEvent& event : summary.events) {
        if (shown == kShownEvents) break;
        std::string text = statusText(event.status);
        if (event.recordType >= 0) text += fmt::format(" (record type {})", event.recordType);
        if (event.unpackedOffset) text += fmt::format(" (record at unpacked byte {})", *event.unpackedOffset);
        reportErrorAt(file, event.offset, text);
        ++shown;
    }
    if (summary.events.size() > shown) {
        reportError(
            file, fmt::format("{} more problems like these (nvb info lists them all)", summary.events.size() - shown));
    }
    if (summary.truncatedAt) {
        const bool blocks = summary.shape == StreamShape::Blocks;
        std::string text;
        if (summary.lostFooting) {
            text = fmt::format("no block could be read after the damage: {} bytes up to the end were lost",
                               summary.truncatedBytes);
        } else if (blocks) {
            text = fmt::format("the log ends inside a block: its last {} bytes were not read", summary.truncatedBytes);
        } else {
            text = fmt::format("the log ends inside a record: {} bytes of it were lost", summary.truncatedBytes);
        }
        reportErrorAt(file, *summary.truncatedAt, text);
    }
    if (summary.recordsUnverified > 0) {
        reportError(file, fmt::format("{} delta records behind the damage were left out: they lean on records that "
                                      "were lost, and this method carries no check that could verify them (each "
                                      "kind comes back with its next reference)",
                                      summary.recordsUnverified));
    }
    if (summary.refused) return;
    if (summary.damaged()) {
        if (summary.recordsDelivered == 0) {
            reportError(file, "no record could be read");
        } else {
            reportError(file, fmt::format("damage met; {} records were read around it", summary.recordsDelivered));
        }
    }
}

namespace {

// The NVE form: rollover ranges and three-byte range differences in measFlags2.
constexpr std::uint32_t kNveFileFormat = 5;

// Whether a record that was not written was dropped by thinning; a record 35 that the
// writer refuses says so by its status.
bool droppedByThinning(std::uint8_t type, std::uint8_t status, const WriteOptions& options) {
    if (type == 11 || type == 29) return options.positionInterval > 0;
    if (type == 17 || type == 27) return options.measurementInterval > 0;
    return type == 35 && status == NVB_STATUS_OK && (options.positionInterval > 0 || options.measurementInterval > 0);
}

}  // namespace

LogWriter::LogWriter(Output& output, const WriteOptions& options)
    : options_(options),
      // The compressor's own level goes with compressionLevel 3, which also sets 32 KiB blocks.
      encoder_(static_cast<std::uint8_t>(options.method),
               static_cast<std::uint8_t>(options.explicitLevel ? 3 : options.level),
               [&output](std::span<const std::uint8_t> unit) { output.write(unit.data(), unit.size()); }) {
    nvb_encode_t& state = encoder_.state();
    state.fileFormat = kNveFileFormat;
    // Records 35 go out as they came: the stream's own schemas, every subtype.
    state.rec35Mode = NVB_REC35_PASSTHROUGH | NVB_REC35_COPY;
    state.explicitLevel = static_cast<std::uint8_t>(options.explicitLevel.value_or(0));
    state.measurementInterval = options.measurementInterval;
    state.positionInterval = options.positionInterval;
}

void LogWriter::put(std::span<std::uint8_t> dat, bool dopplerOnWire) {
    ++summary_.recordsIn;
    // The parser reads as far as the header announces, so a record must hold that much.
    const std::size_t length = datRecordLength(dat);
    if (length < 4 || length > dat.size()) {
        ++summary_.refusedByType[-1];
        return;
    }
    const std::uint8_t type = dat[3];
    bool longEpoch = false;
    if (type == 27) {
        // The true satellite count goes where retrieval left the first antenna's count,
        // and the epoch takes the long delta form when the short one would lose a flag
        // byte, a range rollover or a wide range difference, or when it keeps its Doppler.
        const EpochShape shape = prepareEpochForEncoder(dat);
        longEpoch = shape.needsLongForm;
        encoder_.state().epochForceLong = longEpoch ? 1 : 0;
        encoder_.state().epochKeepDoppler = options_.keepDoppler && dopplerOnWire && shape.hasDoppler ? 1 : 0;
    }
    const std::uint32_t before = encoder_.state().recordCount;
    std::uint8_t status = 0;
    encoder_.put(dat.data(), status);
    if (status != NVB_STATUS_OK) summary_.failures.push_back(status);
    if (encoder_.state().recordCount != before) {
        ++summary_.recordsWritten;
        if (type == 27 || type == 17) ++summary_.epochsWritten;
        if (type == 20) ++summary_.writeOnly;
        if (longEpoch) ++summary_.longEpochs;
    } else if (droppedByThinning(type, status, options_)) {
        ++summary_.thinned;
    } else {
        ++summary_.refusedByType[type];
    }
}

void LogWriter::putRec35(std::uint32_t subtype, void* native) {
    std::array<std::uint8_t, NVB_REC35_DAT_HEADER_BYTES> dat{0x74, NVB_REC35_DAT_HEADER_BYTES, 0, 35};
    for (std::size_t i = 0; i < 4; ++i) dat[4 + i] = static_cast<std::uint8_t>(subtype >> (8 * i));
    const auto slot = nvb::rec35SlotOf(subtype);
    rec35_content_t* content = encoder_.state().records.rec35;
    if (slot && content != nullptr) {
        dat[12] = 1;
        content->records[*slot] = native;
    }
    put(dat);
    if (slot && content != nullptr) content->records[*slot] = nullptr;
}

void LogWriter::finish() {
    if (finished_) return;
    finished_ = true;
    encoder_.finish();
}

bool reportWriteProblems(const WriteSummary& summary, const std::string& file) {
    bool complete = true;
    for (const auto& [type, count] : summary.refusedByType) {
        if (type < 0) {
            reportError(file, fmt::format("{} records shorter than their headers say were left out", count));
        } else if (type == 35) {
            reportError(file, fmt::format("{} records of type 35 were left out: the writer can't take them "
                                          "(methods 0, 1, 2 and 4 carry none)",
                                          count));
        } else {
            reportError(file,
                        fmt::format("{} records of type {} were left out: the writer can't take them", count, type));
        }
        complete = false;
    }
    if (!summary.failures.empty()) {
        reportError(file, fmt::format("the encoder failed {} times, first with: {}", summary.failures.size(),
                                      statusText(summary.failures.front())));
        complete = false;
    }
    return complete;
}

DatReader::DatReader(Input& input) : input_(input), buffer_(kReadChunk * 2) {}

bool DatReader::fill(std::size_t wanted) {
    while (end_ - begin_ < wanted && !atEnd_) {
        if (begin_ > 0) {
            std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
            end_ -= begin_;
            begin_ = 0;
        }
        if (buffer_.size() - end_ < kReadChunk) buffer_.resize(end_ + kReadChunk);
        const std::size_t count = input_.read(buffer_.data() + end_, buffer_.size() - end_);
        if (count == 0) atEnd_ = true;
        end_ += count;
    }
    return end_ - begin_ >= wanted;
}

bool DatReader::next(std::span<std::uint8_t>& record, std::uint64_t& offset) {
    if (problem_) return false;
    if (!fill(4)) {
        if (end_ > begin_) {
            problem_ = fmt::format("the input ends inside a DAT header ({} bytes)", end_ - begin_);
            problemOffset_ = consumed_;
        }
        return false;
    }
    const std::uint8_t* header = buffer_.data() + begin_;
    if (header[0] != 0x74) {
        problem_ = fmt::format("not a DAT record: it starts with 0x{:02X} where 0x74 belongs", header[0]);
        problemOffset_ = consumed_;
        return false;
    }
    if (!fill(datBytesToTellLength(std::span<const std::uint8_t, 4>(header, 4)))) {
        problem_ = fmt::format("the input ends inside the head of a record of type {}", buffer_[begin_ + 3]);
        problemOffset_ = consumed_;
        return false;
    }
    header = buffer_.data() + begin_;
    const std::size_t length = datRecordLength(std::span<const std::uint8_t>(header, end_ - begin_));
    if (length < 4) {
        problem_ = fmt::format("impossible DAT length {} for a record of type {}", length, header[3]);
        problemOffset_ = consumed_;
        return false;
    }
    if (!fill(length)) {
        problem_ = fmt::format("the input ends inside a record of type {}: {} of its {} bytes are there",
                               buffer_[begin_ + 3], end_ - begin_, length);
        problemOffset_ = consumed_;
        return false;
    }
    record = std::span<std::uint8_t>(buffer_.data() + begin_, length);
    offset = consumed_;
    consumed_ += length;
    begin_ += length;
    return true;
}

}  // namespace nvbtool
