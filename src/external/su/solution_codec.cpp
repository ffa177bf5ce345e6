#include "external/su/solution_codec.h"

#include "common/diagnostics.h"
#include "external/su/compact_frame.h"
#include "external/su/delta_epoch.h"
#include "external/su/su_compr_common.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace nvb {

namespace {

constexpr std::size_t kMaxSatellites = 116;
constexpr std::size_t kEntryWidth = 3;

// Places within block 1, the length byte being 0.
constexpr std::size_t kWeek = 1;
constexpr std::size_t kTime = 3;
constexpr std::size_t kSvCount = 8;
constexpr std::size_t kSolutionCount = 9;
constexpr std::size_t kBlockFlags = 11;
constexpr std::size_t kSolutionKind = 13;
// The six bytes that go together when any of them changes.
constexpr std::array<std::size_t, 6> kAttributes = {7, 10, 11, 12, 13, 14};

constexpr std::uint8_t kBlock4Present = 0x02;
constexpr std::uint8_t kPredictSecondOfPair7 = 0x04;
constexpr std::uint8_t kClockBlockPresent = 0x10;

struct Field {
    std::uint8_t offset;
    std::uint8_t width;
};
// The sixteen fields of block 2, two to a code byte.
constexpr std::array<Field, 16> kBlock2Fields = {{
    {1, 6}, {7, 6}, {13, 4}, {17, 4}, {21, 4}, {25, 4}, {29, 4}, {33, 4},
    {37, 2}, {39, 2}, {41, 2}, {43, 2}, {45, 2}, {47, 2}, {49, 2}, {51, 2},
}};
// Block 2 fields that the history extrapolates: pairs 1 to 6 and the first of pair 7; the
// second of pair 7 only under its flag; pair 8 never.
constexpr std::size_t kAlwaysPredicted = 13;
constexpr std::array<Field, 2> kBlock4Values = {{{1, 4}, {5, 4}}};

bool hasBlock3(const solution_image_t& image) {
    const std::uint8_t kind = image.block1[kSolutionKind];
    return kind >= 3 && kind <= 6;
}
bool hasBlock4(const solution_image_t& image) { return (image.block1[kBlockFlags] & kBlock4Present) != 0; }
bool hasBlock5(const solution_image_t& image) { return (image.block1[kBlockFlags] & kClockBlockPresent) != 0; }
// Bit 0 of block 4's flags announces two more bytes, which stand there only when the
// block's length makes room for them: the record 29 writer sets the bit in blocks of 10.
bool hasBlock4Extra(const solution_image_t& image) {
    return (image.block4[9] & 0x01) != 0 && image.block4[0] >= 12;
}
std::size_t listedEntries(const solution_image_t& image) {
    return std::min<std::size_t>(image.block1[kSvCount], kMaxSatellites);
}

// Takes `count` bytes, or as many as are left followed by zeros.
void takePadded(ByteReader& reader, std::uint8_t* destination, std::size_t count) {
    const std::size_t available = std::min(count, bytesLeft(reader));
    std::memcpy(destination, reader.pos, available);
    std::memset(destination + available, 0, count - available);
    reader.pos += available;
}

void skipTo(ByteReader& reader, const std::uint8_t* target) {
    if (target > reader.pos) reader.pos = std::min(target, reader.end);
}

// A block copied by its length byte, which counts itself: the image keeps what fits.
void copyBlock(ByteReader& reader, std::uint8_t* destination, std::size_t capacity) {
    const std::uint8_t* start = reader.pos;
    const std::size_t length = bytesLeft(reader) > 0 ? *reader.pos : 0;
    takePadded(reader, destination, std::min(length, capacity));
    skipTo(reader, start + length);
}

// Sign-extends the 3-bit delta field of block 1's code byte.
std::uint8_t addSmallDelta(std::uint8_t reference, unsigned field) {
    const int delta = field >= 4 ? static_cast<int>(field) - 8 : static_cast<int>(field);
    return static_cast<std::uint8_t>(reference + delta);
}

// The 3-bit field for the byte difference, or 4 with the raw byte when it doesn't fit.
std::uint8_t codeSmallByteDelta(std::uint8_t value, std::uint8_t reference, bool& raw) {
    const auto delta = static_cast<std::uint8_t>(value - reference);
    raw = delta >= 4 && delta <= 252;
    return raw ? 4 : static_cast<std::uint8_t>(delta & 0x07);
}

// The nibble expander of this format: any code with bit 3 is raw, the reference is the
// predicted field and stays as it is, the result goes straight into the image.
std::uint8_t expandNibbleField(std::uint8_t code, const std::uint8_t* reference, std::uint8_t* destination,
                               std::size_t width, ByteReader& stream) {
    std::array<std::uint8_t, kMaxDeltaWidth> scratch{};
    std::memcpy(scratch.data(), reference, width);
    ByteWriter field = makeByteWriter(destination, width);
    return expandNibbleDelta((code & 0x08) != 0 ? 8 : code, width, scratch.data(), stream, field);
}

// The clock block on the wire: length, flags, and per term its id (byte length in bits
// 4-6) and the value in that many bytes; the image holds each value sign-extended to 7.
// A term of length 0 takes its sign from the byte after its id, the next term's id.
void readClockBlockImage(ByteReader& reader, epoch_clock_block_t& block) {
    takePadded(reader, &block.blockLength, 1);
    takePadded(reader, &block.blockFlags, 1);
    for (std::size_t term = 0; term < clockTermCount(block); ++term) {
        takePadded(reader, &block.clockTypes[term], 1);
        const std::size_t width = (block.clockTypes[term] >> 4) & 7u;
        const bool negative = bytesLeft(reader) > 0 && *reader.pos >= 0x80;
        std::uint8_t* value = block.clockValues[term];
        std::memset(value, negative ? 0xFF : 0x00, 7 - width);
        takePadded(reader, value + 7 - width, width);
    }
}

void writeClockBlockImage(ByteWriter& writer, const epoch_clock_block_t& block) {
    writeByte(writer, block.blockLength);
    writeByte(writer, block.blockFlags);
    for (std::size_t term = 0; term < clockTermCount(block); ++term) {
        const std::size_t width = (block.clockTypes[term] >> 4) & 7u;
        writeByte(writer, block.clockTypes[term]);
        writeBytes(writer, block.clockValues[term] + 7 - width, width);
    }
}

std::uint8_t blockLength(std::size_t bytes) {
    compactAssert(bytes < 256);
    return static_cast<std::uint8_t>(bytes);
}

}  // namespace

