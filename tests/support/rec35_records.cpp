#include "support/rec35_records.h"

#include "common/byte_sum.h"
#include "common/diagnostics.h"
#include "rec35/rec35_codecs.h"
#include "rec35/rec35_envelope.h"
#include "support/rec35_natives.h"

#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace nvbtest {

namespace {

void putVarint(Bytes& out, std::uint64_t value) {
    while (value >= 0x80) {
        out.push_back(static_cast<std::uint8_t>(value | 0x80));
        value >>= 7;
    }
    out.push_back(static_cast<std::uint8_t>(value));
}

template <typename T>
void putLittleEndian(Bytes& out, T value) {
    std::uint8_t raw[sizeof(T)];
    std::memcpy(raw, &value, sizeof raw);
    out.insert(out.end(), raw, raw + sizeof raw);
}

}  // namespace

Bytes rec35Frame(std::uint8_t code, std::uint64_t subtype, std::uint64_t subsubtype, const Bytes& piece) {
    Bytes frame = {0x02, 0, 35, static_cast<std::uint8_t>(code << 4)};
    putVarint(frame, subtype);
    putVarint(frame, subsubtype);
    frame.insert(frame.end(), piece.begin(), piece.end());
    const std::size_t length = frame.size() + 3;
    frame[1] = static_cast<std::uint8_t>(length);
    frame[3] = static_cast<std::uint8_t>(frame[3] | ((length >> 8) & 0x0F));
    putBigEndian(frame, nvb::byteSum(frame.data(), frame.size()), 2);
    frame.push_back(0x03);
    return frame;
}

Bytes rec35Log(std::uint8_t method, const std::vector<Rec35Piece>& records) {
    Encoder encoder(method);
    for (const Rec35Piece& record : records) {
        std::uint8_t status = 0;
        nvb::writeRec35Fragments(*encoder.get(), record.subtype, record.subsubtype, record.payload, status);
        if (status != 0) throw std::logic_error("a record 35 the encoder refuses: status " + std::to_string(status));
    }
    return encoder.finish();
}

Bytes rec35Dat(std::uint64_t subtype, std::uint64_t subsubtype, const Bytes& payload) {
    const std::size_t length = 24 + payload.size();
    const std::size_t told = length < 0xFFFF ? length : 0xFFFF;
    Bytes dat(length);
    dat[0] = 0x74;
    dat[1] = static_cast<std::uint8_t>(told);
    dat[2] = static_cast<std::uint8_t>(told >> 8);
    dat[3] = 35;
    const auto payloadLength = static_cast<std::uint32_t>(payload.size());
    std::memcpy(dat.data() + 4, &subtype, 8);
    std::memcpy(dat.data() + 12, &subsubtype, 8);
    std::memcpy(dat.data() + 20, &payloadLength, 4);
    std::copy(payload.begin(), payload.end(), dat.begin() + 24);
    return dat;
}

AvroBytes& AvroBytes::longValue(std::int64_t value) {
    putVarint(bytes, (static_cast<std::uint64_t>(value) << 1) ^ static_cast<std::uint64_t>(value >> 63));
    return *this;
}

AvroBytes& AvroBytes::doubleValue(double value) {
    putLittleEndian(bytes, value);
    return *this;
}

AvroBytes& AvroBytes::floatValue(float value) {
    putLittleEndian(bytes, value);
    return *this;
}

AvroBytes& AvroBytes::longArray(const std::vector<std::int64_t>& values) {
    if (!values.empty()) longValue(static_cast<std::int64_t>(values.size()));
    for (const std::int64_t value : values) longValue(value);
    return longValue(0);
}

std::vector<Fft> fftSequence(int count, std::size_t bins) {
    std::vector<Fft> out;
    for (int k = 0; k < count; ++k) {
        Fft fft;
        fft.gps_msecs = 345600000u + static_cast<std::uint32_t>(k) * 1000;
        fft.center_freq = 1575.42e6;
        fft.bin_size = 2441.40625f;
        fft.peak_freq = 1575.42e6 + 1000.0 * std::sin(k * 0.1);
        fft.peak_snr = 30.0f + static_cast<float>(k % 7);
        fft.mean_val = -60 + k % 3;
        for (std::size_t i = 0; i < bins; ++i) {
            fft.FreqData.push_back(static_cast<std::int32_t>(1000 * std::cos(0.05 * static_cast<double>(i + k)) - 200));
        }
        fft.antenna_num = k % 2;
        out.push_back(fft);
    }
    return out;
}

Bytes fftSchema(int version, const std::string& typeOfMean) {
    std::string text =
        "{\"type\": \"record\", \"name\": \"rec35_sub24\", \"namespace\": \"com.halvane.nve.avro\", "
        "\"version\": " +
        std::to_string(version) +
        ", \"description\": \"FFT Data\", \"fields\": ["
        "{\"name\": \"gps_msecs\", \"type\": \"long\"}, {\"name\": \"center_freq\", \"type\": \"double\"}, "
        "{\"name\": \"bin_size\", \"type\": \"float\"}, {\"name\": \"peak_freq\", \"type\": \"double\"}, "
        "{\"name\": \"peak_snr\", \"type\": \"float\"}, {\"name\": \"mean_val\", \"type\": \"" +
        typeOfMean + "\"}, {\"name\": \"FreqData\", \"type\": {\"type\": \"array\", \"items\": \"long\"}}";
    if (version >= 2) text += ", {\"name\": \"antenna_num\", \"type\": \"long\"}";
    if (version >= 3) text += ", {\"name\": \"gain\", \"type\": \"double\"}";
    text += "]}";
    Bytes bytes(text.begin(), text.end());
    bytes.push_back(0);
    return bytes;
}

