#include "stream/block_reader.h"

#include <cstring>

namespace nvb {

namespace {

constexpr std::uint8_t kFirstHeaderMagic[6] = {0x74, 0xBA, 0x79, 0x4B, 0xCF, 0x6B};
constexpr std::uint8_t kSecondHeaderMagic[6] = {0xD1, 0x60, 0x42, 0x2E, 0xF8, 0xF9};

}  // namespace

bool isBlockStreamStart(const std::uint8_t* firstTen) {
    if (firstTen[0] != 0 || firstTen[1] != 0 || firstTen[2] != 0) return false;
    return std::memcmp(firstTen + 4, kFirstHeaderMagic, 6) == 0 ||
           std::memcmp(firstTen + 4, kSecondHeaderMagic, 6) == 0;
}

// Block decoding arrives with the block reader; until then a recognised block stream
// yields no records, and its bytes are not kept.
int feedBlockByte(nvb_expand_t& state, bool haveByte, std::uint8_t byte, std::uint8_t& more,
                  std::uint8_t& status) {
    (void)state;
    (void)haveByte;
    (void)byte;
    (void)status;
    more = 0;
    return 0;
}

int nextBlockRecord(nvb_expand_t& state, std::uint8_t& more, std::uint8_t& status) {
    (void)state;
    (void)status;
    more = 0;
    return 0;
}

}  // namespace nvb
