#include "stream/block_codecs.h"

#include <brotli/decode.h>
#include <brotli/encode.h>
#include <bzlib.h>
#include <zlib.h>
#include <zstd.h>

#include <climits>
#include <memory>

namespace nvb {

namespace {

constexpr int kBrotliWindowBits = 16;
constexpr int kBzip2Verbosity = 0;
constexpr int kBzip2WorkFactor = 30;
constexpr int kBzip2Small = 0;

// bzip2 and zlib take no const input; an empty input still needs a valid pointer.
std::uint8_t* inputPointer(std::span<const std::uint8_t> in) {
    static std::uint8_t empty = 0;
    return in.empty() ? &empty : const_cast<std::uint8_t*>(in.data());
}

unsigned int clampedSize(std::size_t size) {
    return size > UINT_MAX ? UINT_MAX : static_cast<unsigned int>(size);
}

struct InflateStream {
    z_stream stream{};
    bool open = false;
    InflateStream() { open = inflateInit(&stream) == Z_OK; }
    ~InflateStream() {
        if (open) inflateEnd(&stream);
    }
    InflateStream(const InflateStream&) = delete;
    InflateStream& operator=(const InflateStream&) = delete;
};

struct DeflateStream {
    z_stream stream{};
    bool open = false;
    explicit DeflateStream(int level) { open = deflateInit(&stream, level) == Z_OK; }
    ~DeflateStream() {
        if (open) deflateEnd(&stream);
    }
    DeflateStream(const DeflateStream&) = delete;
    DeflateStream& operator=(const DeflateStream&) = delete;
};

struct BrotliEncoderRelease {
    void operator()(BrotliEncoderState* encoder) const { BrotliEncoderDestroyInstance(encoder); }
};
struct BrotliDecoderRelease {
    void operator()(BrotliDecoderState* decoder) const { BrotliDecoderDestroyInstance(decoder); }
};
using BrotliEncoder = std::unique_ptr<BrotliEncoderState, BrotliEncoderRelease>;
using BrotliDecoder = std::unique_ptr<BrotliDecoderState, BrotliDecoderRelease>;

struct ZstdContextRelease {
    void operator()(ZSTD_CCtx* context) const { ZSTD_freeCCtx(context); }
};
using ZstdContext = std::unique_ptr<ZSTD_CCtx, ZstdContextRelease>;
struct ZstdDecoderRelease {
    void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
};
using ZstdDecoder = std::unique_ptr<ZSTD_DCtx, ZstdDecoderRelease>;

}  // namespace

bool inflateBody(std::span<const std::uint8_t> in, std::span<std::uint8_t> out, std::uint32_t& produced) {
    produced = 0;
    InflateStream inflater;
    if (!inflater.open) return false;
    inflater.stream.next_in = inputPointer(in);
    inflater.stream.avail_in = clampedSize(in.size());
    inflater.stream.next_out = out.data();
    inflater.stream.avail_out = clampedSize(out.size());
    if (inflate(&inflater.stream, Z_FINISH) != Z_STREAM_END) return false;
    produced = static_cast<std::uint32_t>(inflater.stream.total_out);
    return true;
}

bool deflateBody(std::span<const std::uint8_t> in, std::span<std::uint8_t> out, int level, std::uint32_t& produced) {
    produced = 0;
    DeflateStream deflater(level);
    if (!deflater.open) return false;
    deflater.stream.next_in = inputPointer(in);
    deflater.stream.avail_in = clampedSize(in.size());
    deflater.stream.next_out = out.data();
    deflater.stream.avail_out = clampedSize(out.size());
    if (deflate(&deflater.stream, Z_FINISH) != Z_STREAM_END) return false;
    produced = static_cast<std::uint32_t>(deflater.stream.total_out);
    return true;
}

bool bzip2Decompress(std::span<const std::uint8_t> in, std::span<std::uint8_t> out, std::uint32_t& produced) {
    produced = 0;
    unsigned int length = clampedSize(out.size());
    const int result = BZ2_bzBuffToBuffDecompress(reinterpret_cast<char*>(out.data()), &length,
                                                  reinterpret_cast<char*>(inputPointer(in)), clampedSize(in.size()),
                                                  kBzip2Small, kBzip2Verbosity);
    if (result != BZ_OK) return false;
    produced = length;
    return true;
}

bool bzip2Compress(std::span<const std::uint8_t> in, std::span<std::uint8_t> out, int blockSize,
                   std::uint32_t& produced) {
    produced = 0;
    unsigned int length = clampedSize(out.size());
    const int result = BZ2_bzBuffToBuffCompress(reinterpret_cast<char*>(out.data()), &length,
                                                reinterpret_cast<char*>(inputPointer(in)), clampedSize(in.size()),
                                                blockSize, kBzip2Verbosity, kBzip2WorkFactor);
    if (result != BZ_OK) return false;
    produced = length;
    return true;
}

bool brotliDecompress(std::span<const std::uint8_t> in, std::span<std::uint8_t> out, std::uint32_t& produced) {
    produced = 0;
    BrotliDecoder decoder(BrotliDecoderCreateInstance(nullptr, nullptr, nullptr));
    if (!decoder) return false;
    std::size_t availableIn = in.size();
    const std::uint8_t* nextIn = in.data();
    std::size_t availableOut = out.size();
    std::uint8_t* nextOut = out.data();
    const BrotliDecoderResult result =
        BrotliDecoderDecompressStream(decoder.get(), &availableIn, &nextIn, &availableOut, &nextOut, nullptr);
    if (result != BROTLI_DECODER_RESULT_SUCCESS) return false;
    produced = static_cast<std::uint32_t>(out.size() - availableOut);
    return true;
}

bool brotliCompress(std::span<const std::uint8_t> in, std::span<std::uint8_t> out, int quality,
                    std::uint32_t& produced) {
    produced = 0;
    BrotliEncoder encoder(BrotliEncoderCreateInstance(nullptr, nullptr, nullptr));
    if (!encoder) return false;
    if (!BrotliEncoderSetParameter(encoder.get(), BROTLI_PARAM_QUALITY, static_cast<std::uint32_t>(quality)) ||
        !BrotliEncoderSetParameter(encoder.get(), BROTLI_PARAM_LGWIN, kBrotliWindowBits)) {
        return false;
    }
    std::size_t availableIn = in.size();
    const std::uint8_t* nextIn = in.data();
    std::size_t availableOut = out.size();
    std::uint8_t* nextOut = out.data();
    // FINISH in one call as a rule; the encoder may hand back control before it is done,
    // and is then called again while it has room to write.
    for (;;) {
        if (!BrotliEncoderCompressStream(encoder.get(), BROTLI_OPERATION_FINISH, &availableIn, &nextIn, &availableOut,
                                         &nextOut, nullptr)) {
            return false;
        }
        if (BrotliEncoderIsFinished(encoder.get())) break;
        if (availableOut == 0) return false;
    }
    produced = static_cast<std::uint32_t>(out.size() - availableOut);
    return true;
}

bool zstdDecompress(std::span<const std::uint8_t> in, std::span<std::uint8_t> out, std::uint32_t& produced) {
    produced = 0;
    // One context a thread, made at its first block: a block then costs no allocation.
    thread_local const ZstdDecoder decoder(ZSTD_createDCtx());
    if (!decoder) return false;
    const std::size_t result = ZSTD_decompressDCtx(decoder.get(), out.data(), out.size(), in.data(), in.size());
    if (ZSTD_isError(result)) return false;
    produced = static_cast<std::uint32_t>(result);
    return true;
}

bool zstdCompress(std::span<const std::uint8_t> in, std::span<std::uint8_t> out, int level, std::uint32_t& produced) {
    produced = 0;
    thread_local const ZstdContext context(ZSTD_createCCtx());
    if (!context || ZSTD_isError(ZSTD_CCtx_reset(context.get(), ZSTD_reset_session_and_parameters))) return false;
    // The frame carries its content checksum, which every zstd reader verifies: a damaged
    // block fails whole instead of yielding wrong records.
    if (ZSTD_isError(ZSTD_CCtx_setParameter(context.get(), ZSTD_c_compressionLevel, level)) ||
        ZSTD_isError(ZSTD_CCtx_setParameter(context.get(), ZSTD_c_checksumFlag, 1))) {
        return false;
    }
    const std::size_t result = ZSTD_compress2(context.get(), out.data(), out.size(), in.data(), in.size());
    if (ZSTD_isError(result)) return false;
    produced = static_cast<std::uint32_t>(result);
    return true;
}

}  // namespace nvb
