// Property: feeding any bytes to any getter, and processing and retrieving whatever it
// announces, never reads or writes outside a buffer and never hangs.
#include <nvbdll/nvbdll.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <vector>

namespace {

void processAnnounced(nvb_expand_t* state, std::int32_t result, std::uint8_t status) {
    if (result <= 0 || (status != 0 && status != 18)) return;
    std::uint16_t type = 0;
    std::uint8_t processStatus = 0;
    const std::uint32_t length = nvbdll_processNVBRecord(state, 0, &type, &processStatus);
    if (length == 0 || processStatus != 0) return;
    // The length the decoding step reported is the room retrieval needs.
    static std::vector<std::uint8_t> dat;
    dat.assign(std::max<std::size_t>(length, 1 << 17), 0);
    nvbdll_retrieveDATRecord(state, static_cast<std::int16_t>(type), dat.data());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool initialised = (nvbdll_initNVBLib(), true);
    (void)initialised;
    if (size == 0) return 0;
    // The first byte picks the getter, the rest is the stream.
    const std::uint8_t getter = data[0] % 3;
    nvb_expand_t* state = nvbdll_GetNVBStateHandle();
    if (getter == 0) {
        std::FILE* file = fmemopen(const_cast<std::uint8_t*>(data + 1), size - 1, "rb");
        if (file != nullptr) {
            for (std::size_t calls = 0; calls < size + 16; ++calls) {
                std::uint8_t status = 0;
                const std::int32_t result = nvbdll_getNVBRecord(state, file, &status);
                if (status == 1) break;
                processAnnounced(state, result, status);
            }
            std::fclose(file);
        }
    } else {
        for (std::size_t i = 1; i < size; ++i) {
            std::uint8_t status = 0;
            std::uint8_t more = 0;
            std::int32_t result = getter == 1 ? nvbdll_getNVBRecordByByte(state, data[i], &status, 1, &more)
                                              : nvbdll_getNVARecordByByte(state, data[i], &status);
            processAnnounced(state, result, status);
            for (int guard = 0; more == 1 && guard < 100000; ++guard) {
                result = nvbdll_getNVBRecordByByte(state, 0, &status, 0, &more);
                processAnnounced(state, result, status);
            }
        }
    }
    nvbdll_FreeNVBStateHandle(state);
    return 0;
}
