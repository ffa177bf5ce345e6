#include "external/su/list_codec.h"

#include "common/byte_sum.h"
#include "external/su/compact_frame.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace nvb {

namespace {

constexpr std::size_t kRows = 128;
constexpr std::size_t kHead = 10; // start, length, type, subtype, week, time
constexpr std::size_t kEntry = 3;
constexpr std::size_t kPlainTrailer = 3;
constexpr std::size_t kCompactHead = 5;
constexpr std::size_t kCompactTrailer = 2;
constexpr std::size_t kLongestRecord = 255;
constexpr std::uint8_t kCompactSubtype = 1;

constexpr std::uint8_t kWeekRaw = 0x80;
constexpr std::uint8_t kWeekShift = 6;
constexpr std::uint8_t kTimeRaw = 0x20;
constexpr std::uint8_t kTimeBits = 0x1F;
constexpr std::uint8_t kRawPatch = 0x80;
constexpr int kSmallestStep = -5;
constexpr int kLargestStep = 4;

constexpr std::uint8_t kStatusStartByte = 1;
constexpr std::uint8_t kStatusType = 2;
constexpr std::uint8_t kStatusShort = kStatusBadDeltaLength;

void putBigEndian(std::uint8_t*& at, std::uint32_t value, int bytes) {
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) *at++ = static_cast<std::uint8_t>(value >> shift);
}

// Both sides predict the next time from the last two.
void advanceTime(list_state_t& state, std::uint32_t time) {
    state.predictedTime = 2 * time - state.lastTime;
    state.lastTime = time;
}

}  // namespace

bool compressListRecord(list_state_t& state, const std::uint8_t* plain, std::size_t size, std::uint8_t* out,
                        std::size_t capacity) {
    const std::size_t length = plain[1];
    if (length < kHead + kPlainTrailer || length > size) return false;
    const std::size_t entries = (length - kHead - 1) / kEntry;
    // The code byte, six raw bytes and a raw patch for each entry, and the checksum.
    if (std::min(capacity, kLongestRecord) < kCompactHead + 6 + kEntry * entries + kCompactTrailer) return false;

    const std::uint16_t week = readU16BigEndian(plain + 4);
    const std::uint32_t time = timeTagAt(plain + 6);
    const auto weekStep = static_cast<std::int16_t>(week - state.week);
    const std::uint32_t timeStep = time - state.predictedTime;
    advanceTime(state, time);
    state.week = week;

    std::uint8_t* at = out + kCompactHead;
    std::uint8_t code = 0;
    if (weekStep == 0 || weekStep == 1) {
        code = static_cast<std::uint8_t>(weekStep << kWeekShift);
    } else {
        code = kWeekRaw;
        putBigEndian(at, week, 2);
    }
    if (timeStep <= kTimeBits) {
        code = static_cast<std::uint8_t>(code | timeStep);
    } else {
        code |= kTimeRaw;
        putBigEndian(at, time, 4);
    }
    for (std::size_t offset = kHead, i = 0; offset + kEntry < length; offset += kEntry, ++i) {
        const std::uint8_t id = plain[offset];
        const std::uint16_t value = readU16BigEndian(plain + offset + 1);
        list_row_t& row = state.rows[i];
        const int step = static_cast<std::int16_t>(value - row.value);
        if (row.id == id && row.value == value) {
            continue;
        }
        if (row.id == id && step >= kSmallestStep && step <= kLargestStep) {
            *at++ = id;
            *at++ = static_cast<std::uint8_t>(step);
        } else {
            *at++ = static_cast<std::uint8_t>(id | kRawPatch);
            putBigEndian(at, value, 2);
        }
        row.id = id;
        row.value = value;
    }
    *at++ = plain[length - 3];
    *at++ = plain[length - 2];
    out[0] = 2;
    out[1] = static_cast<std::uint8_t>(at - out);
    out[2] = kTypeListCompact;
    out[3] = kCompactSubtype;
    out[4] = code;
    return true;
}