void parseSolutionImage(solution_image_t& image, const std::uint8_t* record, std::size_t length) {
    image = solution_image_t{};
    ByteReader reader = makeByteReader(record, length);
    takePadded(reader, image.head, sizeof image.head);
    copyBlock(reader, image.block1, sizeof image.block1);
    copyBlock(reader, image.block2, sizeof image.block2);
    if (hasBlock3(image)) {
        const std::uint8_t* start = reader.pos;
        takePadded(reader, image.block3, sizeof image.block3);
        // Correction fields behind the five bytes are skipped by the length byte.
        skipTo(reader, start + image.block3[0]);
    }
    if (hasBlock4(image)) {
        const std::uint8_t* start = reader.pos;
        takePadded(reader, image.block4, 9);
        if (image.block4[0] > 9) takePadded(reader, image.block4 + 9, 1);
        if (hasBlock4Extra(image)) takePadded(reader, image.block4 + 10, 2);
        skipTo(reader, start + image.block4[0]);
    }
    if (hasBlock5(image)) readClockBlockImage(reader, image.block5);
    takePadded(reader, &image.block6Length, 1);
    takePadded(reader, &image.block6[0][0], kEntryWidth * listedEntries(image));
    takePadded(reader, image.checksum, sizeof image.checksum);
    takePadded(reader, &image.etx, 1);
}

