#include "pipeline/expansion.h"

#include "common/byte_sum.h"
#include "records/opaque_records.h"
#include "stream/framing.h"

#include <array>
#include <cstring>

namespace nvb {

namespace {

// An expander writes the plain frame of a compact record and returns its own status.
using Expander = std::uint8_t (*)(nvb_expand_t& state, bool framed);
// A reader decodes the plain frame into the type's structure and DAT header and returns
// the DAT length.
using Reader = std::uint16_t (*)(nvb_expand_t& state);

constexpr std::uint16_t kNoRecord = 65535;

enum class Thinning : std::uint8_t { None, Position11, Position29, Epoch17, Epoch27 };

struct RecordRoute {
    std::uint16_t reportedType = kNoRecord;
    Expander expand = nullptr; // null: the frame is already plain and is copied
    Reader read = nullptr;     // null: nothing to decode, length 0
    Thinning thinning = Thinning::None;
};

std::uint16_t readGeneric(nvb_expand_t& state) { return readGenericRecord(state.plainFrame, state); }
std::uint16_t read16(nvb_expand_t& state) { return readRec16(state.plainFrame, state); }

// Every record type's road through the pipeline, in one place. A compact type whose
// codec is missing has no route and is reported as type 65535 with length 0.
constexpr std::array<RecordRoute, 256> makeRoutes() {
    std::array<RecordRoute, 256> routes{};
    routes[14] = {14, nullptr, readGeneric, Thinning::None};
    routes[16] = {16, nullptr, read16, Thinning::None};
    routes[23] = {23, nullptr, readGeneric, Thinning::None};
    routes[90] = {90, nullptr, nullptr, Thinning::None};
    return routes;
}

constexpr std::array<RecordRoute, 256> kRoutes = makeRoutes();

void copyFrameAsPlain(nvb_expand_t& state) { std::memcpy(&state.plainFrame, &state.frame, sizeof state.frame); }

}  // namespace

bool isFramedLevel(std::uint8_t blockLevel) {
    return blockLevel != 3 && blockLevel != 5 && blockLevel != 6 && blockLevel != 7;
}

std::uint32_t processRecord(nvb_expand_t& state, std::uint16_t& recordType, std::uint8_t& status) {
    std::memset(&state.plainFrame, 0, sizeof state.plainFrame);
    status = 0;
    const bool framed = isFramedLevel(state.blockLevel);
    const std::uint16_t type = state.currentType;
    const RecordRoute& route = kRoutes[type & 0xFFu];
    const bool compact = type < 256 && isCompactType(static_cast<std::uint8_t>(type));

    if (compact && route.expand == nullptr) {
        recordType = kNoRecord;
        return 0;
    }
    // Record 35 lies in its own assembly and has no plain frame; every other type is
    // tested for its end byte.
    const bool testEndByte = type != 35;
    if (route.expand != nullptr) {
        status = route.expand(state, framed);
        if (status != 0) {
            status = 7;
            return 0;
        }
    } else if (type != 35) {
        copyFrameAsPlain(state);
    }

    const nvb_frame_t& plain = state.plainFrame;
    if (testEndByte && (plain.length == 0 || plain.data[plain.length - 1] != 0x03)) {
        status = 5;
        return 0;
    }
    if (framed) {
        if (plain.length < 3 || readU16BigEndian(plain.data + plain.length - 3) != byteSum(plain.data, plain.length - 3u)) {
            status = 2;
            return 0;
        }
    }
    if (type < 5 || type > 99) {
        recordType = kNoRecord;
        return 0;
    }
    recordType = route.reportedType;
    if (route.read == nullptr) return 0;
    return route.read(state);
}

}  // namespace nvb
