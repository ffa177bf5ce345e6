#include "external/su/compact_compressors.h"
#include "external/su/position_codec.h"
#include "support/host.h"
#include "support/sequences.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>

namespace nvb {
namespace {

using nvbtest::Bytes;

// The delta of `next` against a history that holds `base` as its reference.
std::array<std::uint8_t, 512> deltaAfter(const nvbtest::Rec11Wire& base, const nvbtest::Rec11Wire& next) {
    const Bytes first = nvbtest::build(base);
    const Bytes second = nvbtest::build(next);
    position_history_t history{};
    std::array<std::uint8_t, 512> out{};
    EXPECT_TRUE(compressPositionReference(history, first.data(), first.size(), out.data(), out.size()));
    EXPECT_EQ(out[1], first.size() - 1);
    EXPECT_TRUE(compressPositionDelta(history, second.data(), second.size(), out.data(), out.size()));
    return out;
}

TEST(PositionCodec, NibbleCodesTrimWithoutSignAndGoRawOnlyFromFourBytes) {
    nvbtest::Rec11Wire base = nvbtest::positionSequence({})[0];
    nvbtest::Rec11Wire next = base;
    next.latitude = base.latitude + 0x01000000;  // four magnitude bytes: raw, code 8
    next.longitude = base.longitude - 0x00FFFFFF; // three bytes, below: code 3 + 4
    next.pdop = static_cast<std::uint16_t>(base.pdop + 0xFF00); // a 2-byte field never goes raw
    const auto out = deltaAfter(base, next);
    EXPECT_EQ(out[3], 0x87);
    EXPECT_EQ(0, std::memcmp(&out[4], &nvbtest::build(next)[3], 4));
    EXPECT_EQ(out[8], 0xFF);
    EXPECT_EQ(out[9], 0xFF);
    EXPECT_EQ(out[10], 0xFF);
    EXPECT_EQ(out[12] & 0x0F, 2); // third code byte, low nibble: pdop
}

TEST(PositionCodec, ListCodeCarriesCountChangesAndResidualFlag) {
    nvbtest::Rec11Wire base = nvbtest::positionSequence({})[0];
    base.svIds = {1, 2, 3, 4};
    base.channels = {0, 1, 2, 3};
    nvbtest::Rec11Wire grown = base;
    grown.svIds.push_back(9);
    grown.channels.push_back(4);
    grown.svIds[1] = 7;
    grown.fixStatus = static_cast<std::uint8_t>(base.fixStatus + 1);
    const auto out = deltaAfter(base, grown);
    // Five code bytes precede the list code; nothing else moved in the head.
    const std::size_t list = 3 + 5 + 0;
    ASSERT_EQ(out[1], list + 1 + 2 + 4 + 2 + 2);
    EXPECT_EQ(out[list], 0x80 | 0x40 | (2 << 1) | 1);
    EXPECT_EQ(out[list + 1], grown.fixStatus);
    EXPECT_EQ(out[list + 2], 5);
    const std::uint8_t changes[] = {1, 7, 4, 9};
    EXPECT_EQ(0, std::memcmp(&out[list + 3], changes, 4));
}

TEST(PositionCodec, ThirtyTwoChangesWrapTheCountSoTheWriterSendsAReference) {
    nvbtest::Rec11Wire base = nvbtest::positionSequence({})[0];
    base.svIds.clear();
    base.channels.clear();
    for (std::uint8_t i = 0; i < 32; ++i) {
        base.svIds.push_back(static_cast<std::uint8_t>(i + 1));
        base.channels.push_back(i);
    }
    nvbtest::Rec11Wire next = base;
    for (std::uint8_t& id : next.svIds) id = static_cast<std::uint8_t>(id + 40);
    const auto out = deltaAfter(base, next);
    EXPECT_EQ(out[8] & 0x3E, 0);
    EXPECT_EQ(out[1], 9 + 64 + 2 + 2);

    nvbtest::CompactLink codec(compressRec11Frame, nvbtest::positionStep);
    const Bytes second = nvbtest::build(next);
    const Bytes compactFirst = codec.compress(nvbtest::build(base));
    const Bytes compactSecond = codec.compress(second);
    EXPECT_EQ(compactFirst[2], kTypePositionReference);
    EXPECT_EQ(compactSecond[2], kTypePositionReference);
    Bytes expanded;
    ASSERT_EQ(codec.expand(compactFirst, expanded), 0);
    ASSERT_EQ(codec.expand(compactSecond, expanded), 0);
    EXPECT_EQ(expanded, second);
}

TEST(PositionCodec, ImageWithMoreThan116SatellitesIsNotParsed) {
    Bytes record(300, 0);
    record[0] = 2;
    record[1] = 255;
    record[42] = 117;
    position_image_t image{};
    image.svCount = 3;
    EXPECT_FALSE(parsePositionImage(record.size(), image, record.data()));
    EXPECT_EQ(image.svCount, 3);
    record[0] = 1;
    record[42] = 2;
    EXPECT_FALSE(parsePositionImage(record.size(), image, record.data()));
}

}  // namespace
}  // namespace nvb
