#include "external/su/position_codec.h"

#include "common/byte_sum.h"
#include "common/diagnostics.h"
#include "external/su/compact_frame.h"
#include "external/su/su_compr_common.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace nvb {

namespace {

constexpr std::size_t kMaxSatellites = 116;

// The ten predicted fields of a record 11, by offset within the head (the record's bytes
// from offset 3) and width; field 10 is the time tag in ms.
struct HeadField {
    std::uint8_t offset;
    std::uint8_t width;
};
constexpr std::array<HeadField, 10> kHeadFields = {{
    {0, 4}, {4, 4}, {8, 4}, {12, 4}, {16, 4}, {20, 2}, {22, 4}, {26, 4}, {30, 4}, {34, 4},
}};

// stx, length, type, the head and the solution byte stand in the image as in the record.
constexpr std::size_t kFixedPart = 42;
constexpr std::size_t kSvCountOffset = 42;
constexpr std::size_t kListsOffset = 43;

bool hasResidual(std::uint8_t length, std::uint8_t svCount) { return length > 2u * svCount + 46u; }

// Status of a failed nibble field: a stream or output that ended early is a record that
// does not fit (8), anything else the coder's own answer.
std::uint8_t nibbleFailure(std::uint8_t status, const ByteReader& in, const ByteWriter& out) {
    return in.failed || out.failed ? kStatusBadDeltaLength : status;
}

std::uint8_t checkRebuiltRecord(const position_image_t& image) {
    std::uint8_t status = 0;
    if (image.stx != 2) status = kStatusBadStart;
    if (image.etx != 3) status = kStatusBadEndByte;
    if (image.recordType != kTypePosition) status = kStatusBadType;
    if (image.svCount > kMaxSatellites) status = kStatusBadCount;
    return status;
}

}  // namespace

bool parsePositionImage(std::size_t remaining, position_image_t& image, const std::uint8_t* record) {
    if (remaining <= kSvCountOffset) {
        compactAssert(false);
        return false;
    }
    const std::uint8_t svCount = record[kSvCountOffset];
    if (record[0] != 2 || svCount > kMaxSatellites) return false;
    const bool residual = hasResidual(record[1], svCount);
    const std::size_t trailer = kListsOffset + 2u * svCount + (residual ? 2u : 0u);
    if (trailer + 3 > remaining) {
        compactAssert(false);
        return false;
    }
    image = position_image_t{};
    std::memcpy(&image, record, kFixedPart);
    image.svCount = svCount;
    std::memcpy(image.svIndex, record + kListsOffset, svCount);
    std::memcpy(image.svStatus, record + kListsOffset + svCount, svCount);
    if (residual) std::memcpy(image.residual, record + kListsOffset + 2u * svCount, 2);
    image.checksum = readU16BigEndian(record + trailer);
    image.etx = record[trailer + 2];
    return true;
}

void advancePositionHistory(const position_image_t& previous, position_image_t& predicted,
                            const position_image_t& current) {
    predicted = position_image_t{};
    for (const HeadField& field : kHeadFields) {
        bigExtrapolate(previous.head + field.offset, current.head + field.offset, predicted.head + field.offset,
                       field.width);
    }
    predicted.solutionByte = current.solutionByte;
    predicted.svCount = current.svCount;
    const std::size_t count = std::min<std::size_t>(current.svCount, kMaxSatellites);
    std::memcpy(predicted.svIndex, current.svIndex, count);
    std::memcpy(predicted.svStatus, current.svStatus, count);
}

