#ifndef NVB_TESTS_READER_H
#define NVB_TESTS_READER_H

#include <nvbdll/nvbdll.h>

#include "support/frame_builder.h"

#include <cstdint>
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
    std::uint16_t type = 0;       // type reported by nvbdll_processNVBRecord
    std::uint32_t datLength = 0;  // its result
    std::uint8_t processStatus = 0;
    Bytes dat;                    // DAT form when delivered, whole (records 34, 98, 99 too)

    bool delivered() const { return datLength > 0 && processStatus == 0; }
};

enum class Getter { NvbFile, NvaFile, NvbByByte, NvaByByte };

// Stands a frame where a getter leaves it and runs the dispatch on it, as a host with a
// getter of its own does.
ReadEvent processFrame(nvb_expand_t* state, const Bytes& frame);

// Feeds `stream` through one getter, following `more`, and processes every record that
// the getter announces, as a host following the calling order does.
std::vector<ReadEvent> readStream(nvb_expand_t* state, const Bytes& stream, Getter getter);

// The DAT forms that were delivered, in order.
std::vector<Bytes> deliveredDat(const std::vector<ReadEvent>& events);

// What the pipeline delivers for one frame standing where a getter leaves it, with the
// DAT form retrieved.
struct Delivered {
    std::uint32_t length = 0;
    std::uint16_t type = 0;
    std::uint8_t status = 0xEE;
    Bytes dat;
};
Delivered deliver(nvb_expand_t* state, const Bytes& frame);

// Writes bytes to a new temporary file and returns its path.
std::string writeTempFile(const Bytes& bytes, const std::string& suffix);

}  // namespace nvbtest

#endif
