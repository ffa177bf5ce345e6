#include "external/su/subframe_cache.h"

#include "common/byte_sum.h"
#include "external/su/codec_histories.h"
#include "external/su/compact_compressors.h"
#include "external/su/compact_frame.h"

#include <algorithm>
#include <cstring>

namespace nvb {

namespace {

constexpr std::size_t kRing = 20;
constexpr std::size_t kSlots = 64;
constexpr std::uint8_t kReferenceShortLength = 11;
constexpr std::uint8_t kReferenceLongLength = 12;
constexpr std::uint8_t kFlagLongBlock = 0x40;
constexpr std::uint8_t kShortBlock = 28;
constexpr std::uint8_t kLongBlock = 32;
// Checksum and end byte behind the data block of a plain record.
constexpr std::size_t kPlainTrailer = 3;
constexpr std::size_t kLongestRecord = 255;
constexpr std::int64_t kWeekSeconds = 604800;
constexpr std::int64_t kDeltaRange = 65536;

// Subtype byte of the literal forms of 86: the first after a reset, and any later one.
constexpr std::uint8_t kLongFirst = 0;
constexpr std::uint8_t kLongLiteral = 1;
constexpr std::uint8_t kLongReference = 2;

std::uint8_t ringCount(const subframe_slot_t& slot) {
    const int n = slot.head - slot.tail;
    return static_cast<std::uint8_t>(n < 0 ? n + static_cast<int>(kRing) : n);
}

// The position of the first ring entry, from the tail on, that holds the same block.
int findInRing(const subframe_slot_t& slot, const SubframeKey& key, const std::uint8_t* record) {
    const std::uint8_t count = ringCount(slot);
    for (std::uint8_t i = 0; i < count; ++i) {
        const std::size_t at = (slot.tail + i) % kRing;
        if (slot.lengths[at] == key.length && std::memcmp(slot.entries[at], record + key.offset, key.length) == 0) {
            return static_cast<int>(at);
        }
    }
    return -1;
}

// A week change seen from the cache's time: the difference counts from the old week.
bool referenceDelta(std::int64_t difference, std::uint16_t& delta) {
    if (difference >= 0 && difference < kDeltaRange) {
        delta = static_cast<std::uint16_t>(difference);
        return true;
    }
    if (difference >= -kWeekSeconds && difference < kDeltaRange - kWeekSeconds) {
        delta = static_cast<std::uint16_t>(difference + kWeekSeconds);
        return true;
    }
    return false;
}

// A plain or literal record, its data block and what lies behind it, inside `size`.
bool literalFits(const SubframeKey& key, std::size_t length, std::size_t trailer) {
    return length >= std::size_t{key.offset} + key.length + trailer;
}

bool expandLiteral(subframe_cache_t& cache, const std::uint8_t* compact, std::size_t size, std::uint8_t* out,
                   std::size_t capacity, bool reset) {
    const std::size_t length = compact[1];
    SubframeKey key;
    if (length > size || length + 1 > std::min(capacity, kLongestRecord) ||
        !parseSubframeKey(compact, length, key) || !literalFits(key, length, kPlainTrailer - 1)) {
        return false;
    }
    if (reset) resetSubframeCache(cache);
    storeSubframe(cache, key, compact);
    std::memcpy(out, compact, length);
    if (compact[2] == kTypeSubframeLong) out[3] = 2;
    out[2] = kTypeSubframe;
    out[length] = 3;
    out[1] = static_cast<std::uint8_t>(length + 1);
    return true;
}

bool expandReference(subframe_cache_t& cache, const std::uint8_t* compact, std::size_t size, std::uint8_t* out,
                     std::size_t capacity) {
    const bool longForm = compact[2] == kTypeSubframeLong;
    const std::size_t length = longForm ? kReferenceLongLength : kReferenceShortLength;
    if (compact[1] != length || size < length) return false;
    const std::uint8_t slot = compact[4];
    const std::uint8_t position = compact[5];
    if (slot >= kSlots || position >= kRing) return false;
    const std::uint8_t flag = longForm ? compact[9] : 0;
    const std::uint8_t block = longForm && (flag & kFlagLongBlock) != 0 ? kLongBlock : kShortBlock;
    const std::size_t plainLength = (longForm ? 12u : 11u) + block + kPlainTrailer;
    if (plainLength > capacity) return false;

    // The sum wraps only at 2^32: a delta formed across a week change comes out as the
    // same instant counted from the old week, and stays so.
    const std::uint32_t time = cache.time + readU16BigEndian(compact + 6);
    if (time < cache.time) ++cache.week;
    cache.time = time;
    std::uint8_t* at = out;
    *at++ = 2;
    *at++ = static_cast<std::uint8_t>(plainLength);
    *at++ = kTypeSubframe;
    *at++ = longForm ? 2 : 0;
    for (int shift = 24; shift >= 0; shift -= 8) *at++ = static_cast<std::uint8_t>(time >> shift);
    writeU16BigEndian(at, cache.week);
    at += 2;
    *at++ = compact[8];
    if (longForm) *at++ = flag;
    std::memcpy(at, cache.slots[slot].entries[position], block);
    at += block;
    *at++ = compact[length - 2];
    *at++ = compact[length - 1];
    *at = 3;
    return true;
}

}  // namespace

bool parseSubframeKey(const std::uint8_t* record, std::size_t size, SubframeKey& key) {
    if (size < 12) return false;
    const std::uint8_t type = record[2];
    const std::uint8_t subtype = record[3];
    bool longForm = false;
    switch (type) {
        case kTypeSubframe:
            if (subtype != 0 && subtype != 2) return false;
            longForm = subtype == 2;
            break;
        case kTypeSubframeShort:
        case kTypeSubframeFirst:
            if (subtype != 0) return false;
            break;
        case kTypeSubframeLong:
            if (subtype > kLongLiteral) return false;
            longForm = true;
            break;
        default:
            return false;
    }
    SubframeKey parsed;
    parsed.time = timeTagAt(record + 4);
    parsed.week = readU16BigEndian(record + 8);
    parsed.tag = record[10];
    parsed.subtype = longForm ? 2 : 0;
    parsed.flag = longForm ? record[11] : 0;
    parsed.offset = longForm ? 12 : 11;
    parsed.length = (parsed.flag & kFlagLongBlock) != 0 ? kLongBlock : kShortBlock;
    if (std::size_t{parsed.offset} + parsed.length > size) return false;
    parsed.slot = static_cast<std::uint8_t>(record[parsed.offset] >> 2);
    key = parsed;
    return true;
}

void storeSubframe(subframe_cache_t& cache, const SubframeKey& key, const std::uint8_t* record) {
    subframe_slot_t& slot = cache.slots[key.slot];
    const std::uint8_t h = slot.head;
    slot.head = static_cast<std::uint8_t>((h + 1) % kRing);
    if (slot.tail == slot.head) slot.tail = static_cast<std::uint8_t>((slot.tail + 1) % kRing);
    std::memcpy(slot.entries[h], record + key.offset, key.length);
    slot.lengths[h] = key.length;
    cache.week = key.week;
    cache.time = key.time;
}

bool compressSubframe(subframe_cache_t& cache, const std::uint8_t* plain, std::size_t size, std::uint8_t* out,
                      std::size_t capacity) {
    SubframeKey key;
    const std::size_t length = std::min<std::size_t>(plain[1], size);
    if (!parseSubframeKey(plain, length, key) || key.slot == kSubframeUncachedSlot ||
        !literalFits(key, length, kPlainTrailer) || capacity < length) {
        return false;
    }
    const bool longForm = key.subtype == 2;
    const int hit = findInRing(cache.slots[key.slot], key, plain);
    std::uint16_t delta = 0;
    if (hit >= 0 && referenceDelta(std::int64_t{key.time} - std::int64_t{cache.time}, delta)) {
        const std::uint8_t referenceLength = longForm ? kReferenceLongLength : kReferenceShortLength;
        std::uint8_t* at = out;
        *at++ = 2;
        *at++ = referenceLength;
        *at++ = longForm ? kTypeSubframeLong : kTypeSubframeShort;
        *at++ = longForm ? kLongReference : 0;
        *at++ = key.slot;
        *at++ = static_cast<std::uint8_t>(hit);
        writeU16BigEndian(at, delta);
        at += 2;
        *at++ = key.tag;
        if (longForm) *at++ = key.flag;
        *at++ = plain[length - 3];
        *at = plain[length - 2];
        cache.time = key.time;
        return true;
    }
    storeSubframe(cache, key, plain);
    std::memcpy(out, plain, length);
    if (longForm) {
        out[2] = kTypeSubframeLong;
        out[3] = cache.first != 0 ? kLongFirst : kLongLiteral;
    } else {
        out[2] = cache.first != 0 ? kTypeSubframeFirst : kTypeSubframeShort;
    }
    cache.first = 0;
    out[length - 1] = 0;
    out[1] = static_cast<std::uint8_t>(length - 1);
    return true;
}

bool expandSubframe(subframe_cache_t& cache, const std::uint8_t* compact, std::size_t size, std::uint8_t* out,
                    std::size_t capacity) {
    if (size < 4) return false;
    switch (compact[2]) {
        case kTypeSubframeFirst:
            return expandLiteral(cache, compact, size, out, capacity, true);
        case kTypeSubframeShort:
            if (compact[1] == kReferenceShortLength) return expandReference(cache, compact, size, out, capacity);
            return expandLiteral(cache, compact, size, out, capacity, false);
        case kTypeSubframeLong:
            switch (compact[3]) {
                case kLongReference: return expandReference(cache, compact, size, out, capacity);
                case kLongLiteral: return expandLiteral(cache, compact, size, out, capacity, false);
                case kLongFirst: return expandLiteral(cache, compact, size, out, capacity, true);
                default: return false;
            }
        default:
            return false;
    }
}

std::uint8_t processType84(nvb_expand_t& state, std::uint8_t& status) {
    std::memset(&state.plainFrame, 0, sizeof state.plainFrame);
    status = 0;
    const std::size_t size = std::min<std::size_t>(state.frame.length, sizeof state.frame.data);
    if (!expandSubframe(state.subframeCache, state.frame.data, size, state.plainFrame.data,
                        sizeof state.plainFrame.data)) {
        return status = 1;
    }
    state.plainFrame.length = state.plainFrame.data[1];
    return status;
}

std::uint16_t compressRec25Frame(nvb_encode_t& state, const nvb_frame_t& plain, nvb_frame_t& out) {
    std::memset(&out, 0, sizeof out);
    const std::size_t length = std::min<std::size_t>(plain.data[1], plain.length);
    subframe_cache_t& cache = state.subframeCache;
    SubframeKey key;
    if (parseSubframeKey(plain.data, length, key)) {
        // Record 25 counts seconds; the restart rule counts ms, in 32 bits.
        const std::uint32_t ms = key.time * 1000u;
        // A reference carries neither week nor a time below the cache's, so a record whose
        // week differs from the cache's restarts it as well: it could not be rebuilt.
        const bool unrebuildable = cache.first == 0 && (key.week != cache.week || key.time < cache.time);
        if (referenceDue(ms, state.lastSubframeReferenceTime) || unrebuildable) {
            resetSubframeCache(cache);
            state.lastSubframeReferenceTime = ms;
        }
        if (compressSubframe(cache, plain.data, length, out.data, sizeof out.data)) {
            out.length = out.data[1];
            return out.length;
        }
    }
    // Slot 63 and anything else the cache doesn't take go as the plain record, which every
    // reader takes.
    std::memcpy(out.data, plain.data, length);
    out.length = static_cast<std::uint16_t>(length);
    return out.length;
}

}  // namespace nvb
