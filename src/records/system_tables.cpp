#include "records/system_tables.h"

#include "common/diagnostics.h"

namespace nvb {

namespace {

// dropMask bits by rt_sattype 0 to 10, and by rt_clktype of the same numbers.
constexpr std::array<std::uint8_t, 11> kSatTypeBits = {0, 1, 2, 3, 4, 5, 7, 5, 8, 6, 5};
constexpr std::array<std::uint8_t, 11> kClkTypeBits = {0, 1, 2, 3, 4, 5, 0, 0, 6, 3, 0};

// System 7 numbers of the system 5 satellites 1 to 11.
constexpr std::array<std::uint8_t, 12> kSystem5To7 = {0, 30, 2, 1, 3, 6, 4, 7, 8, 9, 10, 5};

// Carrier of each band for every system but GLONASS; 0 marks a band without one.
constexpr std::array<double, 11> kBandHz = {1575420000.0, 1227600000.0, 1176450000.0, 1207140000.0,
                                            1191795000.0, 1278750000.0, 1561098000.0, 1268520000.0,
                                            1589742000.0, 0.0,          9752000000.0};

constexpr std::uint8_t kGlonass = 2;

}  // namespace

std::uint8_t sysBitOfSatType(std::uint8_t satType) {
    return satType < kSatTypeBits.size() ? kSatTypeBits[satType] : 0;
}

std::uint8_t sysBitOfClkType(std::uint8_t clkType) {
    return clkType < kClkTypeBits.size() ? kClkTypeBits[clkType] : 0;
}

std::uint8_t remapSystem5Sv(std::uint8_t svId) {
    return svId < kSystem5To7.size() ? kSystem5To7[svId] : 0;
}

double carrierFreqHz(std::uint8_t satType, std::uint8_t band, int channel) {
    if (satType == kGlonass) {
        if (band == 0) return 1602000000.0 + 562500.0 * channel;
        if (band == 1) return 1246000000.0 + 437500.0 * channel;
        if (band == 9) return 1202025000.0;
    } else if (band < kBandHz.size() && kBandHz[band] != 0.0) {
        return kBandHz[band];
    }
    compactAssert(false);
    return 0.0;
}

}  // namespace nvb
