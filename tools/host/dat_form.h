#ifndef NVB_HOST_DAT_FORM_H
#define NVB_HOST_DAT_FORM_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace nvbtool {

// The offset of the satellite count in the DAT form of record 27: behind the DAT header,
// the epoch header length, the week, the time and the clock offset.
inline constexpr std::size_t kRec27CountOffset = 4 + 1 + 2 + 8 + 4;

// A record 35 of 65535 bytes or more tells its length behind the subtypes: the bytes a
// reader needs before it can tell a record's length.
std::size_t datBytesToTellLength(std::span<const std::uint8_t, 4> header);
// The length of a DAT record from its first bytes, as a host keeping every record writes
// it; 0 when they are too few to tell.
std::size_t datRecordLength(std::span<const std::uint8_t> record);

// The parts of a record 35 DAT form.
struct Rec35Dat {
    std::uint64_t subtype = 0;
    std::uint64_t subsubtype = 0;
    std::span<const std::uint8_t> payload;
};
// Empty unless the record is a whole record 35.
std::optional<Rec35Dat> rec35DatOf(std::span<const std::uint8_t> dat);

// What the encoder needs to know of a record 27 in DAT form.
struct EpochShape {
    std::size_t satellites = 0;  // satellite entries that follow the epoch header
    bool needsLongForm = false;  // something that the short delta form can't carry
    bool hasDoppler = false;     // a measurement whose Doppler-present bit is set
};

// Walks the satellite and measurement blocks of a record 27 DAT form by their own
// length bytes, as the parser does.
EpochShape epochShapeOf(std::span<const std::uint8_t> dat);

// Retrieval writes each satellite's system byte as the system number times 65, which
// leaves the antenna out. A host that keeps every satellite puts back antenna x 64 +
// system, the byte the parser splits again, taken from the structure before retrieval.
void restoreSystemBytes(std::span<std::uint8_t> dat, std::span<const std::uint8_t> systemBytes);

// Prepares a record 27 DAT form for the encoder: retrieval counts only the first
// antenna's satellites in the byte where the parser takes the satellite count, so the
// count is set to the entries that follow. Other types are left alone.
EpochShape prepareEpochForEncoder(std::span<std::uint8_t> dat);

}  // namespace nvbtool

#endif
