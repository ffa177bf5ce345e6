#ifndef NVB_TESTS_PLAIN_LOG_H
#define NVB_TESTS_PLAIN_LOG_H

#include <array>
#include <cstdint>
#include <vector>

namespace nvbtest {

// A plain byte-stream log (no Huffman coding; wrap it in huffmanEncode for the NVB
// getters) of six frames written by the tests' own encoder: record 27, 29, 17, 11, then
// a second 27 and 17 one second later, whose Doppler the readers rebuild from phase.
std::vector<std::uint8_t> plainMeasurementLog();

// What a host reading that log with the default options is delivered, frame by frame:
// the record type and the DAT length that nvbdll_processNVBRecord returns.
inline constexpr std::array<std::uint16_t, 6> kPlainLogTypes = {27, 29, 17, 11, 27, 17};
inline constexpr std::array<std::uint32_t, 6> kPlainLogDatLengths = {190, 122, 141, 88, 190, 141};

}  // namespace nvbtest

#endif
