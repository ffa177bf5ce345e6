#include "support/subframe_list_sequences.h"

#include <algorithm>
#include <random>

namespace nvbtest {

namespace {

constexpr std::uint32_t kWeekSeconds = 604800;

void putBigEndian(Bytes& bytes, std::uint64_t value, unsigned width) {
    for (unsigned i = width; i-- > 0;) bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

void closeRecord(Bytes& bytes) {
    bytes[1] = static_cast<std::uint8_t>(bytes.size() + 3);
    std::uint16_t sum = 0;
    for (std::uint8_t byte : bytes) sum = static_cast<std::uint16_t>(sum + byte);
    putBigEndian(bytes, sum, 2);
    bytes.push_back(3);
}

struct Satellite {
    std::uint8_t tag;
    std::uint8_t slot;
    std::uint8_t subtype;
    std::uint8_t flag;
};

// The content of one message of a satellite's cycle; three of the twelve change with
// `issue`, the rest stay for the whole sequence.
std::array<std::uint8_t, 32> message(const Satellite& sat, unsigned index, unsigned issue, std::uint32_t seed) {
    std::mt19937 random(seed * 7919u + sat.tag * 131u + index * 17u + (index < 3 ? issue * 1009u : 0u));
    std::array<std::uint8_t, 32> data{};
    for (std::uint8_t& byte : data) byte = static_cast<std::uint8_t>(random());
    data[0] = static_cast<std::uint8_t>((sat.slot << 2) | (index & 3));
    return data;
}

}  // namespace

Bytes buildRec25(const Rec25Wire& record) {
    Bytes bytes = {2, 0, 25, record.subtype};
    putBigEndian(bytes, record.time, 4);
    putBigEndian(bytes, record.week, 2);
    bytes.push_back(record.tag);
    std::size_t block = 28;
    if (record.subtype == 2) {
        bytes.push_back(record.flag);
        if ((record.flag & 0x40) != 0) block = 32;
    }
    bytes.insert(bytes.end(), record.data.begin(), record.data.begin() + static_cast<long>(block));
    closeRecord(bytes);
    return bytes;
}

Bytes buildRec40(const Rec40Wire& record) {
    Bytes bytes = {2, 0, 40, record.subtype};
    putBigEndian(bytes, record.week, 2);
    putBigEndian(bytes, record.time, 4);
    for (const auto& [id, value] : record.entries) {
        bytes.push_back(id);
        putBigEndian(bytes, value, 2);
    }
    closeRecord(bytes);
    return bytes;
}

std::vector<Rec25Wire> subframeSequence(const SubframeShape& shape) {
    const Satellite sats[] = {{120, 3, 0, 0}, {124, 17, 0, 0}, {126, 40, 2, 0x40}, {136, 62, 2, 0}};
    std::vector<Rec25Wire> records;
    std::uint32_t time = kWeekSeconds - shape.secondsBeforeWeekEnd;
    std::uint16_t week = shape.week;
    for (unsigned second = 0; records.size() < shape.count; ++second) {
        // The receiver lists the satellites of a second in no fixed order.
        for (std::size_t k = 0; k < std::size(sats) && records.size() < shape.count; ++k) {
            const std::size_t s = (k + second) % std::size(sats);
            const Satellite& sat = sats[s];
            Rec25Wire record;
            record.time = time;
            record.week = week;
            record.tag = sat.tag;
            record.subtype = sat.subtype;
            record.flag = sat.flag;
            record.data = message(sat, (second + static_cast<unsigned>(s)) % 12, second / 120, shape.seed);
            records.push_back(record);
        }
        if (second % 97 == 50 && records.size() < shape.count) {
            Rec25Wire odd = records.back();
            odd.data[0] = static_cast<std::uint8_t>(0xFC | (second & 3));
            records.push_back(odd);
        }
        if (++time == kWeekSeconds) {
            time = 0;
            ++week;
        }
    }
    return records;
}

std::vector<Rec40Wire> listSequence(const ListShape& shape) {
    std::mt19937 random(shape.seed);
    std::vector<std::pair<std::uint8_t, std::uint16_t>> values = {
        {1, 2345}, {2, 60000}, {3, 100}, {5, 7}, {6, 0xFFF0}, {7, 65000}, {8, 4}, {12, 1800}};
    std::vector<Rec40Wire> records;
    std::uint32_t time = (kWeekSeconds - shape.secondsBeforeWeekEnd) * 1000u;
    std::uint16_t week = shape.week;
    for (std::size_t i = 0; i < shape.count; ++i) {
        for (auto& [id, value] : values) {
            const unsigned draw = random() % 100;
            if (draw < 60) continue;
            const int step = draw < 97 ? static_cast<int>(random() % 9) - 4 : static_cast<int>(random() % 2001) - 1000;
            value = static_cast<std::uint16_t>(value + step);
        }
        if (i == shape.count / 5) values.insert(values.begin() + 3, {4, 512});
        Rec40Wire record;
        record.week = week;
        record.time = time;
        record.subtype = i % 50 == 49 ? 2 : 1;
        record.entries = values;
        const std::size_t third = shape.count / 3;
        if (i >= third && i < third + 40) record.entries.erase(record.entries.begin() + 5);
        records.push_back(record);
        time += 1000;
        if (time == kWeekSeconds * 1000u) {
            time = 0;
            ++week;
        }
    }
    return records;
}

std::vector<Bytes> buildAll(const std::vector<Rec25Wire>& records) {
    std::vector<Bytes> out;
    for (const Rec25Wire& record : records) out.push_back(buildRec25(record));
    return out;
}

std::vector<Bytes> buildAll(const std::vector<Rec40Wire>& records) {
    std::vector<Bytes> out;
    for (const Rec40Wire& record : records) out.push_back(buildRec40(record));
    return out;
}

}  // namespace nvbtest
