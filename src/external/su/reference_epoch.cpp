#include "external/su/reference_epoch.h"

#include "common/byte_sum.h"
#include "common/diagnostics.h"

#include <cstring>

namespace nvb {

namespace {

// Start byte, length, type, length high, and the two checksum bytes at the least.
constexpr std::size_t kShortestRecord = 6;

}  // namespace

std::uint16_t compressReferenceEpoch(std::uint8_t* out, std::size_t outCapacity, epoch_history_t& history,
                                     const std::uint8_t* plain, std::size_t plainCapacity) {
    const std::uint16_t plainLength = plainCapacity >= 4 ? epochFrameLength(plain) : 0;
    const bool fits = plainLength >= kShortestRecord + 1 && plainLength <= plainCapacity &&
                      plainLength - 1u <= outCapacity;
    compactAssert(fits);
    if (!fits) return 0;

    const auto length = static_cast<std::uint16_t>(plainLength - 1);
    std::memcpy(out, plain, length);
    storeEpochFrameLength(out, length);
    out[2] = kReferenceEpochType;
    // Type and length have changed, so the trailer is summed anew over the record's bytes.
    writeU16BigEndian(out + length - 2, byteSum(out, length - 2u));

    epoch_image_t image;
    const EpochParse parse = parseEpochImage(image, plain, plainLength);
    compactAssert(parse.status == 0);
    if (parse.status == 0) {
        copyEpochImage(history.previous, image);
        copyEpochImage(history.predicted, image);
    }
    return length;
}

std::uint8_t expandReferenceEpoch(const std::uint8_t* record, std::size_t recordCapacity, std::uint8_t* out,
                                  std::size_t outCapacity, epoch_history_t& history, ExpandedEpoch& result,
                                  rinex_control_t& control) {
    const EpochExpansion expansion = beginEpochExpansion(record, recordCapacity, kShortestRecord, result);
    if (expansion.status != 0) return expansion.status;
    const std::uint16_t length = expansion.length;
    if (length + 1u > outCapacity) return kStatusBadDeltaLength;

    const auto plainLength = static_cast<std::uint16_t>(length + 1);
    std::memcpy(out, record, length);
    storeEpochFrameLength(out, plainLength);
    out[2] = kPlainEpochType;
    out[length] = 0x03;
    // The trailer of the compact record is not compared here: framing has done that.
    writeU16BigEndian(out + length - 2, byteSum(out, length - 2u));

    epoch_image_t image;
    const EpochParse parse = parseEpochImage(image, out, plainLength);
    if (parse.status != 0) return parse.status;
    copyEpochImage(history.previous, image);
    copyEpochImage(history.predicted, image);
    deliverEpoch(image, out, plainLength, control, *expansion.work, result);
    return 0;
}

std::uint8_t processType38(nvb_expand_t& state, std::uint8_t& status) {
    return runEpochFrontEnd(state, status, expandReferenceEpoch);
}

}  // namespace nvb
