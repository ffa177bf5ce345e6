#ifndef NVB_EXTERNAL_SU_SUBFRAME_CACHE_H
#define NVB_EXTERNAL_SU_SUBFRAME_CACHE_H

// Types 84, 85 and 86 carry a record 25, one raw navigation data block of a satellite.
// Satellites repeat the same blocks, so both sides keep per satellite slot a ring of the
// last 20 blocks: a block seen before travels as its ring position (84 of 11 bytes, 86 of
// subtype 2), a new one travels whole as a literal and enters the ring. The literal that
// follows a reset is marked (85, or 86 of subtype 0) and tells the expander to reset too.

#include <nvbdll/codec_state.h>
#include <nvbdll/state.h>

#include <cstddef>
#include <cstdint>

namespace nvb {

inline constexpr std::uint8_t kTypeSubframe = 25;
inline constexpr std::uint8_t kTypeSubframeShort = 84;
inline constexpr std::uint8_t kTypeSubframeFirst = 85;
inline constexpr std::uint8_t kTypeSubframeLong = 86;
// The slot that never takes part in the cache.
inline constexpr std::uint8_t kSubframeUncachedSlot = 63;

struct SubframeKey {
    std::uint32_t time = 0; // as the record holds it, in seconds
    std::uint16_t week = 0;
    std::uint8_t subtype = 0;
    std::uint8_t flag = 0;
    std::uint8_t slot = 0;
    std::uint8_t tag = 0;
    std::uint8_t offset = 0; // of the data block in the record
    std::uint8_t length = 0; // of the data block: 28, or 32 with flag bit 6
};

// Fills `key` from a record 25, or the literal form of 84, 85 or 86, of `size` bytes. False
// when type and subtype are none of those forms, or the data block passes `size`.
[[nodiscard]] bool parseSubframeKey(const std::uint8_t* record, std::size_t size, SubframeKey& key);

// Puts the key's data block at the head of its slot's ring, pushing the tail on when the
// ring is full, and takes the key's week and time as the cache's.
void storeSubframe(subframe_cache_t& cache, const SubframeKey& key, const std::uint8_t* record);

// Writes the compact form of the plain record 25 of `size` bytes into `out`, a reference
// when its block is in the ring and the time difference can be told, else a literal that
// enters the ring. False, with nothing written and the cache unchanged, for a record that
// stays out of the cache: not a record 25 of subtype 0 or 2, or slot 63.
[[nodiscard]] bool compressSubframe(subframe_cache_t& cache, const std::uint8_t* plain, std::size_t size,
                                    std::uint8_t* out, std::size_t capacity);

// Rebuilds the plain record 25 of a compact record of `size` bytes into `out`. False, with
// the cache unchanged, on a form that is not known, a reference that names a slot or ring
// position outside the cache, a record shorter than its form or one whose plain form
// passes `capacity` or its one length byte.
[[nodiscard]] bool expandSubframe(subframe_cache_t& cache, const std::uint8_t* compact, std::size_t size,
                                  std::uint8_t* out, std::size_t capacity);

// Front end of types 84 to 86: expands the frame buffer into the plain frame buffer, whose
// length is then byte 1 of the rebuilt record. Status 1 when expandSubframe refuses.
std::uint8_t processType84(nvb_expand_t& state, std::uint8_t& status);

// The record 25 writer's hook: restarts the cache at the first record, when the time goes
// back, and 600000 ms after the last restart, then writes the compact form into `out`. A
// record that stays out of the cache goes as the plain record. Returns the frame length.
std::uint16_t compressRec25Frame(nvb_encode_t& state, const nvb_frame_t& plain, nvb_frame_t& out);

}  // namespace nvb

#endif