std::size_t writeSolutionImage(const solution_image_t& image, std::uint8_t* record, std::size_t capacity) {
    ByteWriter writer = makeByteWriter(record, capacity);
    writeBytes(writer, image.head, sizeof image.head);
    writeBytes(writer, image.block1, sizeof image.block1);
    writeBytes(writer, image.block2, sizeof image.block2);
    if (hasBlock3(image)) writeBytes(writer, image.block3, sizeof image.block3);
    if (hasBlock4(image)) {
        writeBytes(writer, image.block4, 9);
        if (image.block4[0] > 9) writeByte(writer, image.block4[9]);
        if (hasBlock4Extra(image)) writeBytes(writer, image.block4 + 10, 2);
    }
    if (hasBlock5(image)) writeClockBlockImage(writer, image.block5);
    writeByte(writer, image.block6Length);
    writeBytes(writer, &image.block6[0][0], kEntryWidth * listedEntries(image));
    writeBytes(writer, image.checksum, sizeof image.checksum);
    writeByte(writer, image.etx);
    return writer.failed ? 0 : distanceFrom(writer, record);
}

void advanceSolutionHistory(const solution_image_t& current, solution_image_t& previous,
                            solution_image_t& predicted) {
    predicted = current;
    // The week is predicted at its full width here, unlike the measurement epochs.
    bigExtrapolate(previous.block1 + kWeek, current.block1 + kWeek, predicted.block1 + kWeek, 2);
    bigExtrapolate(previous.block1 + kTime, current.block1 + kTime, predicted.block1 + kTime, 4);
    const bool secondOfPair7 = (current.block1[kBlockFlags] & kPredictSecondOfPair7) != 0;
    for (std::size_t i = 0; i < kAlwaysPredicted + (secondOfPair7 ? 1 : 0); ++i) {
        const Field& field = kBlock2Fields[i];
        bigExtrapolate(previous.block2 + field.offset, current.block2 + field.offset,
                       predicted.block2 + field.offset, field.width);
    }
    if (hasBlock4(current)) {
        for (const Field& field : kBlock4Values) {
            bigExtrapolate(previous.block4 + field.offset, current.block4 + field.offset,
                           predicted.block4 + field.offset, field.width);
        }
    }
    previous = current;
}

