#ifndef NVB_TESTS_REC35_RECORDS_H
#define NVB_TESTS_REC35_RECORDS_H

#include <nvbdll/nvbdll.h>

#include "support/host.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace nvbtest {

// A record 35 frame as a receiver writes it: envelope, fragment code, piece, checksum.
Bytes rec35Frame(std::uint8_t code, std::uint64_t subtype, std::uint64_t subsubtype, const Bytes& piece);

// The DAT form of a record 35.
Bytes rec35Dat(std::uint64_t subtype, std::uint64_t subsubtype, const Bytes& payload);

// Avro binary encoding, by hand, to build what another writer would send.
struct AvroBytes {
    Bytes bytes;
    AvroBytes& longValue(std::int64_t value);
    AvroBytes& doubleValue(double value);
    AvroBytes& floatValue(float value);
    AvroBytes& longArray(const std::vector<std::int64_t>& values);
};

// One spectrum of subtype 24 as the host gives it and the reader delivers it.
struct Fft {
    std::uint32_t gps_msecs = 0;
    double center_freq = 0;
    float bin_size = 0;
    double peak_freq = 0;
    float peak_snr = 0;
    std::int32_t mean_val = 0;
    std::vector<std::int32_t> FreqData;
    std::uint32_t antenna_num = 0;

    bool operator==(const Fft&) const = default;
};

// A realistic run of spectra: one a second, slowly moving values.
std::vector<Fft> fftSequence(int count, std::size_t bins);

// Subtype 24 schema texts, with terminating zero: version 2 is the library's field list;
// version 1 lacks antenna_num; version 3 adds a double "gain" at the end. `typeOfMean`
// changes the type of mean_val, for a schema no resolver can match.
Bytes fftSchema(int version, const std::string& typeOfMean = "long");

// A subtype 24 record whole (a reference record) in the schema of `version`.
Bytes fftPayload(const Fft& fft, int version = 2);

// Writes records 35 through an encoder: spectra from native records, as the library's
// own records, and anything else from its DAT form. Each call returns the status.
class Rec35Writer {
public:
    explicit Rec35Writer(std::uint8_t method, std::uint8_t mode = 0);
    std::uint8_t fft(const Fft& fft);
    // A native record of any Avro subtype, as the library's own record.
    std::uint8_t native(std::uint32_t subtype, void* record);
    std::uint8_t dat(const Bytes& dat);
    const Bytes& finish() { return encoder.finish(); }
    Encoder encoder;
};

// What a host sees of one getter result of a record 35 log.
struct Rec35Read {
    std::int32_t result = 0;
    std::uint8_t status = 0;
    std::uint16_t type = 0;
    std::uint8_t processStatus = 0;
    Bytes dat;  // DAT form when delivered
};

// What a host is delivered of a record 35 log, in order: every getter result, the statuses
// of the decoding step for every record not swallowed as a schema record, the DAT forms,
// the spectra, the values of every Avro data record (by rec35Json), and every record 27
// as it stood before its DAT form was retrieved.
struct Rec35Reads {
    std::vector<Rec35Read> all;
    std::vector<std::uint8_t> statuses;
    std::vector<Bytes> dats;
    std::vector<Fft> ffts;
    std::vector<nlohmann::json> values;
    std::vector<std::shared_ptr<Rec27>> epochs;
};

// Reads a log by byte, following `more`; schema records are delivered unless swallowed.
Rec35Reads readRec35Log(const Bytes& log, bool swallowSchemas = false, nvb_expand_t* state = nullptr);

// The parts of a record 35 DAT form.
std::uint64_t datSubtype(const Bytes& dat);
std::uint64_t datSubsubtype(const Bytes& dat);
Bytes datPayload(const Bytes& dat);

// Catches what the library writes to its log stream while it lives.
class MessageLog {
public:
    MessageLog();
    ~MessageLog();
    MessageLog(const MessageLog&) = delete;
    MessageLog& operator=(const MessageLog&) = delete;
    // Everything written so far.
    std::string text() const;

private:
    std::FILE* file_;
    std::FILE* saved_;
};

// The slot of subtype 24 among the 40.
inline constexpr std::size_t kFftSlot = 19;

}  // namespace nvbtest

#endif
