// Property: feeding any bytes to any getter, and processing and retrieving whatever it
// announces, never reads or writes outside a buffer and never hangs; after every call the
// buffers are within their bounds, a failure is told by a status of the interface, and
// retrieval writes no further than the length the dispatch reported; a block's quiet bytes
// taken in one piece read as when fed one by one.
#include <nvbdll/nvbdll.h>

#include "stream/block_codecs.h"
#include "stream/block_reader.h"
#include "stream/framing.h"
#include "support/host.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

namespace {

void check(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

// The statuses that a getter or the dispatch may report.
constexpr std::uint8_t kReadingStatuses[] = {
    NVB_STATUS_OK,          NVB_STATUS_END_OF_FILE, NVB_STATUS_CHECKSUM,       NVB_STATUS_FRAME_LENGTH,
    NVB_STATUS_HUFFMAN_END, NVB_STATUS_EXPANSION,   NVB_STATUS_BZIP2,          NVB_STATUS_READER_TOO_OLD,
    NVB_STATUS_ZLIB,        NVB_STATUS_SCRAMBLED,   NVB_STATUS_RESYNCHRONISED, NVB_STATUS_BROTLI,
    NVB_STATUS_ZSTD};

void handle(nvb_expand_t* state, std::int32_t result, std::uint8_t status) {
    check(state->inputFill <= nvb::kBlockCapacity && state->blockBytes <= nvb::kBlockCapacity, "block buffers overrun");
    check(state->blockBytes == 0 || state->blockReadPos < state->blockBytes, "read position past the block");
    check(state->frame.length <= nvb::kMaxFrameLength, "frame longer than its buffer");
    check(std::find(std::begin(kReadingStatuses), std::end(kReadingStatuses), status) != std::end(kReadingStatuses),
          "a status the interface does not know");
    check(result >= -1 && result <= 255 && (result != -1 || status != 0), "a result outside the interface");
    nvbtest::retrieveAnnounced(state, result, status);
}

using Event = std::pair<std::int32_t, std::uint8_t>;

// The results and statuses of the by-byte getters that tell anything.
std::vector<Event> feedBytes(nvb_expand_t* state, const std::uint8_t* data, std::size_t size, nvbtest::Getter getter,
                             bool takeQuiet) {
    std::vector<Event> events;
    const auto note = [&](std::int32_t result, std::uint8_t status) {
        handle(state, result, status);
        if (result != 0 || status != 0) events.emplace_back(result, status);
    };
    nvbtest::feedByByte(state, {data, size}, getter, note, takeQuiet);
    return events;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    // The first byte picks the getter (NVB file, NVB by byte, NVA by byte; from 0xF0 the
    // NVA file), the rest is the stream.
    const std::uint8_t getter = data[0] >= 0xF0 ? 3 : data[0] % 3;
    const nvbtest::Handle held;
    nvb_expand_t* state = held.get();
    if (getter == 0 || getter == 3) {
        std::FILE* file = fmemopen(const_cast<std::uint8_t*>(data + 1), size - 1, "rb");
        if (file != nullptr) {
            std::uint8_t status = 0;
            for (std::size_t calls = 0; status != NVB_STATUS_END_OF_FILE; ++calls) {
                check(calls <= size + 16, "the file getter does not reach the end");
                const std::int32_t result = getter == 0 ? nvbdll_getNVBRecord(state, file, &status)
                                                        : nvbdll_getNVARecord(state, file, &status);
                handle(state, result, status);
            }
            std::fclose(file);
        }
    } else {
        const auto byByte = getter == 1 ? nvbtest::Getter::NvbByByte : nvbtest::Getter::NvaByByte;
        const std::vector<Event> events = feedBytes(state, data + 1, size - 1, byByte, false);
        // A host that hands over a block's quiet bytes in one piece meets the same results
        // and statuses as one that feeds every byte.
        if (getter == 1) {
            const nvbtest::Handle quiet;
            check(feedBytes(quiet.get(), data + 1, size - 1, byByte, true) == events &&
                      quiet->inputFill == state->inputFill,
                  "quiet bytes taken in one piece read otherwise");
        }
    }
    return 0;
}