bool compressSolutionDelta(solution_history_t& history, const std::uint8_t* plain, std::size_t plainLength,
                           std::uint8_t* out, std::size_t outputCapacity) {
    solution_image_t record;
    parseSolutionImage(record, plain, plainLength);
    const solution_image_t& predicted = history.predicted;
    ByteWriter writer = makeByteWriter(out, outputCapacity);
    std::uint8_t spare = 0;
    const std::uint8_t head[4] = {2, 0, kTypeSolutionDelta, 0};
    writeBytes(writer, head, sizeof head);

    const std::uint8_t* start = writer.pos;
    std::uint8_t* length = reserveByte(writer, spare);
    std::uint8_t* code = reserveByte(writer, spare);
    std::uint8_t bits = 0;
    if (std::memcmp(record.block1 + kWeek, predicted.block1 + kWeek, 6) != 0) {
        bits |= 0x80;
        writeBytes(writer, record.block1 + kWeek, 6);
    }
    bool svRaw = false;
    bool solutionRaw = false;
    bits |= static_cast<std::uint8_t>(
        codeSmallByteDelta(record.block1[kSvCount], predicted.block1[kSvCount], svRaw) << 4);
    bits |= static_cast<std::uint8_t>(
        codeSmallByteDelta(record.block1[kSolutionCount], predicted.block1[kSolutionCount], solutionRaw) << 1);
    if (svRaw) writeByte(writer, record.block1[kSvCount]);
    if (solutionRaw) writeByte(writer, record.block1[kSolutionCount]);
    bool attributes = false;
    for (std::size_t place : kAttributes) attributes = attributes || record.block1[place] != predicted.block1[place];
    if (attributes) {
        bits |= 0x01;
        for (std::size_t place : kAttributes) writeByte(writer, record.block1[place]);
    }
    *code = bits;
    *length = blockLength(distanceFrom(writer, start));

    start = writer.pos;
    length = reserveByte(writer, spare);
    for (std::size_t i = 0; i < kBlock2Fields.size(); i += 2) {
        code = reserveByte(writer, spare);
        const Field& first = kBlock2Fields[i];
        const Field& second = kBlock2Fields[i + 1];
        const std::uint8_t high =
            codeNibbleDelta(record.block2 + first.offset, predicted.block2 + first.offset, first.width, writer);
        const std::uint8_t low =
            codeNibbleDelta(record.block2 + second.offset, predicted.block2 + second.offset, second.width, writer);
        *code = static_cast<std::uint8_t>((high << 4) | low);
    }
    *length = blockLength(distanceFrom(writer, start));

    if (hasBlock3(record)) {
        start = writer.pos;
        length = reserveByte(writer, spare);
        code = reserveByte(writer, spare);
        bits = 0;
        if (record.block3[1] != predicted.block3[1]) {
            bits |= 0x80;
            writeByte(writer, record.block3[1]);
        }
        if (std::memcmp(record.block3 + 2, predicted.block3 + 2, 2) != 0) {
            bits |= 0x40;
            writeBytes(writer, record.block3 + 2, 2);
        }
        if (record.block3[4] != predicted.block3[4]) {
            bits |= 0x20;
            writeByte(writer, record.block3[4]);
        }
        *code = bits;
        *length = blockLength(distanceFrom(writer, start));
    }

    if (hasBlock4(record)) {
        start = writer.pos;
        length = reserveByte(writer, spare);
        code = reserveByte(writer, spare);
        const std::uint8_t high = codeNibbleDelta(record.block4 + kBlock4Values[0].offset,
                                                  predicted.block4 + kBlock4Values[0].offset, 4, writer);
        const std::uint8_t low = codeNibbleDelta(record.block4 + kBlock4Values[1].offset,
                                                 predicted.block4 + kBlock4Values[1].offset, 4, writer);
        *code = static_cast<std::uint8_t>((high << 4) | low);
        // A block of the older form without flags is sent without them: its reader then
        // takes the predicted flags, and so does this side.
        if (record.block4[0] > 9) {
            writeByte(writer, record.block4[9]);
        } else {
            record.block4[9] = predicted.block4[9];
        }
        *length = blockLength(distanceFrom(writer, start));
    }

    if (hasBlock5(record)) {
        start = writer.pos;
        length = reserveByte(writer, spare);
        compressClockBlock(record.block5, predicted.block5, writer);
        *length = blockLength(distanceFrom(writer, start));
    }

    start = writer.pos;
    length = reserveByte(writer, spare);
    for (std::size_t i = 0; i < listedEntries(record); ++i) {
        if (std::memcmp(record.block6[i], predicted.block6[i], kEntryWidth) == 0) continue;
        writeByte(writer, static_cast<std::uint8_t>(i));
        writeBytes(writer, record.block6[i], kEntryWidth);
    }
    // More than 63 changed entries overflow the length byte; the reader then refuses the
    // record, and the encode pipeline sends such a record as a reference.
    *length = static_cast<std::uint8_t>(distanceFrom(writer, start));

    writeBytes(writer, record.checksum, sizeof record.checksum);
    const std::size_t total = distanceFrom(writer, out);
    if (writer.failed) return false;
    out[1] = static_cast<std::uint8_t>(total);
    out[3] = static_cast<std::uint8_t>(total >> 8);
    advanceSolutionHistory(record, history.previous, history.predicted);
    return true;
}

bool compressSolutionReference(solution_history_t& history, const std::uint8_t* plain, std::size_t plainLength,
                               std::uint8_t* out, std::size_t outputCapacity) {
    if (plainLength < 4) return false;
    const std::size_t length = plain[1] + 256u * plain[3];
    if (length < 5 || length > plainLength || length - 1 > outputCapacity) {
        compactAssert(false);
        return false;
    }
    std::memcpy(out, plain, length - 1);
    // The length is lowered as a 16-bit number, so that a record of 256 bytes stays readable.
    out[1] = static_cast<std::uint8_t>(length - 1);
    out[3] = static_cast<std::uint8_t>((length - 1) >> 8);
    out[2] = kTypeSolutionReference;
    parseSolutionImage(history.previous, plain, length);
    history.predicted = history.previous;
    return true;
}

