#include "support/subframe_list_sequences.h"

#include <algorithm>
#include <random>

namespace nvbtest {

namespace {

constexpr std::uint32_t kWeekSeconds = 604800;

struct Satellite {
    std::uint8_t tag;
    std::uint8_t slot;
    std::uint8_t subtype;
    std::uint8_t flag;
};

// The content of one message of a satellite's cycle; three of the twelve change with
// `issue`, the rest stay for the whole sequence.
std::array<std::uint8_t, 32> message(const Satellite& sat, unsigned index, unsigned issue) {
    std::mt19937 random(7919u + sat.tag * 131u + index * 17u + (index < 3 ? issue * 1009u : 0u));
    std::array<std::uint8_t, 32> data{};
    for (std::uint8_t& byte : data) byte = static_cast<std::uint8_t>(random());
    data[0] = static_cast<std::uint8_t>((sat.slot << 2) | (index & 3));
    return data;
}

}  // namespace

Bytes build(const Rec25Wire& record) {
    Body body;
    body.u8(record.subtype).u32(record.time).u16(record.week).u8(record.tag);
    if (record.subtype == 2) body.u8(record.flag);
    const long block = record.subtype == 2 && (record.flag & 0x40) != 0 ? 32 : 28;
    return plainFrame(25, body.raw(Bytes(record.data.begin(), record.data.begin() + block)).bytes);
}

Bytes build(const Rec40Wire& record) {
    Body body;
    body.u8(record.subtype).u16(record.week).u32(record.time);
    for (const auto& [id, value] : record.entries) body.u8(id).u16(value);
    return plainFrame(40, body.bytes);
}

std::vector<Rec25Wire> subframeSequence(const SubframeShape& shape) {
    const Satellite sats[] = {{120, 3, 0, 0}, {124, 17, 0, 0}, {126, 40, 2, 0x40}, {136, 62, 2, 0}};
    std::vector<Rec25Wire> records;
    std::uint32_t time = kWeekSeconds - 502;
    std::uint16_t week = 2301;
    for (unsigned second = 0; records.size() < shape.count; ++second) {
        // The receiver lists the satellites of a second in no fixed order.
        for (std::size_t k = 0; k < std::size(sats) && records.size() < shape.count; ++k) {
            const std::size_t s = (k + second) % std::size(sats);
            const Satellite& sat = sats[s];
            records.push_back({time, week, sat.tag, sat.subtype, sat.flag,
                               message(sat, (second + static_cast<unsigned>(s)) % 12, second / 120)});
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
    std::mt19937 random(1);
    std::vector<std::pair<std::uint8_t, std::uint16_t>> values = {
        {1, 2345}, {2, 60000}, {3, 100}, {5, 7}, {6, 0xFFF0}, {7, 65000}, {8, 4}, {12, 1800}};
    std::vector<Rec40Wire> records;
    std::uint32_t time = (kWeekSeconds - 700) * 1000u;
    std::uint16_t week = 2301;
    for (std::size_t i = 0; i < shape.count; ++i) {
        for (auto& [id, value] : values) {
            const unsigned draw = random() % 100;
            if (draw < 60) continue;
            const int step = draw < 97 ? static_cast<int>(random() % 9) - 4 : static_cast<int>(random() % 2001) - 1000;
            value = static_cast<std::uint16_t>(value + step);
        }
        if (i == shape.count / 5) values.insert(values.begin() + 3, {4, 512});
        Rec40Wire record{static_cast<std::uint8_t>(i % 50 == 49 ? 2 : 1), week, time, values};
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

}  // namespace nvbtest