std::uint8_t expandListRecord(list_state_t& state, const std::uint8_t* compact, std::size_t size, std::uint8_t* out,
                              std::size_t capacity) {
    if (size < kCompactHead + kCompactTrailer) return kStatusShort;
    if (compact[0] != 2) return kStatusStartByte;
    if (compact[2] != kTypeListCompact) return kStatusType;
    const std::size_t length = compact[1];
    if (length < kCompactHead + kCompactTrailer || length > size) return kStatusShort;
    // Patches stop at the carried checksum; one that would run into it is refused.
    const std::size_t end = length - kCompactTrailer;

    list_state_t next = state;
    const std::uint8_t code = compact[4];
    std::size_t at = kCompactHead;
    std::uint16_t week = static_cast<std::uint16_t>(next.week + (code >> kWeekShift));
    if ((code & kWeekRaw) != 0) {
        if (at + 2 > end) return kStatusShort;
        week = readU16BigEndian(compact + at);
        at += 2;
    }
    next.week = week;
    std::uint32_t time = next.predictedTime + (code & 0x3F);
    if ((code & kTimeRaw) != 0) {
        if (at + 4 > end) return kStatusShort;
        time = timeTagAt(compact + at);
        at += 4;
    }
    advanceTime(next, time);
    while (at + 3 <= length) {
        const std::uint8_t first = compact[at];
        list_row_t& row = next.rows[first & 0x7F];
        if ((first & kRawPatch) != 0) {
            if (at + 3 > end) return kStatusShort;
            row.value = readU16BigEndian(compact + at + 1);
            at += 3;
        } else {
            if (at + 2 > end) return kStatusShort;
            row.value = static_cast<std::uint16_t>(row.value + static_cast<std::int8_t>(compact[at + 1]));
            at += 2;
        }
        row.id = static_cast<std::uint8_t>(first & 0x7F);
    }

    std::size_t listed = 0;
    for (const list_row_t& row : next.rows) listed += row.id != 0 ? 1 : 0;
    const std::size_t plainLength = kHead + kEntry * listed + kPlainTrailer;
    if (plainLength > std::min(capacity, kLongestRecord)) return kStatusShort;

    std::uint8_t* put = out;
    *put++ = 2;
    *put++ = static_cast<std::uint8_t>(plainLength);
    *put++ = kTypeList;
    *put++ = compact[3];
    putBigEndian(put, week, 2);
    putBigEndian(put, time, 4);
    for (const list_row_t& row : next.rows) {
        if (row.id == 0) continue;
        *put++ = row.id;
        putBigEndian(put, row.value, 2);
    }
    *put++ = compact[end];
    *put++ = compact[end + 1];
    *put = 3;
    state = next;
    return 0;
}

std::uint8_t processType41(nvb_expand_t& state, std::uint8_t& status) {
    std::memset(&state.plainFrame, 0, sizeof state.plainFrame);
    const std::size_t size = std::min<std::size_t>(state.frame.length, sizeof state.frame.data);
    status = expandListRecord(state.listState, state.frame.data, size, state.plainFrame.data,
                              sizeof state.plainFrame.data);
    state.plainFrame.length = status == 0 ? state.plainFrame.data[1] : 0;
    return status;
}

std::uint16_t compressRec40Frame(nvb_encode_t& state, const nvb_frame_t& plain, nvb_frame_t& out) {
    std::memset(&out, 0, sizeof out);
    const std::size_t length = std::min<std::size_t>(plain.data[1], plain.length);
    const list_state_t before = state.listState;
    if (compressListRecord(state.listState, plain.data, length, out.data, sizeof out.data)) {
        // The expander holds, by identifier, what the compressor holds by position: every
        // list sent so far came back whole, so its rows are those of the last one.
        list_state_t expander = before;
        std::memset(expander.rows, 0, sizeof expander.rows);
        for (const list_row_t& row : before.rows) {
            if (row.id != 0) expander.rows[row.id & 0x7F] = row;
        }
        std::array<std::uint8_t, kLongestRecord + 1> rebuilt{};
        if (expandListRecord(expander, out.data, out.data[1], rebuilt.data(), rebuilt.size()) == 0 &&
            rebuilt[1] == length && std::memcmp(rebuilt.data(), plain.data, length) == 0) {
            out.length = out.data[1];
            return out.length;
        }
    }
    // A list the expander would rebuild otherwise (another subtype byte, identifiers out of
    // order, one that went) goes as the plain record, which every reader takes.
    state.listState = before;
    std::memset(&out, 0, sizeof out);
    std::memcpy(out.data, plain.data, length);
    out.length = static_cast<std::uint16_t>(length);
    return out.length;
}

}  // namespace nvb