std::uint8_t expandSolutionImage(const solution_history_t& history, const std::uint8_t* compact,
                                 std::size_t inputCapacity, solution_image_t& image, std::uint8_t& status) {
    status = 0;
    image = solution_image_t{};
    image.etx = 3;
    if (inputCapacity < 4) return status = kStatusBadDeltaLength;
    const solution_image_t& predicted = history.predicted;
    std::memcpy(image.head, compact, sizeof image.head);
    ByteReader reader = makeByteReader(compact + 4, inputCapacity - 4);
    constexpr std::uint8_t kShort = kStatusBadDeltaLength;

    const std::uint8_t* start = reader.pos;
    std::uint8_t length = 0;
    std::uint8_t bits = 0;
    if (!readByte(reader, length) || !readByte(reader, bits)) return status = kShort;
    if ((bits & 0x80) != 0) {
        if (!readBytes(reader, image.block1 + kWeek, 6)) return status = kShort;
    } else {
        std::memcpy(image.block1 + kWeek, predicted.block1 + kWeek, 6);
    }
    const unsigned svField = (bits >> 4) & 0x07;
    const unsigned solutionField = (bits >> 1) & 0x07;
    image.block1[kSvCount] = addSmallDelta(predicted.block1[kSvCount], svField);
    image.block1[kSolutionCount] = addSmallDelta(predicted.block1[kSolutionCount], solutionField);
    if (svField == 4 && !readByte(reader, image.block1[kSvCount])) return status = kShort;
    if (solutionField == 4 && !readByte(reader, image.block1[kSolutionCount])) return status = kShort;
    for (std::size_t place : kAttributes) {
        if ((bits & 0x01) == 0) {
            image.block1[place] = predicted.block1[place];
        } else if (!readByte(reader, image.block1[place])) {
            return status = kShort;
        }
    }
    image.block1[0] = 15;
    if (distanceFrom(reader, start) > length) return status = kShort;

    start = reader.pos;
    if (!readByte(reader, length)) return status = kShort;
    for (std::size_t i = 0; i < kBlock2Fields.size(); i += 2) {
        if (!readByte(reader, bits)) return status = kShort;
        for (std::size_t k = 0; k < 2; ++k) {
            const Field& field = kBlock2Fields[i + k];
            const std::uint8_t nibble = k == 0 ? bits >> 4 : bits & 0x0F;
            if (expandNibbleField(nibble, predicted.block2 + field.offset, image.block2 + field.offset, field.width,
                                  reader) != 0) {
                return status = kShort;
            }
        }
    }
    image.block2[0] = 53;
    if (distanceFrom(reader, start) > length) return status = kShort;

    if (hasBlock3(image)) {
        start = reader.pos;
        if (!readByte(reader, length) || !readByte(reader, bits)) return status = kShort;
        std::memcpy(image.block3, predicted.block3, sizeof image.block3);
        if ((bits & 0x80) != 0 && !readByte(reader, image.block3[1])) return status = kShort;
        if ((bits & 0x40) != 0 && !readBytes(reader, image.block3 + 2, 2)) return status = kShort;
        if ((bits & 0x20) != 0 && !readByte(reader, image.block3[4])) return status = kShort;
        image.block3[0] = 5;
        if (distanceFrom(reader, start) > length) return status = kShort;
    }

    if (hasBlock4(image)) {
        start = reader.pos;
        if (!readByte(reader, length) || !readByte(reader, bits)) return status = kShort;
        for (std::size_t k = 0; k < kBlock4Values.size(); ++k) {
            const Field& field = kBlock4Values[k];
            const std::uint8_t nibble = k == 0 ? bits >> 4 : bits & 0x0F;
            if (expandNibbleField(nibble, predicted.block4 + field.offset, image.block4 + field.offset, field.width,
                                  reader) != 0) {
                return status = kShort;
            }
        }
        if (distanceFrom(reader, start) < length) {
            if (!readByte(reader, image.block4[9])) return status = kShort;
            image.block4[0] = 10;
        } else {
            image.block4[9] = predicted.block4[9];
            image.block4[0] = 9;
        }
        if (distanceFrom(reader, start) > length) return status = kShort;
    }

    std::uint32_t lengthSum = 0;
    if (hasBlock5(image)) {
        start = reader.pos;
        if (!readByte(reader, length)) return status = kShort;
        if (expandClockBlock(image.block5, predicted.block5, reader, lengthSum) != 0) return status = kShort;
        if (distanceFrom(reader, start) != length) return status = kShort;
    }

    start = reader.pos;
    if (!readByte(reader, length)) return status = kShort;
    const std::size_t svCount = image.block1[kSvCount];
    if (length > 4 * svCount + 1 || svCount > kMaxSatellites) return status = kStatusBadCount;
    std::memcpy(image.block6, predicted.block6, kEntryWidth * svCount);
    if (length > 1) {
        const unsigned patches = (length - 2u) / 4u + 1u;
        for (unsigned p = 0; p < patches; ++p) {
            std::uint8_t index = 0;
            std::array<std::uint8_t, kEntryWidth> entry{};
            if (!readByte(reader, index) || !readBytes(reader, entry.data(), entry.size())) return status = kShort;
            // An index beyond the list is taken as it comes, but none beyond the image.
            if (index >= kMaxSatellites) return status = kStatusBadCount;
            std::memcpy(image.block6[index], entry.data(), entry.size());
        }
    }
    image.block6Length = static_cast<std::uint8_t>(3 * svCount + 1);
    if (distanceFrom(reader, start) > length) return status = kShort;
    if (!readBytes(reader, image.checksum, sizeof image.checksum)) return status = kShort;

    // Kept to 8 bits: the high byte stays what the delta record held. A record that then
    // claims more than a frame holds is refused before the history moves.
    const std::uint32_t total = lengthSum + image.block6Length + 53 + image.block3[0] + image.block4[0] + 15 + 7;
    image.head[1] = static_cast<std::uint8_t>(total);
    image.head[2] = kTypeSolution;
    if (image.head[1] + 256u * image.head[3] > NVB_FRAME_CAPACITY) return status = kShort;
    return status;
}

