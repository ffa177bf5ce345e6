#ifndef NVB_TESTS_HOST_H
#define NVB_TESTS_HOST_H

// The library as a host meets it: an expand state read through the getters in the calling
// order, an encode state that writes into memory, and both ends of a compact codec driven
// through the single expansion steps.

#include <nvbdll/nvbdll.h>

#include "host/host_encoder.h"
#include "pipeline/serialisation.h"
#include "support/wire.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace nvbtest {

// Builds the library's tree unless one is built: a tree in use stays where it is, so that
// states in other threads go on reading it.
void initLibrary();

// An expand state for one test, with the library initialised.
class Handle {
public:
    Handle();
    ~Handle();
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    nvb_expand_t* operator->() const { return state_; }
    nvb_expand_t* get() const { return state_; }

private:
    nvb_expand_t* state_;
};

// What a host sees of one getter result that is not "nothing yet".
struct ReadEvent {
    std::int32_t result = 0;      // getter result
    std::uint8_t status = 0;      // getter status
    Bytes frame;                  // the frame the getter announced, when it is a record
    std::uint16_t type = 0;       // type reported by nvbdll_processNVBRecord
    std::uint32_t datLength = 0;  // its result
    std::uint8_t processStatus = 0;
    Bytes dat;  // DAT form when delivered, whole (records 29, 34, 98, 99 too)

    bool isRecord() const {
        return result > 0 && result != 255 && (status == 0 || status == NVB_STATUS_RESYNCHRONISED);
    }
    bool delivered() const { return datLength > 0 && processStatus == 0; }
};

enum class Getter { NvbFile, NvaFile, NvbByByte, NvaByByte };

// Feeds `stream` through one getter, following `more`, and processes every record that
// the getter announces, as a host following the calling order does.
std::vector<ReadEvent> readStream(nvb_expand_t* state, const Bytes& stream, Getter getter);

// Feeds bytes to a by-byte getter, following `more`, and hands each call's result and
// status to `take`; with `takeQuiet` a block's quiet bytes go over in one piece.
void feedByByte(nvb_expand_t* state, std::span<const std::uint8_t> bytes, Getter getter,
                const std::function<void(std::int32_t, std::uint8_t)>& take, bool takeQuiet = false);

// Processes a record a getter announced and retrieves its DAT form into a buffer of exactly
// the length the dispatch reported, as a host does.
void retrieveAnnounced(nvb_expand_t* state, std::int32_t result, std::uint8_t status);
// The frames announced, and the DAT forms delivered, in order.
std::vector<Bytes> framesOf(const std::vector<ReadEvent>& events);
std::vector<Bytes> deliveredDat(const std::vector<ReadEvent>& events);
// Writes bytes to a new temporary file and returns its path.
std::string writeTempFile(const Bytes& bytes, const std::string& suffix);

// Stands a frame where a getter leaves it, its type from its byte 2; `process` then runs
// the dispatch on it.
void standFrame(nvb_expand_t* state, const Bytes& frame);
struct Processed {
    std::uint32_t length = 0;
    std::uint16_t type = 0;
    std::uint8_t status = 0xEE;
};
Processed process(nvb_expand_t* state, const Bytes& frame);
// Stands a frame and runs the dispatch on it as a host with a getter of its own does.
ReadEvent processFrame(nvb_expand_t* state, const Bytes& frame);

// An encode state as a host builds it, writing into memory.
class Encoder {
public:
    explicit Encoder(std::uint8_t method, std::uint8_t level = 0);
    nvb_encode_t* operator->() const { return &host_.state(); }
    nvb_encode_t* get() const { return &host_.state(); }

    // Hands one DAT record to the encoder; returns what nvbdll_processDATRecord returned.
    std::uint32_t put(Bytes dat, std::uint8_t* status = nullptr);
    // Finalises and returns everything written so far.
    const Bytes& finish();
    int callbacks() const { return callbacks_; }

private:
    Bytes output_;
    int callbacks_ = 0;
    nvbtool::HostEncoder host_;
};

// A DAT record of a type whose DAT length is in byte 1 alone (14, 16, 22, 23, 24).
Bytes shortDat(std::uint8_t type, std::uint8_t byte2, const Bytes& body);
// The DAT form a host writes of a structure of its own (records 27, 29 and 17).
template <typename Record>
Bytes datOf(Record&& record) {
    Bytes dat(1 << 16);
    dat.resize(nvb::writeDatForm(record, dat.data(), dat.size()));
    return dat;
}
// The DAT form of a structure: the header, then its first datLength - 4 bytes. Record 12
// takes the high length byte in byte 2, every other type `byte2` (a subtype or 0).
Bytes structDat(std::uint8_t type, std::uint8_t byte2, const void* rec, std::size_t datLength);
// The frame the encoder builds from one DAT record, as it stands in a framed block;
// empty when the record is refused, with the encoder's status in `status`.
Bytes writtenFrame(const Bytes& dat, std::uint8_t* status = nullptr);
// The DAT records of a log read whole through the file getter with the default options.
std::vector<Bytes> readLog(const Bytes& log);
// DAT records written as one log in `method` and read back by `readLog`.
std::vector<Bytes> writtenAndRead(const std::vector<Bytes>& dats, std::uint8_t method);

// Both ends of a compact codec: the encode step's compressor, and an expand state read
// through the single step that serves each compact type, as a host with its own dispatch.
class CompactLink {
public:
    using Compress = std::uint16_t (*)(nvb_encode_t&, const nvb_frame_t&, nvb_frame_t&);
    using Step = std::uint8_t (*)(nvb_expand_t* state, std::uint8_t type, bool framed, std::uint8_t* status);

    CompactLink(Compress compressor, Step step);

    nvb_encode_t& encoder() { return *encoder_; }
    nvb_expand_t& expander() { return *reader_.get(); }

    // The compact frame that the encode step makes of a plain frame.
    Bytes compress(const Bytes& plain);
    // Stands a compact frame in the frame buffer and runs its step; the plain frame it
    // left (empty when none) goes to `plain`. Returns the step's status.
    std::uint8_t expand(const Bytes& compact, Bytes& plain, bool framed = true);
    // The same through nvbdll_processNVBRecord in a framed level; returns its status.
    std::uint8_t dispatch(const Bytes& compact, Bytes& plain);

private:
    Compress compress_;
    Step step_;
    std::unique_ptr<nvb_encode_t> encoder_ = std::make_unique<nvb_encode_t>();
    Handle reader_;
};

// The steps of each compact family, by type: positions 54/55, solutions 56/57, records 17
// of both generations 66-69/74-77, epochs 36-39.
std::uint8_t positionStep(nvb_expand_t* state, std::uint8_t type, bool framed, std::uint8_t* status);
std::uint8_t solutionStep(nvb_expand_t* state, std::uint8_t type, bool framed, std::uint8_t* status);
std::uint8_t obsStep(nvb_expand_t* state, std::uint8_t type, bool framed, std::uint8_t* status);
std::uint8_t epochStep(nvb_expand_t* state, std::uint8_t type, bool framed, std::uint8_t* status);

CompactLink epochLink();

}  // namespace nvbtest

#endif
