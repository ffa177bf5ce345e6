#include "support/encoder.h"

#include "support/reader.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>

namespace nvbtest {

namespace {

constexpr std::array<std::size_t, 38> kSlotSizes = {
    4,   252, 78,  78,  78,  202,  106, 160, 118, 20, 5,   86,   142, 832, 120,  250, 1937, 259, 264,
    186, 213, 104, 204, 139, 22021, 214, 571, 343, 260, 99, 464, 1254, 196, 187, 1032, 4103, 42,  833,
};
constexpr std::array<std::size_t, 19> kLibraryFreedSlots = {0, 6, 12, 13, 14, 15, 16, 17, 19, 22,
                                                            23, 24, 25, 26, 27, 28, 33, 34, 35};

constexpr std::size_t kContentSlot = 32;

bool freedByLibrary(std::size_t slot) {
    for (const std::size_t freed : kLibraryFreedSlots) {
        if (freed == slot) return true;
    }
    return false;
}

}  // namespace

Encoder::Encoder(std::uint8_t method, std::uint8_t level) : state_(new nvb_encode_t()) {
    initLibrary();
    nvbdll_initDATEncodeState(state_);
    void** slots = reinterpret_cast<void**>(&state_->records);
    for (std::size_t slot = 0; slot < kSlotSizes.size(); ++slot) {
        // The record 35 content holds pointers: its size is that of the platform's.
        const std::size_t size = slot == kContentSlot ? sizeof(rec35_content_t) : kSlotSizes[slot];
        slots[slot] = ::operator new(size);
        std::memset(slots[slot], 0, size);
    }
    state_->compressionMethod = method;
    state_->compressionLevel = level;
    state_->writeCallback = &Encoder::capture;
    state_->writeContext = this;
}

Encoder::~Encoder() {
    void** slots = reinterpret_cast<void**>(&state_->records);
    for (std::size_t slot = 0; slot < kSlotSizes.size(); ++slot) {
        if (!freedByLibrary(slot)) ::operator delete(slots[slot]);
    }
    nvbdll_freeEncodeState(state_);
}

std::uint32_t Encoder::put(const Bytes& dat, std::uint8_t* status) {
    std::uint8_t local = 0;
    Bytes copy = dat;
    return nvbdll_processDATRecord(state_, copy.data(), status != nullptr ? status : &local);
}

const Bytes& Encoder::finish() {
    nvbdll_finalizeDATProcessing(state_);
    return output_;
}

void Encoder::capture(const std::uint8_t* buffer, std::uint32_t length, void* context) {
    auto* self = static_cast<Encoder*>(context);
    self->output_.insert(self->output_.end(), buffer, buffer + length);
    ++self->callbacks_;
}

Bytes shortDat(std::uint8_t type, std::uint8_t byte2, const Bytes& body) {
    Bytes dat(body.size() + 4);
    dat[0] = 0x74;
    dat[1] = static_cast<std::uint8_t>(body.size() + 4);
    dat[2] = byte2;
    dat[3] = type;
    std::copy(body.begin(), body.end(), dat.begin() + 4);
    return dat;
}

Bytes writtenFrame(const Bytes& dat, std::uint8_t* status) {
    Encoder encoder(1);
    std::uint8_t local = 0;
    std::uint8_t& reported = status != nullptr ? *status : local;
    const std::uint32_t before = encoder->recordCount;
    encoder.put(dat, &reported);
    if (encoder->recordCount == before) return {};
    return Bytes(encoder->frame.data, encoder->frame.data + encoder->frame.length);
}

std::vector<Bytes> writtenAndRead(const std::vector<Bytes>& dats, std::uint8_t method) {
    Encoder encoder(method);
    for (const Bytes& dat : dats) encoder.put(dat);
    Handle handle;
    return deliveredDat(readStream(handle.get(), encoder.finish(), Getter::NvbFile));
}

Bytes structDat(std::uint8_t type, std::uint8_t byte2, const void* rec, std::size_t datLength) {
    const auto* bytes = static_cast<const std::uint8_t*>(rec);
    Bytes dat = shortDat(type, type == 12 ? static_cast<std::uint8_t>(datLength >> 8) : byte2,
                         Bytes(bytes, bytes + (datLength - 4)));
    dat[1] = static_cast<std::uint8_t>(datLength);
    return dat;
}

}  // namespace nvbtest