bool compressPositionDelta(position_history_t& history, const std::uint8_t* plain, std::size_t inputCapacity,
                           std::uint8_t* out, std::size_t outputCapacity) {
    position_image_t record{};
    if (!parsePositionImage(inputCapacity, record, plain)) return false;
    const position_image_t& predicted = history.predicted;
    ByteWriter cursor = makeByteWriter(out, outputCapacity);
    std::uint8_t spare = 0;
    writeByte(cursor, 2);
    std::uint8_t* lengthByte = reserveByte(cursor, spare);
    writeByte(cursor, kTypePositionDelta);

    for (std::size_t pair = 0; pair < kHeadFields.size(); pair += 2) {
        std::uint8_t* code = reserveByte(cursor, spare);
        const HeadField& first = kHeadFields[pair];
        const HeadField& second = kHeadFields[pair + 1];
        const std::uint8_t high =
            codeNibbleDelta(record.head + first.offset, predicted.head + first.offset, first.width, cursor);
        const std::uint8_t low =
            codeNibbleDelta(record.head + second.offset, predicted.head + second.offset, second.width, cursor);
        *code = static_cast<std::uint8_t>((high << 4) | low);
    }

    std::uint8_t* listCode = reserveByte(cursor, spare);
    std::uint8_t listBits = 0;
    if (record.solutionByte != predicted.solutionByte) {
        writeByte(cursor, record.solutionByte);
        listBits |= 0x80;
    }
    if (record.svCount != predicted.svCount) {
        writeByte(cursor, record.svCount);
        listBits |= 0x40;
    }
    std::array<bool, kMaxSatellites> changed{};
    unsigned changes = 0;
    for (std::size_t i = 0; i < record.svCount; ++i) {
        changed[i] = record.svStatus[i] != predicted.svStatus[i];
        if (changed[i]) ++changes;
    }
    // Five bits of count: 32 changes or more wrap, and such a record cannot be read back.
    listBits |= static_cast<std::uint8_t>((changes % 32) << 1);
    const bool residual = hasResidual(record.length, record.svCount);
    if (residual) listBits |= 0x01;
    *listCode = listBits;
    // The reader takes the first byte of a pair as the index, which is what the first list
    // holds in the records of this format.
    for (std::size_t i = 0; i < kMaxSatellites; ++i) {
        if (!changed[i]) continue;
        writeByte(cursor, record.svIndex[i]);
        writeByte(cursor, record.svStatus[i]);
    }
    if (residual) writeBytes(cursor, record.residual, 2);
    writeByte(cursor, static_cast<std::uint8_t>(record.checksum >> 8));
    writeByte(cursor, static_cast<std::uint8_t>(record.checksum));
    const std::size_t length = distanceFrom(cursor, out);
    compactAssert(length < 256);
    *lengthByte = static_cast<std::uint8_t>(length);
    if (cursor.failed) return false;

    advancePositionHistory(history.previous, history.predicted, record);
    history.previous = record;
    return true;
}

bool compressPositionReference(position_history_t& history, const std::uint8_t* plain, std::size_t inputCapacity,
                               std::uint8_t* out, std::size_t outputCapacity) {
    position_image_t record{};
    if (inputCapacity < 3 || !parsePositionImage(inputCapacity, record, plain)) return false;
    const std::size_t length = plain[1];
    if (length < 4 || length > inputCapacity || length - 1 > outputCapacity) {
        compactAssert(false);
        return false;
    }
    std::memcpy(out, plain, length - 1);
    out[1] = static_cast<std::uint8_t>(length - 1);
    out[2] = kTypePositionReference;
    history.previous = record;
    history.predicted = record;
    return true;
}