std::uint8_t expandSolutionDelta(solution_history_t& history, const std::uint8_t* compact, std::size_t inputCapacity,
                                 solution_image_t& image, std::uint8_t& status) {
    if (expandSolutionImage(history, compact, inputCapacity, image, status) == 0) {
        advanceSolutionHistory(image, history.previous, history.predicted);
    }
    return status;
}

std::uint8_t expandSolutionReference(solution_history_t& history, const std::uint8_t* compact,
                                     std::size_t inputCapacity, std::uint8_t* out, std::size_t outputCapacity,
                                     std::uint8_t& status) {
    status = 0;
    if (inputCapacity < 4) return status = kStatusBadDeltaLength;
    const std::size_t length = compact[1] + 256u * compact[3];
    if (length < 4 || length > inputCapacity || length + 1 > outputCapacity) return status = kStatusBadDeltaLength;
    std::memcpy(out, compact, length);
    out[1] = static_cast<std::uint8_t>(length + 1);
    out[3] = static_cast<std::uint8_t>((length + 1) >> 8);
    out[2] = kTypeSolution;
    out[length] = 3;
    parseSolutionImage(history.previous, out, length + 1);
    history.predicted = history.previous;
    return status;
}

std::uint8_t processType56(nvb_expand_t& state, std::uint8_t& status) {
    std::memset(&state.plainFrame, 0, sizeof state.plainFrame);
    const std::size_t capacity = std::min<std::size_t>(state.frame.length, sizeof state.frame.data);
    solution_image_t image;
    expandSolutionDelta(state.solutionHistory, state.frame.data, capacity, image, status);
    std::uint8_t* plain = state.plainFrame.data;
    (void)writeSolutionImage(image, plain, sizeof state.plainFrame.data);
    const std::size_t length = plain[1] + 256u * plain[3];
    if (length > sizeof state.plainFrame.data) {
        state.plainFrame.length = 0;
        if (status == 0) status = kStatusBadDeltaLength;
        return status;
    }
    state.plainFrame.length = static_cast<std::uint16_t>(length);
    return status;
}

std::uint8_t processType57(nvb_expand_t& state, std::uint8_t& status) {
    std::memset(&state.plainFrame, 0, sizeof state.plainFrame);
    const std::size_t capacity = std::min<std::size_t>(state.frame.length, sizeof state.frame.data);
    expandSolutionReference(state.solutionHistory, state.frame.data, capacity, state.plainFrame.data,
                            sizeof state.plainFrame.data, status);
    state.plainFrame.length = static_cast<std::uint16_t>(state.plainFrame.data[1] + 256u * state.plainFrame.data[3]);
    return status;
}

}  // namespace nvb