Bytes fftPayload(const Fft& fft, int version) {
    AvroBytes out;
    out.longValue(fft.gps_msecs).doubleValue(fft.center_freq).floatValue(fft.bin_size);
    out.doubleValue(fft.peak_freq).floatValue(fft.peak_snr).longValue(fft.mean_val);
    out.longArray(std::vector<std::int64_t>(fft.FreqData.begin(), fft.FreqData.end()));
    if (version >= 2) out.longValue(fft.antenna_num);
    if (version >= 3) out.doubleValue(1.5);
    return out.bytes;
}

// A spectrum is the JSON of its native record.
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Fft, gps_msecs, center_freq, bin_size, peak_freq, peak_snr, mean_val, FreqData,
                                   antenna_num)

Rec35Writer::Rec35Writer(std::uint8_t method, std::uint8_t mode) : encoder(method) {
    encoder->rec35Mode = mode;
}

std::uint8_t Rec35Writer::fft(const Fft& fft) {
    const nvb::Rec35Codec& codec = *nvb::rec35CodecAt(kFftSlot);
    const Rec35Native native24(codec, static_cast<std::int64_t>(fft.FreqData.size()));
    setRec35(codec, native24.get(), fft);
    return native(24, native24.get());
}

std::uint8_t Rec35Writer::native(std::uint32_t subtype, void* record) {
    const std::size_t slot = nvb::rec35SlotOf(subtype).value();
    encoder->records.rec35->records[slot] = record;
    std::uint8_t status = 0;
    encoder.put(rec35Dat(subtype, 1, {}), &status);
    encoder->records.rec35->records[slot] = nullptr;
    return status;
}

std::uint8_t Rec35Writer::dat(const Bytes& dat) {
    std::uint8_t status = 0;
    encoder.put(dat, &status);
    return status;
}

namespace {

void processRead(nvb_expand_t* state, Rec35Read& read, Rec35Reads& out) {
    if (read.result <= 0 || (read.status != 0 && read.status != NVB_STATUS_RESYNCHRONISED)) return;
    const std::uint32_t length = nvbdll_processNVBRecord(state, 0, &read.type, &read.processStatus);
    if (read.type != 0) out.statuses.push_back(read.processStatus);
    if (length == 0 || read.processStatus != 0) return;
    // Retrieval packs the system numbers of a record 27 in place.
    if (read.type == 27) out.epochs.push_back(std::make_shared<Rec27>(*state->records.rec27));
    read.dat.assign(length, 0);
    nvbdll_retrieveDATRecord(state, static_cast<std::int16_t>(read.type), read.dat.data());
    out.dats.push_back(read.dat);
    const rec35_content_t* content = state->records.rec35;
    const auto slot = nvb::rec35SlotOf(content->subtype);
    if (read.type != 35 || content->subsubtype == 0 || !slot || content->records[*slot] == nullptr) return;
    const void* native = content->records[*slot];
    out.values.push_back(rec35Json(*nvb::rec35CodecAt(*slot), native));
    if (content->subtype == 24) out.ffts.push_back(out.values.back().get<Fft>());
}

std::uint64_t littleEndianAt(const Bytes& dat, std::size_t at, std::size_t count) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < count; ++i) value |= std::uint64_t{dat.at(at + i)} << (8 * i);
    return value;
}

}  // namespace

Rec35Reads readRec35Log(const Bytes& log, bool swallowSchemas, nvb_expand_t* state) {
    const Handle own;
    nvb_expand_t* reader = state != nullptr ? state : own.get();
    if (state == nullptr) {
        // The records as written: nothing becomes a plain record or is renumbered.
        own->convertRec35Sub2 = own->convertRec35Sub9 = own->convertRec35Sub19 = own->mapSystem7To10 = 0;
    }
    reader->rec35Assembly.schema_swallow = swallowSchemas ? 1 : 0;
    Rec35Reads reads;
    feedByByte(reader, log, Getter::NvbByByte, [&](std::int32_t result, std::uint8_t status) {
        Rec35Read read;
        read.result = result;
        read.status = status;
        processRead(reader, read, reads);
        if (result != 0 || status != 0) reads.all.push_back(read);
    });
    return reads;
}

std::uint64_t datSubtype(const Bytes& dat) {
    return littleEndianAt(dat, 4, 8);
}
std::uint64_t datSubsubtype(const Bytes& dat) {
    return littleEndianAt(dat, 12, 8);
}
Bytes datPayload(const Bytes& dat) {
    return Bytes(dat.begin() + 24, dat.end());
}

MessageLog::MessageLog() : file_(std::tmpfile()), saved_(nvb::logStream) {
    nvb::logStream = file_;
}

MessageLog::~MessageLog() {
    nvb::logStream = saved_;
    std::fclose(file_);
}

std::string MessageLog::text() const {
    std::fflush(file_);
    std::string out;
    std::rewind(file_);
    for (int c = std::fgetc(file_); c != EOF; c = std::fgetc(file_)) out += static_cast<char>(c);
    std::fseek(file_, 0, SEEK_END);
    return out;
}

}  // namespace nvbtest