std::uint8_t expandPositionDelta(position_history_t& history, const std::uint8_t* compact, std::size_t inputCapacity,
                                 std::uint8_t* out, std::size_t outputCapacity, std::uint8_t& status, bool verify) {
    status = 0;
    if (inputCapacity < 3 || outputCapacity < 3) return status = kStatusBadDeltaLength;
    const position_image_t& predicted = history.predicted;
    ByteReader in = makeByteReader(compact + 3, inputCapacity - 3);
    ByteWriter written = makeByteWriter(out, outputCapacity);
    writeByte(written, 2);
    writeByte(written, 0);
    writeByte(written, kTypePosition);

    // The nibble coder updates its reference in place; the history must not move before
    // the record has passed every check.
    std::array<std::uint8_t, sizeof predicted.head> head{};
    std::memcpy(head.data(), predicted.head, head.size());
    for (std::size_t pair = 0; pair < kHeadFields.size(); pair += 2) {
        std::uint8_t code = 0;
        if (!readByte(in, code)) return status = kStatusBadDeltaLength;
        for (std::size_t k = 0; k < 2; ++k) {
            const HeadField& field = kHeadFields[pair + k];
            const std::uint8_t nibble = k == 0 ? code >> 4 : code & 0x0F;
            const std::uint8_t result = expandNibbleDelta(nibble, field.width, head.data() + field.offset, in, written);
            if (result != 0) return status = nibbleFailure(result, in, written);
        }
    }

    std::uint8_t listBits = 0;
    if (!readByte(in, listBits)) return status = kStatusBadDeltaLength;
    std::uint8_t solutionByte = predicted.solutionByte;
    std::uint8_t svCount = predicted.svCount;
    if ((listBits & 0x80) != 0 && !readByte(in, solutionByte)) return status = kStatusBadDeltaLength;
    if ((listBits & 0x40) != 0 && !readByte(in, svCount)) return status = kStatusBadDeltaLength;
    if (svCount > kMaxSatellites) return status = kStatusBadCount;
    std::array<std::uint8_t, kMaxSatellites> svStatus{};
    std::memcpy(svStatus.data(), predicted.svStatus, svStatus.size());
    const unsigned changes = (listBits >> 1) & 0x1F;
    for (unsigned c = 0; c < changes; ++c) {
        std::uint8_t index = 0;
        std::uint8_t value = 0;
        if (!readByte(in, index) || !readByte(in, value)) return status = kStatusBadDeltaLength;
        if (index >= kMaxSatellites) return status = kStatusBadCount;
        svStatus[index] = value;
    }
    writeByte(written, solutionByte);
    writeByte(written, svCount);
    // The first list is rebuilt as 0, 1, 2, ...: the delta form does not carry it.
    for (unsigned i = 0; i < svCount; ++i) writeByte(written, static_cast<std::uint8_t>(i));
    writeBytes(written, svStatus.data(), svCount);
    std::array<std::uint8_t, 2> bytes{};
    if ((listBits & 0x01) != 0) {
        if (!readBytes(in, bytes.data(), 2)) return status = kStatusBadDeltaLength;
        writeBytes(written, bytes.data(), 2);
    }
    if (!readBytes(in, bytes.data(), 2)) return status = kStatusBadDeltaLength;
    writeBytes(written, bytes.data(), 2);
    writeByte(written, 3);
    const std::size_t length = distanceFrom(written, out);
    if (written.failed || length > 255) return status = kStatusBadDeltaLength;
    out[1] = static_cast<std::uint8_t>(length);

    position_image_t image{};
    (void)parsePositionImage(length, image, out);
    const std::uint16_t sum = byteSum(out, length - 3);
    if (!verify) {
        // Low byte first, unlike every other plain record: the format has it so.
        out[length - 3] = static_cast<std::uint8_t>(sum);
        out[length - 2] = static_cast<std::uint8_t>(sum >> 8);
        image.checksum = sum;
    }
    status = checkRebuiltRecord(image);
    if (sum != image.checksum) status = kStatusChecksum;
    if (status != 0) return status;

    advancePositionHistory(history.previous, history.predicted, image);
    history.previous = image;
    return status;
}

std::uint8_t expandPositionReference(position_history_t& history, const std::uint8_t* compact,
                                     std::size_t inputCapacity, std::uint8_t* out, std::size_t outputCapacity,
                                     std::uint8_t& status, bool verify) {
    status = 0;
    if (inputCapacity < 3) return status = kStatusBadDeltaLength;
    const std::size_t length = compact[1];
    // A record 11 keeps its length in one byte, so a reference of 255 bytes has no plain form.
    if (length < 3 || length > inputCapacity || length + 1 > outputCapacity || length + 1 > 255) {
        return status = kStatusBadDeltaLength;
    }
    std::memcpy(out, compact, length);
    out[1] = static_cast<std::uint8_t>(length + 1);
    out[2] = kTypePosition;
    out[length] = 3;

    position_image_t image{};
    (void)parsePositionImage(length + 1, image, out);
    const std::uint16_t sum = byteSum(out, length - 2);
    std::uint16_t expected = image.checksum;
    if (!verify) {
        writeU16BigEndian(out + length - 2, sum);
        expected = sum;
        image.checksum = sum;
    }
    status = checkRebuiltRecord(image);
    if (sum != expected) status = kStatusChecksum;
    if (status != 0) return status;

    history.previous = image;
    history.predicted = image;
    return status;
}

std::uint8_t processType54(nvb_expand_t& state, std::uint8_t& status, bool framed) {
    std::memset(&state.plainFrame, 0, sizeof state.plainFrame);
    const std::size_t capacity = std::min<std::size_t>(state.frame.length, sizeof state.frame.data);
    expandPositionDelta(state.positionHistory, state.frame.data, capacity, state.plainFrame.data,
                        sizeof state.plainFrame.data, status, framed);
    state.plainFrame.length = state.plainFrame.data[1];
    return status;
}

std::uint8_t processType55(nvb_expand_t& state, std::uint8_t& status, bool framed) {
    std::memset(&state.plainFrame, 0, sizeof state.plainFrame);
    const std::size_t capacity = std::min<std::size_t>(state.frame.length, sizeof state.frame.data);
    expandPositionReference(state.positionHistory, state.frame.data, capacity, state.plainFrame.data,
                            sizeof state.plainFrame.data, status, framed);
    state.plainFrame.length = state.plainFrame.data[1];
    return status;
}

}  // namespace nvb
