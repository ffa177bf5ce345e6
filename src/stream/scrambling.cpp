#include "stream/scrambling.h"

namespace nvb {

int scrambleBlock(std::uint8_t* bytes, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        bytes[i] =
            static_cast<std::uint8_t>(bytes[i] ^ static_cast<std::uint8_t>(kScrambleTable[i % kScrambleTableLength]));
    }
    return 0;
}

}  // namespace nvb
