// Property: any DAT record handed to the encoder, in any compression method, is written
// whole or refused whole: the encoder never reads past the length its header announces,
// never writes outside a buffer, and what it wrote reads back without a crash.
#include <nvbdll/nvbdll.h>

#include "host/dat_form.h"
#include "host/host_encoder.h"
#include "records/dat_parser.h"
#include "support/host.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace {

// A record 35 of 65535 bytes or more tells its length behind the subtypes; past this the
// input is taken as ended.
constexpr std::size_t kLongestDat = 1 << 20;

// Every type as the parser takes it, a record 35 as a host keeping every record writes it.
std::size_t datLength(const std::uint8_t* dat, std::size_t available) {
    if (dat[3] != 35) return nvb::parseDatLengthOf(dat);
    const std::size_t length = nvbtool::datRecordLength({dat, available});
    return length == 0 ? kLongestDat + 1 : length;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const nvbtest::Handle reader;
    std::vector<std::uint8_t> output;
    {
        nvbtool::HostEncoder encoder(data[0] % 8, 0, [&output](std::span<const std::uint8_t> unit) {
            output.insert(output.end(), unit.begin(), unit.end());
        });
        encoder.state().rec35Mode = static_cast<std::uint8_t>((data[0] >> 3) & 0x03);
        // The rest is DAT records back to back; each is handed over with exactly the bytes
        // its header announces, as a host must, and the last one padded with zeros.
        std::size_t position = 1;
        while (position + 4 <= size) {
            const std::size_t told = datLength(data + position, size - position);
            if (told > kLongestDat) break;
            const std::size_t length = std::max<std::size_t>(told, 4);
            auto dat = std::make_unique<std::uint8_t[]>(length);
            std::memset(dat.get(), 0, length);
            std::memcpy(dat.get(), data + position, std::min(length, size - position));
            std::uint8_t status = 0;
            encoder.put(dat.get(), status);
            position += length;
        }
        encoder.finish();
    }

    nvbtest::feedByByte(reader.get(), output, nvbtest::Getter::NvbByByte,
                        [&reader](std::int32_t result, std::uint8_t status) {
                            nvbtest::retrieveAnnounced(reader.get(), result, status);
                        });
    return 0;
}
