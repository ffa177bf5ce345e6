#ifndef NVB_TESTS_SUBFRAME_LIST_SEQUENCES_H
#define NVB_TESTS_SUBFRAME_LIST_SEQUENCES_H

// Plain records 25 and 40 in their stream form, as a receiver logs them: navigation data
// blocks of several satellites that repeat with the broadcast cycle and change now and then,
// and sensor lists whose values drift and whose identifiers come and go. Shared by the codec
// tests, the fuzz seeds and the benchmarks.

#include "support/sequences.h"

#include <array>
#include <cstdint>
#include <utility>
#include <vector>

namespace nvbtest {

// Record 25: subtype 0 carries 28 data bytes; subtype 2 a flag byte, then 32 data bytes
// with flag bit 6, else 28. The top six bits of the first data byte are the slot.
struct Rec25Wire {
    std::uint32_t time = 0; // s
    std::uint16_t week = 0;
    std::uint8_t tag = 0;
    std::uint8_t subtype = 0;
    std::uint8_t flag = 0;
    std::array<std::uint8_t, 32> data{};
};
Bytes build(const Rec25Wire& record);

// Record 40: identifiers with 16-bit values, in the order given.
struct Rec40Wire {
    std::uint8_t subtype = 1;
    std::uint16_t week = 0;
    std::uint32_t time = 0; // ms
    std::vector<std::pair<std::uint8_t, std::uint16_t>> entries;
};
Bytes build(const Rec40Wire& record);

// Four satellites, one block each a second in turning order, each cycling through twelve messages, three
// of which change every two minutes; subtype 0, subtype 2 with 32 and with 28 bytes; a block
// of slot 63 every 97 s. Starts 502 s before the end of week 2301.
struct SubframeShape {
    std::size_t count = 4000;
};
std::vector<Rec25Wire> subframeSequence(const SubframeShape& shape);

// One list a second from 700 s before the end of week 2301: values that drift, a step of
// more than the small patch now and then, an identifier that comes in the middle of the
// list, one that goes for a while and comes back, and every 50th record of another subtype.
struct ListShape {
    std::size_t count = 1500;
};
std::vector<Rec40Wire> listSequence(const ListShape& shape);

}  // namespace nvbtest

#endif
