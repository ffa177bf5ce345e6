#include "external/su/obs_codec.h"

#include "common/byte_sum.h"
#include "common/diagnostics.h"
#include "external/su/codec_histories.h"
#include "external/su/compact_frame.h"
#include "external/su/su_compr_common.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>

namespace nvb {

namespace {

constexpr std::size_t kMaxRows = 116;
constexpr std::size_t kHeaderBytes = 10;
constexpr std::size_t kRowBytes = 20;
constexpr std::size_t kSecondBlockBytes = 9;
// Header, checksum and end byte of a plain record 17.
constexpr std::size_t kFixedBytes = 13;
// The long types add 256 to a one-byte length.
constexpr std::size_t kMaxCompactLength = 511;
static_assert(offsetof(obs_image_t, rows) == kHeaderBytes, "the image's header is the record's first ten bytes");

// The statuses only this family gives; the others are the shared ones of su_compr_common.
constexpr std::uint8_t kBadLength = 3;
constexpr std::uint8_t kBadHeader = 6;
constexpr std::uint8_t kBadMeasurement = 9;
constexpr std::uint8_t kBadSecondBlock = 10;
constexpr std::uint8_t kBadFlags = 11;

constexpr std::uint8_t kSecondBlock = 0x01;
constexpr std::uint8_t kHalfCycleBit = 0x02;
// flagsA after a complete measurement, and what the flags modes 2 and 3 add to it.
constexpr std::uint8_t kMeasuredBits = 0xD0;
constexpr std::uint8_t kTrackedBits = 0xD8;

struct Generation {
    std::uint8_t deltaType;
    std::uint8_t deltaTypeLong;
    std::uint8_t referenceType;
    std::uint8_t referenceTypeLong;
    bool first;
};
constexpr Generation kFirstGeneration = {kTypeObsFirstDelta, kTypeObsFirstDeltaLong, kTypeObsFirstReference,
                                         kTypeObsFirstReferenceLong, true};
constexpr Generation kSecondGeneration = {kTypeObsDelta, kTypeObsDeltaLong, kTypeObsReference,
                                          kTypeObsReferenceLong, false};

// An expander that writes over its input reads a copy, which lives in the call so that
// states in different threads never share it.
using InputCopy = std::array<std::uint8_t, NVB_FRAME_CAPACITY>;

// The clock offset is three bytes on the wire; the image keeps them as `clockOffset` and
// the byte behind it.
std::uint8_t* clockOf(obs_image_t& image) {
    return reinterpret_cast<std::uint8_t*>(&image) + offsetof(obs_image_t, clockOffset);
}
const std::uint8_t* clockOf(const obs_image_t& image) {
    return reinterpret_cast<const std::uint8_t*>(&image) + offsetof(obs_image_t, clockOffset);
}

bool hasSecondBlock(const obs_row_t& row) { return (row.flagsA & kSecondBlock) != 0; }

void takePadded(ByteReader& reader, std::uint8_t* destination, std::size_t count) {
    const std::size_t available = std::min(count, bytesLeft(reader));
    std::memcpy(destination, reader.pos, available);
    std::memset(destination + available, 0, count - available);
    reader.pos += available;
}

void readRow(ByteReader& reader, obs_row_t& row) {
    std::array<std::uint8_t, kRowBytes> bytes{};
    takePadded(reader, bytes.data(), bytes.size());
    row.svNumber = bytes[0];
    row.flagsA = bytes[1];
    row.flagsB = bytes[2];
    row.fieldD = bytes[3];
    row.fieldE = bytes[4];
    row.fieldF = bytes[5];
    std::memcpy(row.range, &bytes[6], 4);
    std::memcpy(row.carrier, &bytes[10], 6);
    std::memcpy(row.doppler, &bytes[16], 3);
    row.tail = bytes[19];
    if (!hasSecondBlock(row)) return;
    std::array<std::uint8_t, kSecondBlockBytes> second{};
    takePadded(reader, second.data(), second.size());
    row.fieldG = second[0];
    std::memcpy(row.carrier2, &second[1], 6);
    std::memcpy(row.range2, &second[7], 2);
}

void writeRow(ByteWriter& writer, const obs_row_t& row) {
    const std::uint8_t head[] = {row.svNumber, row.flagsA, row.flagsB, row.fieldD, row.fieldE, row.fieldF};
    writeBytes(writer, head, sizeof head);
    writeBytes(writer, row.range, 4);
    writeBytes(writer, row.carrier, 6);
    writeBytes(writer, row.doppler, 3);
    writeByte(writer, row.tail);
    if (!hasSecondBlock(row)) return;
    writeByte(writer, row.fieldG);
    writeBytes(writer, row.carrier2, 6);
    writeBytes(writer, row.range2, 2);
}

std::size_t rebuiltLength(const obs_image_t& image) {
    std::size_t length = kFixedBytes;
    for (std::size_t i = 0; i < image.rowCount; ++i) {
        length += kRowBytes + (hasSecondBlock(image.rows[i]) ? kSecondBlockBytes : 0);
    }
    return length;
}

std::uint8_t plainType(std::size_t length) { return length < 256 ? kTypeObs : kTypeObsLong; }

// Both images become the record; the predictor state starts again from nothing.
void setReferenceImages(obs_history_t& history, const std::uint8_t* record, std::size_t length) {
    parseObsImage(record, length, history.previous);
    history.previous.stx = 2;
    history.previous.recordType = kTypeObs;
    history.previous.etx = 3;
    history.predicted = history.previous;
}

// Without a list the satellites are those rows of `previous` that are in use.
std::size_t implicitList(const obs_image_t& previous, std::uint8_t* list) {
    std::size_t count = 0;
    for (const obs_row_t& row : previous.rows) {
        if (row.svNumber != 0 && row.fieldF != 0) list[count++] = row.svNumber;
    }
    return count;
}

void reorderInto(const obs_image_t& source, obs_image_t& target, const std::uint8_t* list, std::size_t count) {
    target = source;
    for (std::size_t i = 0; i < kMaxRows; ++i) {
        obs_row_t& row = target.rows[i];
        row = obs_row_t{};
        if (i >= count) continue;
        const obs_row_t* found = std::find_if(std::begin(source.rows), std::end(source.rows),
                                              [&](const obs_row_t& candidate) { return candidate.svNumber == list[i]; });
        if (found != std::end(source.rows)) {
            row = *found;
        } else {
            row.svNumber = list[i];
        }
    }
}

// The smoothing of one phase: `accel` becomes a quarter of the old one plus three quarters
// of the new second difference, and the prediction adds the last step and `accel`.
void smoothPhase(std::uint8_t* value, std::uint8_t* accel, std::uint8_t* older, const std::uint8_t* oldValue,
                 const std::uint8_t* oldAccel, const std::uint8_t* oldOlder) {
    constexpr std::size_t width = 6;
    std::memcpy(accel, oldAccel, width);
    bigShiftRight(accel, 2, width);
    std::array<std::uint8_t, width> second{};
    std::memcpy(second.data(), value, width);
    bigSubtract(second.data(), oldValue, width);
    bigSubtract(second.data(), oldValue, width);
    bigAdd(second.data(), oldOlder, width);
    bigShiftRight(second.data(), 2, width);
    for (int k = 0; k < 3; ++k) bigAdd(accel, second.data(), width);
    std::memcpy(older, oldValue, width);
}

void predictPhase(std::uint8_t* predicted, const std::uint8_t* value, const std::uint8_t* accel,
                  const std::uint8_t* oldValue) {
    constexpr std::size_t width = 6;
    std::array<std::uint8_t, width> step{};
    std::memcpy(step.data(), value, width);
    bigSubtract(step.data(), oldValue, width);
    std::memcpy(predicted, value, width);
    bigAdd(predicted, step.data(), width);
    bigAdd(predicted, accel, width);
}

void extrapolateHeader(const obs_image_t& previous, const obs_image_t& current, obs_image_t& predicted) {
    bigExtrapolate(previous.timeMs, current.timeMs, predicted.timeMs, 4);
    bigExtrapolate(clockOf(previous), clockOf(current), clockOf(predicted), 3);
}

// `previous` may be the history's own previous image; it is read before being replaced.
void advanceLinear(const obs_image_t& previous, const obs_image_t& current, obs_history_t& history) {
    obs_image_t& predicted = history.predicted;
    predicted = current;
    extrapolateHeader(previous, current, predicted);
    for (std::size_t i = 0; i < current.rowCount; ++i) {
        const obs_row_t& old = previous.rows[i];
        const obs_row_t& cur = current.rows[i];
        obs_row_t& out = predicted.rows[i];
        bigExtrapolate(old.range, cur.range, out.range, 4);
        bigExtrapolate(old.carrier, cur.carrier, out.carrier, 6);
        bigExtrapolate(old.doppler, cur.doppler, out.doppler, 3);
        if (hasSecondBlock(cur)) {
            bigExtrapolate(old.carrier2, cur.carrier2, out.carrier2, 6);
            bigExtrapolate(old.range2, cur.range2, out.range2, 2);
        }
    }
    history.previous = current;
}

void advanceSmoothed(const obs_image_t& previous, obs_image_t& current, obs_history_t& history) {
    for (std::size_t i = 0; i < current.rowCount; ++i) {
        const obs_row_t& old = previous.rows[i];
        obs_row_t& cur = current.rows[i];
        // The slope of the range: a quarter of the old slope plus three quarters of the step.
        std::memcpy(cur.slope, old.slope, 4);
        bigShiftRight(cur.slope, 2, 4);
        std::array<std::uint8_t, 4> step{};
        std::memcpy(step.data(), cur.range, 4);
        bigSubtract(step.data(), old.range, 4);
        bigShiftRight(step.data(), 2, 4);
        for (int k = 0; k < 3; ++k) bigAdd(cur.slope, step.data(), 4);
        smoothPhase(cur.carrier, cur.accel, cur.older, old.carrier, old.accel, old.older);
        if (hasSecondBlock(cur)) smoothPhase(cur.carrier2, cur.accel2, cur.older2, old.carrier2, old.accel2, old.older2);
    }
    obs_image_t& predicted = history.predicted;
    predicted = current;
    extrapolateHeader(previous, current, predicted);
    for (std::size_t i = 0; i < current.rowCount; ++i) {
        const obs_row_t& old = previous.rows[i];
        const obs_row_t& cur = current.rows[i];
        obs_row_t& out = predicted.rows[i];
        std::memcpy(out.range, cur.range, 4);
        bigAdd(out.range, cur.slope, 4);
        predictPhase(out.carrier, cur.carrier, cur.accel, old.carrier);
        if (hasSecondBlock(cur)) {
            predictPhase(out.carrier2, cur.carrier2, cur.accel2, old.carrier2);
            bigExtrapolate(old.range2, cur.range2, out.range2, 2);
        }
    }
    history.previous = current;
}

// A sign bit and a magnitude field; a set sign over a zero magnitude means that the raw
// byte follows.
bool expandSignMagnitude(std::uint8_t& value, std::uint8_t reference, bool negative, unsigned magnitude,
                         ByteReader& in) {
    if (negative && magnitude == 0) return readByte(in, value);
    value = static_cast<std::uint8_t>(negative ? reference - magnitude : reference + magnitude);
    return true;
}

struct SignMagnitude {
    bool negative = false;
    unsigned magnitude = 0;
    bool raw = false;
};

SignMagnitude codeSignMagnitude(std::uint8_t value, std::uint8_t reference, int largest) {
    const auto difference = static_cast<std::int8_t>(value - reference);
    if (difference >= 0 && difference <= largest) return {false, static_cast<unsigned>(difference), false};
    if (difference < 0 && -difference <= largest) return {true, static_cast<unsigned>(-difference), false};
    return {true, 0, true};
}

// The one-byte flags form: bit 7 tracked (else everything cleared), bit 6 second block
// with its companions, bit 5 with it one more.
void applyFlagsByte(std::uint8_t flags, std::uint8_t& flagsA, std::uint8_t& flagsB) {
    flagsA = (flags & 0x80) != 0 ? static_cast<std::uint8_t>(flagsA | kTrackedBits) : 0;
    flagsB = 0;
    if ((flags & 0x40) != 0) {
        flagsA |= 0x21;
        flagsB = 4;
        if ((flags & 0x20) != 0) flagsA |= 0x04;
    }
}

bool expandSmallFields(obs_row_t& row, const obs_row_t& ref, ByteReader& in) {
    std::uint8_t code = 0;
    if (!readByte(in, code)) return false;
    return expandSignMagnitude(row.fieldD, ref.fieldD, (code & 0x80) != 0, (code >> 6) & 1u, in) &&
           expandSignMagnitude(row.fieldE, ref.fieldE, (code & 0x20) != 0, (code >> 4) & 1u, in) &&
           expandSignMagnitude(row.fieldF, ref.fieldF, (code & 0x08) != 0, code & 7u, in);
}

bool expandMeasurement(const Generation& generation, obs_row_t& row, const obs_row_t& ref, ByteReader& in) {
    std::uint8_t code = 0;
    if (!readByte(in, code)) return false;
    row.flagsA = (code & 0x80) != 0 ? kHalfCycleBit : 0;
    if (generation.first) {
        // The range has no unchanged code: its code 0 means raw.
        if (expandWideDelta(row.range, 4, (code >> 5) & 3u, 0, in, ref.range) != 0 ||
            expandWideDelta(row.carrier, 6, (code >> 2) & 7u, 7, in, ref.carrier) != 0 ||
            expandWideDelta(row.doppler, 3, code & 3u, 3, in, ref.doppler) != 0) {
            return false;
        }
    } else if (expandWideDelta(row.range, 4, (code >> 4) & 7u, 4, in, ref.range) != 0 ||
               expandWideDelta(row.carrier, 6, code & 0x0Fu, 7, in, ref.carrier) != 0) {
        return false;
    }
    row.flagsA |= kMeasuredBits;
    row.tail = 0;
    return true;
}

bool expandFlags(unsigned mode, obs_row_t& row, const obs_row_t& ref, ByteReader& in) {
    switch (mode) {
    case 0:
        return readByte(in, row.flagsA) && readByte(in, row.flagsB);
    case 1:
        row.flagsA = ref.flagsA;
        row.flagsB = ref.flagsB;
        row.flagsC = ref.flagsC;
        return true;
    case 2:
        row.flagsA |= kTrackedBits;
        row.flagsB = 0;
        return true;
    default: {
        std::uint8_t flags = 0;
        if (!readByte(in, flags)) return false;
        applyFlagsByte(flags, row.flagsA, row.flagsB);
        return true;
    }
    }
}

bool expandSecondBlock(obs_row_t& row, const obs_row_t& ref, ByteReader& in) {
    std::uint8_t code = 0;
    if (!readByte(in, code)) return false;
    return expandSignMagnitude(row.fieldG, ref.fieldG, (code & 0x80) != 0, (code >> 4) & 7u, in) &&
           expandWideDelta(row.carrier2, 6, (code >> 1) & 7u, 7, in, ref.carrier2) == 0 &&
           expandWideDelta(row.range2, 2, code & 1u, 0, in, ref.range2) == 0;
}

std::uint8_t expandRows(const Generation& generation, unsigned mode, const std::uint8_t* list, std::size_t count,
                        const obs_image_t& predicted, obs_image_t& image, ByteReader& in) {
    for (std::size_t i = 0; i < count; ++i) {
        obs_row_t& row = image.rows[i];
        const obs_row_t& ref = predicted.rows[i];
        row.svNumber = list[i];
        if (!expandSmallFields(row, ref, in)) return kStatusBadDeltaLength;
        if (!expandMeasurement(generation, row, ref, in)) return kBadMeasurement;
        if (!expandFlags(mode, row, ref, in)) return kBadFlags;
        if (hasSecondBlock(row) && !expandSecondBlock(row, ref, in)) return kBadSecondBlock;
    }
    return 0;
}

bool fail(std::uint8_t& status, std::uint8_t value, std::uint8_t* out, const std::uint8_t* input,
          const std::uint8_t* compact, std::size_t length) {
    // An expander that writes over its input puts the input back.
    if (compact == out && input != compact) std::memcpy(out, input, length);
    status = value;
    return false;
}

bool expandDelta(const Generation& generation, obs_history_t& history, const std::uint8_t* compact,
                 std::size_t inputCapacity, std::uint8_t* out, std::size_t outputCapacity, std::uint8_t& status,
                 bool verify) {
    status = 0;
    if (inputCapacity < 3) return fail(status, kBadLength, out, compact, compact, 0);
    if (compact[0] != 2) return fail(status, kStatusBadStart, out, compact, compact, 0);
    const std::uint8_t type = compact[2];
    if (type != generation.deltaType && type != generation.deltaTypeLong) {
        return fail(status, kStatusBadType, out, compact, compact, 0);
    }
    const std::size_t length = compact[1] + (type == generation.deltaTypeLong ? 256u : 0u);
    const std::size_t trailer = generation.first ? 3 : 2;
    if (length > inputCapacity || length < 3 + trailer) return fail(status, kBadLength, out, compact, compact, 0);
    InputCopy copy;
    const std::uint8_t* input = compact;
    if (compact == out) {
        std::memcpy(copy.data(), compact, length);
        input = copy.data();
    }
    if (generation.first && verify && input[length - 1] != 3) {
        return fail(status, kStatusBadEndByte, out, input, compact, length);
    }
    ByteReader in = makeByteReader(input + 3, length - 3);

    const obs_image_t* previous = &history.previous;
    const obs_image_t* predicted = &history.predicted;
    obs_image_t image{};
    std::uint8_t header = 0;
    if (!readByte(in, header) ||
        expandWideDelta(image.timeMs, 4, (header >> 5) & 3u, 3, in, predicted->timeMs) != 0 ||
        expandWideDelta(clockOf(image), 3, (header >> 3) & 3u, 3, in, clockOf(*predicted)) != 0) {
        if (generation.first) compactAssert(false);
        return fail(status, kBadHeader, out, input, compact, length);
    }

    std::array<std::uint8_t, kMaxRows> list{};
    std::size_t count = 0;
    obs_image_t previousOrdered;
    obs_image_t predictedOrdered;
    if ((header & 0x80) != 0) {
        std::uint8_t listed = 0;
        if (!readByte(in, listed)) return fail(status, kBadLength, out, input, compact, length);
        if (listed > kMaxRows) return fail(status, kStatusBadCount, out, input, compact, length);
        count = listed;
        if (!readBytes(in, list.data(), count)) return fail(status, kBadLength, out, input, compact, length);
        reorderInto(history.previous, previousOrdered, list.data(), count);
        reorderInto(history.predicted, predictedOrdered, list.data(), count);
        previous = &previousOrdered;
        predicted = &predictedOrdered;
    } else {
        count = implicitList(history.previous, list.data());
    }

    const std::uint8_t rowStatus = expandRows(generation, header & 3u, list.data(), count, *predicted, image, in);
    if (rowStatus != 0) {
        if (generation.first) compactAssert(false);
        return fail(status, rowStatus, out, input, compact, length);
    }
    image.rowCount = static_cast<std::uint8_t>(count);
    if (distanceFrom(in, input) != length - trailer) return fail(status, kBadLength, out, input, compact, length);
    std::array<std::uint8_t, 2> checksum{};
    (void)readBytes(in, checksum.data(), checksum.size());
    image.checksum = readU16BigEndian(checksum.data());
    std::uint8_t endByte = 3;
    if (generation.first && verify && (!readByte(in, endByte) || endByte != 3)) {
        return fail(status, kStatusBadEndByte, out, input, compact, length);
    }

    const std::size_t total = rebuiltLength(image);
    if (total > kMaxCompactLength) return fail(status, kStatusBadDeltaLength, out, input, compact, length);
    image.stx = 2;
    image.length = static_cast<std::uint8_t>(total);
    image.recordType = plainType(total);
    image.etx = 3;
    if (writeObsImage(image, out, outputCapacity) != total) {
        return fail(status, kStatusBadDeltaLength, out, input, compact, length);
    }
    const std::uint16_t sum = byteSum(out, total - 3);
    if (verify) {
        if (sum != image.checksum) return fail(status, kStatusChecksum, out, input, compact, length);
    } else {
        writeU16BigEndian(out + total - 3, sum);
        image.checksum = sum;
    }
    if (generation.first) {
        advanceLinear(*previous, image, history);
    } else {
        advanceSmoothed(*previous, image, history);
    }
    return true;
}

bool expandReference(const Generation& generation, obs_history_t& history, const std::uint8_t* compact,
                     std::size_t inputCapacity, std::uint8_t* out, std::size_t outputCapacity, std::uint8_t& status,
                     bool verify) {
    status = 0;
    if (inputCapacity < 3) return fail(status, kBadLength, out, compact, compact, 0);
    const std::uint8_t type = compact[2];
    const bool isLong = type == generation.referenceTypeLong;
    const bool known = isLong || type == generation.referenceType;
    const std::size_t compactLength = compact[1] + (isLong ? 256u : 0u);
    // The second generation's references have dropped their end byte.
    const std::size_t length = compactLength + (generation.first ? 0 : 1);
    if (compactLength > inputCapacity || length < 3 || length > outputCapacity) {
        return fail(status, kBadLength, out, compact, compact, 0);
    }
    InputCopy copy;
    const std::uint8_t* input = compact;
    if (compact == out) {
        std::memcpy(copy.data(), compact, compactLength);
        input = copy.data();
    }
    std::memmove(out, input, compactLength);
    if (!generation.first) {
        out[compactLength] = 3;
        out[1] = static_cast<std::uint8_t>(length);
    }
    // A 69 of 255 bytes rebuilds a record of 256, which is a 117.
    if (known) out[2] = plainType(length);
    std::uint8_t result = checkObsReference(out, length, verify);
    if (result != 0) {
        out[2] = type;
        if (out[0] != 2) result = kStatusBadStart;
        if (verify && out[length - 1] != 3) result = kStatusBadEndByte;
        return fail(status, result, out, input, compact, compactLength);
    }
    setReferenceImages(history, out, length);
    return true;
}

std::uint8_t runFrontEnd(nvb_expand_t& state, obs_history_t& history, std::uint8_t& status, bool framed,
                         bool (*expander)(obs_history_t&, const std::uint8_t*, std::size_t, std::uint8_t*,
                                          std::size_t, std::uint8_t&, bool)) {
    std::memset(&state.plainFrame, 0, sizeof state.plainFrame);
    const std::size_t capacity = std::min<std::size_t>(state.frame.length, sizeof state.frame.data);
    expander(history, state.frame.data, capacity, state.plainFrame.data, sizeof state.plainFrame.data, status,
             framed);
    state.plainFrame.length = static_cast<std::uint16_t>(plainObsLength(state.plainFrame.data));
    return status;
}

std::uint8_t codeRange2(const std::uint8_t* value, const std::uint8_t* reference, ByteWriter& writer) {
    // Code 1 is a one-byte delta, also for no change; code 0 the raw field.
    const std::int16_t comparison = bigCompare(value, reference, 2);
    const bool below = comparison < 0;
    std::array<std::uint8_t, 2> magnitude{};
    std::memcpy(magnitude.data(), below ? reference : value, 2);
    bigSubtract(magnitude.data(), below ? value : reference, 2);
    if (magnitude[0] == 0 && magnitude[1] < 0x80) {
        writeByte(writer, static_cast<std::uint8_t>(magnitude[1] | (below ? 0x80 : 0x00)));
        return 1;
    }
    writeBytes(writer, value, 2);
    return 0;
}

bool sameSatellitesInOrder(const obs_image_t& previous, const obs_image_t& record) {
    std::array<std::uint8_t, kMaxRows> implicit{};
    if (implicitList(previous, implicit.data()) != record.rowCount) return false;
    for (std::size_t i = 0; i < record.rowCount; ++i) {
        const obs_row_t& row = previous.rows[i];
        if (row.svNumber != record.rows[i].svNumber || row.fieldF == 0) return false;
    }
    return true;
}

// The flags mode of a record: 1 when every row's flags are those of the prediction, 3
// when every row fits the one-byte form (the byte of each row goes to `flagsBytes`),
// else 0.
unsigned chooseFlagsMode(const obs_image_t& record, const obs_image_t& predicted, std::uint8_t* flagsBytes) {
    constexpr std::uint8_t kCandidates[] = {0x80, 0xC0, 0xE0, 0x00, 0x40, 0x60};
    bool unchanged = true;
    bool oneByte = true;
    for (std::size_t i = 0; i < record.rowCount; ++i) {
        const obs_row_t& row = record.rows[i];
        const obs_row_t& ref = predicted.rows[i];
        unchanged = unchanged && row.flagsA == ref.flagsA && row.flagsB == ref.flagsB && ref.flagsC == row.flagsC;
        bool found = false;
        for (std::uint8_t candidate : kCandidates) {
            std::uint8_t flagsA = static_cast<std::uint8_t>((row.flagsA & kHalfCycleBit) | kMeasuredBits);
            std::uint8_t flagsB = 0;
            applyFlagsByte(candidate, flagsA, flagsB);
            if (flagsA == row.flagsA && flagsB == row.flagsB) {
                flagsBytes[i] = candidate;
                found = true;
                break;
            }
        }
        oneByte = oneByte && found;
    }
    return unchanged ? 1 : oneByte ? 3 : 0;
}

void compressRow(const obs_row_t& row, const obs_row_t& ref, unsigned mode, std::uint8_t flagsByte,
                 ByteWriter& writer) {
    std::uint8_t spare = 0;
    const SignMagnitude d = codeSignMagnitude(row.fieldD, ref.fieldD, 1);
    const SignMagnitude e = codeSignMagnitude(row.fieldE, ref.fieldE, 1);
    const SignMagnitude f = codeSignMagnitude(row.fieldF, ref.fieldF, 7);
    writeByte(writer, static_cast<std::uint8_t>((d.negative << 7) | (d.magnitude << 6) | (e.negative << 5) |
                                                (e.magnitude << 4) | (f.negative << 3) | f.magnitude));
    if (d.raw) writeByte(writer, row.fieldD);
    if (e.raw) writeByte(writer, row.fieldE);
    if (f.raw) writeByte(writer, row.fieldF);

    std::uint8_t* code = reserveByte(writer, spare);
    const std::uint8_t rangeCode = codeWideDelta(row.range, ref.range, 4, 4, writer);
    const std::uint8_t carrierCode = codeWideDelta(row.carrier, ref.carrier, 6, 7, writer);
    *code = static_cast<std::uint8_t>(((row.flagsA & kHalfCycleBit) != 0 ? 0x80 : 0x00) | (rangeCode << 4) |
                                      carrierCode);

    if (mode == 0) {
        writeByte(writer, row.flagsA);
        writeByte(writer, row.flagsB);
    } else if (mode == 3) {
        writeByte(writer, flagsByte);
    }

    if (!hasSecondBlock(row)) return;
    code = reserveByte(writer, spare);
    const SignMagnitude g = codeSignMagnitude(row.fieldG, ref.fieldG, 7);
    if (g.raw) writeByte(writer, row.fieldG);
    const std::uint8_t carrier2Code = codeWideDelta(row.carrier2, ref.carrier2, 6, 7, writer);
    const std::uint8_t range2Code = codeRange2(row.range2, ref.range2, writer);
    *code = static_cast<std::uint8_t>((g.negative << 7) | (g.magnitude << 4) | (carrier2Code << 1) | range2Code);
}

}  // namespace

std::size_t plainObsLength(const std::uint8_t* record) {
    return record[1] + (record[2] == kTypeObsLong ? 256u : 0u);
}

void parseObsImage(const std::uint8_t* record, std::size_t length, obs_image_t& image) {
    image = obs_image_t{};
    ByteReader reader = makeByteReader(record, length);
    takePadded(reader, reinterpret_cast<std::uint8_t*>(&image), kHeaderBytes);
    while (image.rowCount < kMaxRows && bytesLeft(reader) >= 4) readRow(reader, image.rows[image.rowCount++]);
    std::array<std::uint8_t, 2> checksum{};
    takePadded(reader, checksum.data(), checksum.size());
    image.checksum = readU16BigEndian(checksum.data());
    takePadded(reader, &image.etx, 1);
}

std::size_t writeObsImage(const obs_image_t& image, std::uint8_t* out, std::size_t capacity) {
    ByteWriter writer = makeByteWriter(out, capacity);
    writeBytes(writer, reinterpret_cast<const std::uint8_t*>(&image), kHeaderBytes);
    for (std::size_t i = 0; i < std::min<std::size_t>(image.rowCount, kMaxRows); ++i) writeRow(writer, image.rows[i]);
    writeByte(writer, static_cast<std::uint8_t>(image.checksum >> 8));
    writeByte(writer, static_cast<std::uint8_t>(image.checksum));
    writeByte(writer, image.etx);
    return writer.failed ? 0 : distanceFrom(writer, out);
}

void reorderObsHistory(obs_image_t& previous, obs_image_t& predicted, const std::uint8_t* list, std::size_t count) {
    count = std::min(count, kMaxRows);
    obs_image_t aside = previous;
    reorderInto(aside, previous, list, count);
    aside = predicted;
    reorderInto(aside, predicted, list, count);
}

std::uint8_t checkObsReference(std::uint8_t* record, std::size_t length, bool verify) {
    const std::uint16_t sum = byteSum(record, length - 3);
    if (!verify) writeU16BigEndian(record + length - 3, sum);
    std::uint8_t status = 0;
    if (record[0] != 2) status = kStatusBadStart;
    if (record[2] != kTypeObs && record[2] != kTypeObsLong) status = kStatusBadType;
    if (sum != readU16BigEndian(record + length - 3)) status = kStatusChecksum;
    return status;
}

bool expandFirstGenerationDelta(obs_history_t& history, const std::uint8_t* compact, std::size_t inputCapacity,
                                std::uint8_t* out, std::size_t outputCapacity, std::uint8_t& status, bool verify) {
    return expandDelta(kFirstGeneration, history, compact, inputCapacity, out, outputCapacity, status, verify);
}

bool expandFirstGenerationReference(obs_history_t& history, const std::uint8_t* compact, std::size_t inputCapacity,
                                    std::uint8_t* out, std::size_t outputCapacity, std::uint8_t& status,
                                    bool verify) {
    return expandReference(kFirstGeneration, history, compact, inputCapacity, out, outputCapacity, status, verify);
}

bool expandObsDelta(obs_history_t& history, const std::uint8_t* compact, std::size_t inputCapacity, std::uint8_t* out,
                    std::size_t outputCapacity, std::uint8_t& status, bool verify) {
    return expandDelta(kSecondGeneration, history, compact, inputCapacity, out, outputCapacity, status, verify);
}

bool expandObsReference(obs_history_t& history, const std::uint8_t* compact, std::size_t inputCapacity,
                        std::uint8_t* out, std::size_t outputCapacity, std::uint8_t& status, bool verify) {
    return expandReference(kSecondGeneration, history, compact, inputCapacity, out, outputCapacity, status, verify);
}

bool compressObsDelta(obs_history_t& history, const std::uint8_t* plain, std::size_t plainCapacity,
                      std::uint8_t* out, std::size_t outputCapacity) {
    if (plainCapacity < 3) return false;
    const std::size_t length = plainObsLength(plain);
    if (length < kFixedBytes || length > plainCapacity) {
        compactAssert(false);
        return false;
    }
    obs_image_t record;
    parseObsImage(plain, length, record);
    // What the expander rebuilds: no Doppler and no reserved byte travel in this form.
    for (std::size_t i = 0; i < record.rowCount; ++i) {
        std::memset(record.rows[i].doppler, 0, sizeof record.rows[i].doppler);
        record.rows[i].tail = 0;
    }

    const obs_image_t* previous = &history.previous;
    const obs_image_t* predicted = &history.predicted;
    obs_image_t previousOrdered;
    obs_image_t predictedOrdered;
    std::array<std::uint8_t, kMaxRows> list{};
    for (std::size_t i = 0; i < record.rowCount; ++i) list[i] = record.rows[i].svNumber;
    const bool sendList = !sameSatellitesInOrder(history.previous, record);
    if (sendList) {
        reorderInto(history.previous, previousOrdered, list.data(), record.rowCount);
        reorderInto(history.predicted, predictedOrdered, list.data(), record.rowCount);
        previous = &previousOrdered;
        predicted = &predictedOrdered;
    }
    std::array<std::uint8_t, kMaxRows> flagsBytes{};
    const unsigned mode = chooseFlagsMode(record, *predicted, flagsBytes.data());

    ByteWriter writer = makeByteWriter(out, outputCapacity);
    std::uint8_t spare = 0;
    writeByte(writer, 2);
    std::uint8_t* lengthByte = reserveByte(writer, spare);
    std::uint8_t* typeByte = reserveByte(writer, spare);
    std::uint8_t* header = reserveByte(writer, spare);
    const std::uint8_t timeCode = codeWideDelta(record.timeMs, predicted->timeMs, 4, 3, writer);
    const std::uint8_t clockCode = codeWideDelta(clockOf(record), clockOf(*predicted), 3, 3, writer);
    *header = static_cast<std::uint8_t>((sendList ? 0x80 : 0x00) | (timeCode << 5) | (clockCode << 3) | mode);
    if (sendList) {
        writeByte(writer, record.rowCount);
        writeBytes(writer, list.data(), record.rowCount);
    }
    for (std::size_t i = 0; i < record.rowCount; ++i) {
        compressRow(record.rows[i], predicted->rows[i], mode, flagsBytes[i], writer);
    }
    writeByte(writer, static_cast<std::uint8_t>(record.checksum >> 8));
    writeByte(writer, static_cast<std::uint8_t>(record.checksum));
    const std::size_t total = distanceFrom(writer, out);
    if (writer.failed || total > kMaxCompactLength) {
        compactAssert(false);
        return false;
    }
    *lengthByte = static_cast<std::uint8_t>(total);
    *typeByte = total < 256 ? kTypeObsDelta : kTypeObsDeltaLong;
    advanceSmoothed(*previous, record, history);
    return true;
}

bool compressObsReference(obs_history_t& history, const std::uint8_t* plain, std::size_t plainCapacity,
                          std::uint8_t* out, std::size_t outputCapacity) {
    if (plainCapacity < 3) return false;
    const std::size_t length = plainObsLength(plain);
    if (length < 4 || length > plainCapacity || length - 1 > outputCapacity || length - 1 > kMaxCompactLength) {
        compactAssert(false);
        return false;
    }
    const std::size_t compactLength = length - 1;
    std::memcpy(out, plain, compactLength);
    out[1] = static_cast<std::uint8_t>(compactLength);
    out[2] = compactLength < 256 ? kTypeObsReference : kTypeObsReferenceLong;
    setReferenceImages(history, plain, length);
    return true;
}

std::uint8_t processType66_74(nvb_expand_t& state, std::uint8_t& status, bool framed) {
    return runFrontEnd(state, state.firstGenHistory, status, framed, expandFirstGenerationDelta);
}

std::uint8_t processType67_75(nvb_expand_t& state, std::uint8_t& status, bool framed) {
    return runFrontEnd(state, state.firstGenHistory, status, framed, expandFirstGenerationReference);
}

std::uint8_t processType68_76(nvb_expand_t& state, std::uint8_t& status, bool framed) {
    return runFrontEnd(state, state.secondGenHistory, status, framed, expandObsDelta);
}

std::uint8_t processType69_77(nvb_expand_t& state, std::uint8_t& status, bool framed) {
    return runFrontEnd(state, state.secondGenHistory, status, framed, expandObsReference);
}

void applyRec30ToFirstGeneration(nvb_expand_t& state, std::uint8_t subtype) {
    if (subtype != 0) return;
    if (state.firstRec30 == 1) {
        state.firstRec30 = 0;
    } else {
        resetObsHistory(state.firstGenHistory);
    }
}

}  // namespace nvb
