#include "host/dat_form.h"

#include "records/dat_parser.h"

#include <cmath>
#include <cstring>

namespace nvbtool {

namespace {

// The first signal's range goes as four unsigned bytes at 2^-7 m; above this the long
// form takes a rollover off it.
constexpr double kRangeRollover = 33554431.0;
// A later signal's range goes as a two-byte difference from the first; a wider one
// needs the three-byte difference of the long form.
constexpr double kShortDifferenceLimit = 100.0;

constexpr std::size_t kSvFlagsAt = 9;      // in a satellite block
constexpr std::size_t kSvSystemAt = 2;     // in a satellite block
constexpr std::size_t kSvMeasCountAt = 4;  // in a satellite block
constexpr std::size_t kMeasRangeAt = 5;    // in a measurement block
constexpr std::size_t kMeasFlags1At = 26;  // in a measurement block
constexpr std::uint8_t kFlagByteFollows = 0x80;
constexpr std::uint8_t kDopplerPresent = 0x04;

double rangeAt(std::span<const std::uint8_t> dat, std::size_t at) {
    double range = 0;
    std::memcpy(&range, dat.data() + at, sizeof range);
    return range;
}

constexpr std::size_t kRec35Head = 24;  // DAT header, subtype, subsubtype, payload length
constexpr std::size_t kLongRec35 = 0xFFFF;

std::uint64_t littleEndian(std::span<const std::uint8_t> bytes, std::size_t at, std::size_t count) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < count; ++i) value |= std::uint64_t{bytes[at + i]} << (8 * i);
    return value;
}

// Where the first satellite block of a record 27 DAT form starts: behind the epoch header
// and its optional clock drift, RAIM fault and clock block.
std::size_t firstSatelliteAt(std::span<const std::uint8_t> dat) {
    std::size_t position = kRec27CountOffset + 1;
    const std::uint8_t epochFlags = dat[position++];
    if ((epochFlags & 0x02) != 0) position += 4;  // clock drift
    if ((epochFlags & 0x10) != 0) position += 1;  // RAIM fault
    if ((epochFlags & 0x20) != 0 && position + 3 <= dat.size()) position += 3 + 9u * dat[position + 2];
    return position;
}

}  // namespace

std::size_t datBytesToTellLength(std::span<const std::uint8_t, 4> header) {
    return header[3] == 35 && nvb::wholeLengthOf(header.data()) == kLongRec35 ? kRec35Head : 4;
}

std::size_t datRecordLength(std::span<const std::uint8_t> record) {
    if (record.size() < 4) return 0;
    const std::span<const std::uint8_t, 4> header(record.data(), 4);
    if (record.size() < datBytesToTellLength(header)) return 0;
    if (datBytesToTellLength(header) == kRec35Head) return kRec35Head + littleEndian(record, 20, 4);
    return nvb::wholeLengthOf(header.data());
}

std::optional<Rec35Dat> rec35DatOf(std::span<const std::uint8_t> dat) {
    if (dat.size() < kRec35Head || dat[3] != 35) return std::nullopt;
    const std::size_t length = littleEndian(dat, 20, 4);
    if (dat.size() < kRec35Head + length) return std::nullopt;
    return Rec35Dat{littleEndian(dat, 4, 8), littleEndian(dat, 12, 8), dat.subspan(kRec35Head, length)};
}

void restoreSystemBytes(std::span<std::uint8_t> dat, std::span<const std::uint8_t> systemBytes) {
    if (dat.size() <= kRec27CountOffset + 1 || dat[3] != 27) return;
    std::size_t position = firstSatelliteAt(dat);
    for (const std::uint8_t systemByte : systemBytes) {
        if (position + 10 > dat.size() || dat[position] == 0) break;
        dat[position + kSvSystemAt] = systemByte;
        const std::size_t measurements = dat[position + kSvMeasCountAt];
        position += dat[position];
        for (std::size_t j = 0; j < measurements && position < dat.size() && dat[position] != 0; ++j) {
            position += dat[position];
        }
    }
}

EpochShape epochShapeOf(std::span<const std::uint8_t> dat) {
    EpochShape shape;
    if (dat.size() <= kRec27CountOffset + 1 || dat[3] != 27) return shape;
    std::size_t position = firstSatelliteAt(dat);
    while (position + 10 <= dat.size()) {
        const std::size_t blockLength = dat[position];
        if (blockLength == 0) break;
        const std::size_t measurements = dat[position + kSvMeasCountAt];
        if ((dat[position + kSvFlagsAt] & kFlagByteFollows) != 0) shape.needsLongForm = true;
        position += blockLength;
        double firstRange = 0;
        for (std::size_t j = 0; j < measurements && position < dat.size(); ++j) {
            const std::size_t measLength = dat[position];
            if (measLength == 0) break;
            if (position + kMeasFlags1At < dat.size() && position + measLength <= dat.size()) {
                if ((dat[position + kMeasFlags1At] & kFlagByteFollows) != 0) shape.needsLongForm = true;
                if ((dat[position + kMeasFlags1At] & kDopplerPresent) != 0) shape.hasDoppler = true;
                const double range = rangeAt(dat, position + kMeasRangeAt);
                if (j == 0) {
                    firstRange = range;
                    if (range > kRangeRollover) shape.needsLongForm = true;
                } else if (std::fabs(range - firstRange) > kShortDifferenceLimit) {
                    shape.needsLongForm = true;
                }
            }
            position += measLength;
        }
        ++shape.satellites;
    }
    return shape;
}

EpochShape prepareEpochForEncoder(std::span<std::uint8_t> dat) {
    const EpochShape shape = epochShapeOf(dat);
    if (dat.size() > kRec27CountOffset && dat[3] == 27) {
        dat[kRec27CountOffset] = static_cast<std::uint8_t>(shape.satellites > 255 ? 255 : shape.satellites);
    }
    return shape;
}

}  // namespace nvbtool
