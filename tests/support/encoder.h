#ifndef NVB_TESTS_ENCODER_H
#define NVB_TESTS_ENCODER_H

#include <nvbdll/nvbdll.h>

#include "support/frame_builder.h"

#include <cstdint>
#include <vector>

namespace nvbtest {

// An encode state as a host builds it: every structure allocated, the output captured.
class Encoder {
public:
    explicit Encoder(std::uint8_t method, std::uint8_t level = 0);
    ~Encoder();
    Encoder(const Encoder&) = delete;
    Encoder& operator=(const Encoder&) = delete;

    nvb_encode_t* operator->() const { return state_; }
    nvb_encode_t* get() const { return state_; }

    // Hands one DAT record to the encoder; returns what nvbdll_processDATRecord returned.
    std::uint32_t put(const Bytes& dat, std::uint8_t* status = nullptr);
    // Finalises and returns everything written so far.
    const Bytes& finish();
    const Bytes& output() const { return output_; }
    int callbacks() const { return callbacks_; }

private:
    static void capture(const std::uint8_t* buffer, std::uint32_t length, void* context);
    nvb_encode_t* state_;
    Bytes output_;
    int callbacks_ = 0;
};

// A DAT record of a type whose DAT length is in byte 1 alone (14, 16, 22, 23, 24).
Bytes shortDat(std::uint8_t type, std::uint8_t byte2, const Bytes& body);

// The frame the encoder builds from one DAT record, as it stands in a framed block;
// empty when the record is refused, with the encoder's status in `status`.
Bytes writtenFrame(const Bytes& dat, std::uint8_t* status = nullptr);

// DAT records written as one log in `method` and read back whole with the default options.
std::vector<Bytes> writtenAndRead(const std::vector<Bytes>& dats, std::uint8_t method);

// The DAT form of a structure: the header, then its first datLength - 4 bytes. Record 12
// takes the high length byte in byte 2, every other type `byte2` (a subtype or 0).
Bytes structDat(std::uint8_t type, std::uint8_t byte2, const void* rec, std::size_t datLength);

}  // namespace nvbtest

#endif
