#ifndef NVB_TESTS_COMPACT_CODEC_H
#define NVB_TESTS_COMPACT_CODEC_H

#include <nvbdll/nvbdll.h>

#include "support/frame_builder.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

namespace nvbtest {

// Compresses plain frames with one of the encode pipeline's compact coders, and expands
// the result through the exported single steps, as a host with its own dispatch would.
class CompactCodec {
public:
    using Compress = std::uint16_t (*)(nvb_encode_t&, const nvb_frame_t&, nvb_frame_t&);
    // Calls the export that serves the compact type of `compact`.
    using Step = std::uint8_t (*)(nvb_expand_t* state, std::uint8_t type, bool framed, std::uint8_t* status);

    CompactCodec(Compress compress, Step step) : compress_(compress), step_(step) {
        encoder->lastPositionReferenceTime = 0xFFFFFFFF;
        encoder->lastSolutionReferenceTime = 0xFFFFFFFF;
        encoder->lastObsReferenceTime = 0xFFFFFFFF;
    }

    Bytes encode(const Bytes& plain) {
        auto in = std::make_unique<nvb_frame_t>();
        auto out = std::make_unique<nvb_frame_t>();
        std::memcpy(in->data, plain.data(), plain.size());
        in->length = static_cast<std::uint16_t>(plain.size());
        const std::uint16_t length = compress_(*encoder, *in, *out);
        return Bytes(out->data, out->data + length);
    }

    std::uint8_t expand(const Bytes& compact, bool framed, Bytes& plain) {
        std::memset(&reader->frame, 0, sizeof reader->frame);
        std::memcpy(reader->frame.data, compact.data(), compact.size());
        reader->frame.length = static_cast<std::uint16_t>(compact.size());
        std::uint8_t status = 0xEE;
        const std::uint8_t result = step_(reader.get(), compact[2], framed, &status);
        EXPECT_EQ(result, status);
        plain.assign(reader->plainFrame.data, reader->plainFrame.data + reader->plainFrame.length);
        return status;
    }

    std::uint8_t expand(const Bytes& compact, Bytes& plain) { return expand(compact, true, plain); }

    std::unique_ptr<nvb_encode_t> encoder = std::make_unique<nvb_encode_t>();
    std::unique_ptr<nvb_expand_t> reader = std::make_unique<nvb_expand_t>();

private:
    Compress compress_;
    Step step_;
};

// A heap copy of exactly the record's size, so that a read one byte past it is seen.
inline std::unique_ptr<std::uint8_t[]> exactCopy(const Bytes& bytes) {
    auto copy = std::make_unique<std::uint8_t[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), copy.get());
    return copy;
}

}  // namespace nvbtest

#endif
