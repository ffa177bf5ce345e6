// Property: any DAT record handed to the encoder, in any compression method, is written
// whole or refused whole: the encoder never reads past the length its header announces,
// never writes outside a buffer, and what it wrote reads back without a crash.
#include <nvbdll/nvbdll.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <new>
#include <vector>

namespace {

constexpr std::array<std::size_t, 38> kSlotSizes = {
    4,   252, 78,  78,  78,  202,  106, 160, 118, 20, 5,   86,   142, 832, 120,  250, 1937, 259, 264,
    186, 213, 104, 204, 139, 22021, 214, 571, 343, 260, 99, 464, 1254, 196, 187, 1032, 4103, 42,  833,
};

// A record 35 of 65535 bytes or more tells its length behind the subtypes.
constexpr std::size_t kLongestDat = 1 << 20;

std::size_t slotSize(std::size_t slot) { return slot == 32 ? sizeof(rec35_content_t) : kSlotSizes[slot]; }

std::size_t datLength(const std::uint8_t* header, std::size_t available) {
    const bool twoBytes = header[3] == 12 || header[3] == 17 || header[3] == 27 || header[3] == 29 || header[3] == 34 ||
                          header[3] == 35 || header[3] == 98 || header[3] == 99;
    const std::size_t told = twoBytes ? header[1] | (header[2] << 8) : header[1];
    if (header[3] != 35 || told != 0xFFFF) return told;
    if (available < 24) return kLongestDat + 1;
    std::uint32_t payload = 0;
    std::memcpy(&payload, header + 20, 4);
    return 24 + std::size_t{payload};
}

void collect(const std::uint8_t* buffer, std::uint32_t length, void* context) {
    auto* out = static_cast<std::vector<std::uint8_t>*>(context);
    out->insert(out->end(), buffer, buffer + length);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool initialised = (nvbdll_initNVBLib(), true);
    (void)initialised;
    if (size < 2) return 0;
    auto* state = new nvb_encode_t();
    nvbdll_initDATEncodeState(state);
    void** slots = reinterpret_cast<void**>(&state->records);
    for (std::size_t slot = 0; slot < kSlotSizes.size(); ++slot) slots[slot] = ::operator new[](slotSize(slot));
    for (std::size_t slot = 0; slot < kSlotSizes.size(); ++slot) std::memset(slots[slot], 0, slotSize(slot));
    std::vector<std::uint8_t> output;
    state->compressionMethod = data[0] % 8;
    state->rec35Mode = static_cast<std::uint8_t>((data[0] >> 3) & 0x03);
    state->writeCallback = collect;
    state->writeContext = &output;

    // The rest is DAT records back to back; each is handed over with exactly the bytes
    // its header announces, as a host must, and the last one padded with zeros.
    std::size_t position = 1;
    while (position + 4 <= size) {
        const std::uint8_t* header = data + position;
        const std::size_t length = datLength(data + position, size - position);
        if (length > kLongestDat) break;
        std::vector<std::uint8_t> dat(std::max<std::size_t>(length, 4), 0);
        std::memcpy(dat.data(), header, std::min(dat.size(), size - position));
        std::uint8_t status = 0;
        nvbdll_processDATRecord(state, dat.data(), &status);
        position += std::max<std::size_t>(length, 4);
    }
    nvbdll_finalizeDATProcessing(state);

    for (std::size_t slot = 0; slot < kSlotSizes.size(); ++slot) ::operator delete[](slots[slot]);
    std::memset(slots, 0, kSlotSizes.size() * sizeof(void*));
    nvbdll_freeEncodeState(state);

    nvb_expand_t* reader = nvbdll_GetNVBStateHandle();
    std::vector<std::uint8_t> dat;
    for (std::size_t i = 0; i < output.size(); ++i) {
        std::uint8_t status = 0;
        std::uint8_t more = 0;
        std::int32_t result = nvbdll_getNVBRecordByByte(reader, output[i], &status, 1, &more);
        for (int guard = 0; guard < 100000; ++guard) {
            if (result > 0 && (status == 0 || status == 18)) {
                std::uint16_t type = 0;
                std::uint8_t processStatus = 0;
                const std::uint32_t length = nvbdll_processNVBRecord(reader, 0, &type, &processStatus);
                if (length > 0 && processStatus == 0) {
                    dat.assign(std::max<std::size_t>(length, 1 << 17), 0);
                    nvbdll_retrieveDATRecord(reader, static_cast<std::int16_t>(type), dat.data());
                }
            }
            if (more != 1) break;
            result = nvbdll_getNVBRecordByByte(reader, 0, &status, 0, &more);
        }
    }
    nvbdll_FreeNVBStateHandle(reader);
    return 0;
}
