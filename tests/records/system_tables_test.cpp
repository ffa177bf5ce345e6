#include "records/system_tables.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

TEST(SystemTables, BandCarriersAreMultiplesOfTheFundamental) {
    // Every band up to 8 is an integral multiple of 1.023 MHz.
    for (std::uint8_t band = 0; band <= 8; ++band) {
        const double multiple = nvb::carrierFreqHz(0, band, 0) / 1.023e6;
        EXPECT_EQ(multiple, std::round(multiple)) << int(band);
    }
    EXPECT_EQ(nvb::carrierFreqHz(3, 10, 0), 9752000000.0);
}

TEST(SystemTables, GlonassChannelsKeepTheRatioOfItsTwoBands) {
    for (int k = -7; k <= 6; ++k) {
        EXPECT_DOUBLE_EQ(nvb::carrierFreqHz(2, 1, k) / nvb::carrierFreqHz(2, 0, k), 7.0 / 9.0) << k;
    }
    EXPECT_EQ(nvb::carrierFreqHz(2, 0, -7), 1602000000.0 - 7 * 562500.0);
    EXPECT_EQ(nvb::carrierFreqHz(2, 9, 3), 1202025000.0);
}

TEST(SystemTables, UnknownCarrierCombinationsGiveZero) {
    EXPECT_EQ(nvb::carrierFreqHz(0, 9, 0), 0.0) << "band 9 is GLONASS only";
    EXPECT_EQ(nvb::carrierFreqHz(0, 11, 0), 0.0);
    EXPECT_EQ(nvb::carrierFreqHz(2, 2, 0), 0.0);
}

}  // namespace
