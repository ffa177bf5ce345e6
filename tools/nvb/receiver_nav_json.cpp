#include "nvb/receiver_nav_json.h"

#include "nvb/gnss_names.h"
#include "nvb/log_io.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <type_traits>

namespace nvbtool {

namespace {

using json = nlohmann::ordered_json;

// The structures are packed: array fields are copied out element by element.
template <class Element>
json arrayAt(const void* record, std::size_t offset, std::size_t count) {
    const auto* bytes = static_cast<const std::uint8_t*>(record) + offset;
    if constexpr (std::is_same_v<Element, std::uint8_t> || std::is_same_v<Element, char>) {
        std::string hex;
        for (std::size_t i = 0; i < count; ++i) hex += fmt::format("{:02x}", bytes[i]);
        return hex;
    } else {
        json out = json::array();
        for (std::size_t i = 0; i < count; ++i) {
            Element element{};
            std::memcpy(&element, bytes + i * sizeof element, sizeof element);
            out.push_back(element);
        }
        return out;
    }
}

#define NVB_FIELD(out, rec, member) (out)[#member] = fieldValue((rec).member)
#define NVB_ARRAY(out, rec, member)                                              \
    (out)[#member] = arrayAt<std::remove_all_extents_t<decltype((rec).member)>>( \
        &(rec), offsetof(std::remove_cvref_t<decltype(rec)>, member),            \
        sizeof((rec).member) / sizeof(std::remove_all_extents_t<decltype((rec).member)>))

std::string textOf(const char* text, std::size_t capacity) {
    return std::string(text, strnlen(text, capacity));
}

// The system of a record 26 or 28 subtype, as the encoder's system filter knows it.
int systemOf26(std::uint8_t subtype) {
    constexpr int kSystems[] = {0, 2, 3, 3, 3, 3, 0, 2, 7, 4, 4, 7, 4, 9, 3};
    return subtype < std::size(kSystems) ? kSystems[subtype] : -1;
}

int systemOf28(std::uint8_t subtype) {
    constexpr int kSystems[] = {-1, 1, 2, 3, 3, 4, 5, -1, -1, 7, 7, 7, -1, 9};
    return subtype < std::size(kSystems) ? kSystems[subtype] : -1;
}

void addSatellite(json& out, int system, std::uint8_t svId) {
    if (system < 0) return;
    out["system"] = systemName(static_cast<std::uint8_t>(system));
    out["sv"] = satelliteName(static_cast<std::uint8_t>(system), svId);
}

void addEphemeris(json& out, const Rec21& rec, bool withTail) {
    NVB_FIELD(out, rec, svId);
    NVB_FIELD(out, rec, secondByte);
    NVB_ARRAY(out, rec, words);
    NVB_ARRAY(out, rec, bytes);
    NVB_ARRAY(out, rec, dwords);
    NVB_ARRAY(out, rec, doubles);
    NVB_FIELD(out, rec, dword4);
    if (!withTail) return;
    NVB_ARRAY(out, rec, moreBytes);
    NVB_FIELD(out, rec, lastByte);
}

void addRec28(json& out, const Rec28& rec) {
    out["subtype"] = fieldValue(rec.subtype);
    switch (rec.subtype) {
        case 1: {
            const Rec28Sub1& s = rec.sub1;
            addSatellite(out, systemOf28(1), s.svId);
            NVB_FIELD(out, s, svId);
            NVB_FIELD(out, s, word1);
            NVB_FIELD(out, s, dword1);
            NVB_ARRAY(out, s, bytes);
            NVB_ARRAY(out, s, doubles);
            break;
        }
        case 2: {
            const Rec28Sub2& s = rec.sub2;
            addSatellite(out, systemOf28(2), s.svId);
            NVB_FIELD(out, s, svId);
            NVB_FIELD(out, s, word1);
            NVB_FIELD(out, s, dword1);
            NVB_FIELD(out, s, word2);
            NVB_ARRAY(out, s, bytes1);
            NVB_FIELD(out, s, dword2);
            NVB_ARRAY(out, s, bytes2);
            NVB_ARRAY(out, s, doubles);
            break;
        }
        case 3: {
            const Rec28Sub3& s = rec.sub3;
            addSatellite(out, systemOf28(3), s.svId);
            NVB_FIELD(out, s, svId);
            NVB_FIELD(out, s, word1);
            NVB_FIELD(out, s, dword1);
            NVB_FIELD(out, s, word2);
            NVB_FIELD(out, s, dword2);
            NVB_ARRAY(out, s, doubles1);
            NVB_FIELD(out, s, byte1);
            NVB_FIELD(out, s, word3);
            NVB_FIELD(out, s, byte2);
            NVB_FIELD(out, s, tailWord1);
            NVB_FIELD(out, s, tailDword1);
            NVB_ARRAY(out, s, tailDoubles1);
            NVB_FIELD(out, s, tailWord2);
            NVB_FIELD(out, s, tailDword2);
            NVB_ARRAY(out, s, tailDoubles2);
            break;
        }
        case 4: {
            const Rec28Sub4& s = rec.sub4;
            addSatellite(out, systemOf28(4), s.svId);
            NVB_FIELD(out, s, svId);
            NVB_FIELD(out, s, byte1);
            NVB_FIELD(out, s, word1);
            NVB_FIELD(out, s, dword1);
            NVB_FIELD(out, s, word2);
            NVB_FIELD(out, s, dword2);
            NVB_ARRAY(out, s, doubles1);
            NVB_FIELD(out, s, byte2);
            NVB_FIELD(out, s, word3);
            NVB_FIELD(out, s, dword3);
            NVB_ARRAY(out, s, doubles2);
            NVB_FIELD(out, s, byte3);
            NVB_FIELD(out, s, double1);
            NVB_FIELD(out, s, byte4);
            break;
        }
        case 8: {
            const Rec28Sub8& s = rec.sub8;
            NVB_FIELD(out, s, svId);
            NVB_FIELD(out, s, word1);
            NVB_ARRAY(out, s, dwords1);
            NVB_ARRAY(out, s, bytes);
            NVB_ARRAY(out, s, doubles);
            NVB_FIELD(out, s, byte1);
            NVB_FIELD(out, s, dword3);
            NVB_FIELD(out, s, byte2);
            NVB_ARRAY(out, s, words);
            NVB_ARRAY(out, s, dwords2);
            NVB_FIELD(out, s, dword6);
            break;
        }
        case 10: {
            const Rec28Sub10& s = rec.sub10;
            addSatellite(out, systemOf28(10), s.svId);
            NVB_FIELD(out, s, svId);
            NVB_ARRAY(out, s, bytes);
            NVB_FIELD(out, s, word1);
            NVB_ARRAY(out, s, doubles);
            break;
        }
        default:
            addSatellite(out, systemOf28(rec.subtype), rec.common.svId);
            addEphemeris(out, rec.common, false);
            break;
    }
}

void addRec25(json& out, const Rec25& rec, std::uint8_t subtype) {
    out["subtype"] = subtype;
    addSatellite(out, 1, rec.svId);
    NVB_FIELD(out, rec, time);
    NVB_FIELD(out, rec, week);
    NVB_FIELD(out, rec, svId);
    if (subtype == 0) {
        NVB_ARRAY(out, rec.sub0, data);
        return;
    }
    const Rec25Sub2& s = rec.sub2;
    NVB_FIELD(out, s, flags);
    NVB_ARRAY(out, s, data);
    NVB_FIELD(out, s, preamble);
    NVB_FIELD(out, s, crc);
}

void addRec26(json& out, const Rec26& rec, std::uint8_t subtype) {
    out["subtype"] = subtype;
    addSatellite(out, systemOf26(subtype), rec.svId);
    NVB_FIELD(out, rec, time);
    NVB_FIELD(out, rec, week);
    NVB_FIELD(out, rec, svId);
    NVB_FIELD(out, rec, rawByte);
    if ((subtype >= 2 && subtype <= 5) || subtype == 14) {
        const Rec26Page& s = rec.page;
        NVB_FIELD(out, s, flags);
        NVB_FIELD(out, s, extraByte);
        NVB_FIELD(out, s, flagsLow);
        NVB_FIELD(out, s, payloadIndex);
        out["dataLength"] = fieldValue(s.length);
        out["data"] =
            arrayAt<std::uint8_t>(&s, offsetof(Rec26Page, data), std::min<std::size_t>(s.length, sizeof s.data));
    } else if (subtype == 7 || subtype == 12) {
        const Rec26Extended& s = rec.extended;
        NVB_FIELD(out, s, rawWord);
        NVB_FIELD(out, s, extraByte);
        out["dataLength"] = fieldValue(s.length);
        out["data"] =
            arrayAt<std::uint8_t>(&s, offsetof(Rec26Extended, data), std::min<std::size_t>(s.length, sizeof s.data));
    } else {
        const Rec26Plain& s = rec.plain;
        NVB_FIELD(out, s, rawWord);
        out["dataLength"] = fieldValue(s.length);
        out["data"] =
            arrayAt<std::uint8_t>(&s, offsetof(Rec26Plain, data), std::min<std::size_t>(s.length, sizeof s.data));
    }
}

void addRec5(json& out, const Rec5& rec, std::uint8_t subtype) {
    out["subtype"] = subtype;
    switch (subtype) {
        case 0: {
            const Rec5Sub0& s = rec.sub0;
            NVB_FIELD(out, s, word1);
            NVB_ARRAY(out, s, bytes1);
            NVB_FIELD(out, s, byte1);
            NVB_ARRAY(out, s, doubles);
            NVB_ARRAY(out, s, bytes2);
            NVB_FIELD(out, s, textLength);
            out["text"] = textOf(s.text, sizeof s.text);
            break;
        }
        case 1: {
            const Rec5Sub1& s = rec.sub1;
            NVB_FIELD(out, s, word1);
            NVB_ARRAY(out, s, bytes1);
            NVB_FIELD(out, s, byte1);
            NVB_ARRAY(out, s, words);
            NVB_ARRAY(out, s, bytes2);
            NVB_ARRAY(out, s, bytes3);
            NVB_FIELD(out, s, double1);
            NVB_ARRAY(out, s, dwords);
            NVB_FIELD(out, s, byte2);
            break;
        }
        case 2: {
            const Rec5Sub2& s = rec.sub2;
            NVB_ARRAY(out, s, words);
            NVB_ARRAY(out, s, bytes1);
            NVB_ARRAY(out, s, bytes2);
            NVB_ARRAY(out, s, bytes3);
            NVB_FIELD(out, s, presenceMark);
            NVB_ARRAY(out, s, bytes4);
            NVB_FIELD(out, s, double1);
            NVB_FIELD(out, s, dword1);
            NVB_FIELD(out, s, word7);
            NVB_ARRAY(out, s, bytes5);
            break;
        }
        case 3:
            NVB_FIELD(out, rec.sub3, word1);
            NVB_ARRAY(out, rec.sub3, doubles);
            NVB_ARRAY(out, rec.sub3, dwords);
            break;
        case 4:
            NVB_FIELD(out, rec.sub4, word1);
            NVB_ARRAY(out, rec.sub4, bytes);
            NVB_ARRAY(out, rec.sub4, dwords);
            break;
        case 5:
            NVB_FIELD(out, rec.sub5, word1);
            NVB_ARRAY(out, rec.sub5, bytes);
            NVB_ARRAY(out, rec.sub5, dwords);
            break;
        case 6:
            NVB_ARRAY(out, rec.sub6, words);
            NVB_ARRAY(out, rec.sub6, dwords);
            break;
        case 7: {
            const Rec5Sub7& s = rec.sub7;
            NVB_FIELD(out, s, word1);
            NVB_FIELD(out, s, double1);
            NVB_FIELD(out, s, count);
            out["pairs"] = arrayAt<std::uint8_t>(&s, offsetof(Rec5Sub7, pairs),
                                                 2 * std::min<std::size_t>(s.count, NVB_REC5_MAX_PAIRS));
            break;
        }
        default:
            out["body"] = arrayAt<std::uint8_t>(&rec, 0, sizeof rec);
            break;
    }
}

void addRec12(json& out, const Rec12& rec) {
    NVB_FIELD(out, rec, count);
    NVB_FIELD(out, rec, byte1);
    NVB_FIELD(out, rec, word1);
    NVB_FIELD(out, rec, word2);
    NVB_FIELD(out, rec, byte2);
    NVB_FIELD(out, rec, byte3);
    NVB_FIELD(out, rec, word3);
    NVB_ARRAY(out, rec, bytes1);
    NVB_FIELD(out, rec, word4);
    NVB_FIELD(out, rec, unsignedValue);
    NVB_ARRAY(out, rec, bytes2);
    NVB_FIELD(out, rec, dword1);
    NVB_FIELD(out, rec, dword2);
    NVB_FIELD(out, rec, word5);
    NVB_ARRAY(out, rec, bytes3);
    NVB_FIELD(out, rec, signedValue);
    json pairs = json::array();
    const std::size_t count = rec.count > 0 ? std::min<std::size_t>(rec.count - 1u, NVB_REC12_MAX_PAIRS) : 0;
    for (std::size_t j = 0; j < count; ++j)
        pairs.push_back({fieldValue(rec.pairs[j].first), fieldValue(rec.pairs[j].second)});
    out["pairs"] = pairs;
}

void addRec15(json& out, const Rec15& rec) {
    NVB_ARRAY(out, rec, doubles);
    NVB_FIELD(out, rec, signedValue1);
    NVB_FIELD(out, rec, signedValue2);
    NVB_FIELD(out, rec, unsignedValue);
    NVB_ARRAY(out, rec, bytes);
    NVB_FIELD(out, rec, byte1);
}

void addRec19(json& out, const Rec19& rec, std::uint8_t subtype) {
    out["subtype"] = subtype;
    switch (subtype) {
        case 1:
            NVB_FIELD(out, rec.sub1, value);
            NVB_FIELD(out, rec.sub1, word);
            break;
        case 2:
        case 4:
        case 5:
            NVB_FIELD(out, rec.sub2, word);
            NVB_FIELD(out, rec.sub2, value);
            break;
        case 3:
            NVB_FIELD(out, rec.sub3, word);
            out["text"] = textOf(rec.sub3.text, sizeof rec.sub3.text);
            break;
        case 6:
            NVB_FIELD(out, rec.sub6, word);
            NVB_FIELD(out, rec.sub6, value);
            break;
        case 7:
            NVB_FIELD(out, rec.sub7, slot);
            NVB_FIELD(out, rec.sub7, word);
            NVB_FIELD(out, rec.sub7, value);
            break;
        case 8:
            NVB_FIELD(out, rec.sub8, slot);
            NVB_FIELD(out, rec.sub8, word);
            out["text"] = textOf(rec.sub8.text, sizeof rec.sub8.text);
            break;
        default:
            break;
    }
}

void addRec22(json& out, const Rec22& rec) {
    const std::size_t entries = std::min<std::size_t>(rec.count + 1u, NVB_REC22_MAX_ENTRIES);
    NVB_FIELD(out, rec, count);
    NVB_ARRAY(out, rec, doubles);
    NVB_ARRAY(out, rec, bytes1);
    out["byteTable1"] = arrayAt<std::uint8_t>(&rec, offsetof(Rec22, byteTable1), entries);
    NVB_ARRAY(out, rec, bytes2);
    out["byteTable2"] = arrayAt<std::uint8_t>(&rec, offsetof(Rec22, byteTable2), entries);
    NVB_ARRAY(out, rec, words);
    json tables = json::array();
    for (std::size_t t = 0; t < 4; ++t) {
        tables.push_back(
            arrayAt<std::uint32_t>(&rec, offsetof(Rec22, dwordTables) + t * sizeof rec.dwordTables[0], entries));
    }
    out["dwordTables"] = tables;
    NVB_FIELD(out, rec, word5);
    NVB_FIELD(out, rec, dword1);
    NVB_FIELD(out, rec, dword2);
    NVB_FIELD(out, rec, word6);
    NVB_FIELD(out, rec, word7);
}

void addRec30(json& out, const Rec30& rec, std::uint8_t subtype) {
    out["subtype"] = subtype;
    if (subtype == 0) {
        NVB_FIELD(out, rec.sub0, dword1);
        NVB_ARRAY(out, rec.sub0, words);
        return;
    }
    const std::uint8_t count = rec.sections.sectionCount;
    out["sectionCount"] = count;
    if (subtype == 1) {
        const Rec30Sub1& s = rec.sub1;
        const auto section = [&](const char* name, std::size_t index, json fields) {
            if (index >= count) return;
            fields["length"] = fieldValue(rec.sections.section[index].length);
            out[name] = fields;
        };
        section("a", 0, {{"dword1", fieldValue(s.a.dword1)}, {"word1", fieldValue(s.a.word1)}});
        section("b", 1, {{"text", textOf(s.b.text, std::min<std::size_t>(s.b.length, sizeof s.b.text))}});
        section("c", 2, {{"text", textOf(s.c.text, std::min<std::size_t>(s.c.length, sizeof s.c.text))}});
        section("d", 3, {{"words", arrayAt<std::uint16_t>(&s.d, offsetof(Rec30Sub1D, words), 3)}});
        section("e", 4, {{"byte1", fieldValue(s.e.byte1)}});
        section("f", 5,
                {{"dword1", fieldValue(s.f.dword1)},
                 {"bytes", arrayAt<std::uint8_t>(&s.f, offsetof(Rec30Sub1F, bytes), 2)}});
        section("g", 6, {{"bytes", arrayAt<std::uint8_t>(&s.g, offsetof(Rec30Sub1G, bytes), 4)}});
        section("h", 7, {{"bytes", arrayAt<std::uint8_t>(&s.h, offsetof(Rec30Sub1H, bytes), 2)}});
        section("i", 8, {{"byte1", fieldValue(s.i.byte1)}});
        return;
    }
    json sections = json::array();
    for (std::size_t i = 0; i < std::min<std::size_t>(count, NVB_REC30_SECTION_COUNT); ++i) {
        const Rec30Section& section = rec.sections.section[i];
        sections.push_back(
            {{"length", fieldValue(section.length)},
             {"bytes", arrayAt<std::uint8_t>(&section, offsetof(Rec30Section, bytes),
                                             std::min<std::size_t>(section.length, sizeof section.bytes))}});
    }
    out["sections"] = sections;
}

#undef NVB_FIELD
#undef NVB_ARRAY

}  // namespace

bool addNavigationOrReceiverFields(json& out, const nvb_expand_t& state, std::uint16_t type) {
    const nvb_record_table_t& records = state.records;
    const std::uint8_t subtype = records.datHeader[2];
    switch (type) {
        case 21:
            addSatellite(out, 0, records.rec21->svId);
            addEphemeris(out, *records.rec21, true);
            return true;
        case 25:
            addRec25(out, *records.rec25, subtype);
            return true;
        case 26:
            addRec26(out, *records.rec26, subtype);
            return true;
        case 28:
            addRec28(out, *records.rec28);
            return true;
        case 5:
            addRec5(out, *records.rec5, subtype);
            return true;
        case 12:
            addRec12(out, *records.rec12);
            return true;
        case 15:
            addRec15(out, *records.rec15);
            return true;
        case 19:
            addRec19(out, *records.rec19, subtype);
            return true;
        case 22:
            addRec22(out, *records.rec22);
            return true;
        case 24:
            out["values"] = arrayAt<double>(records.rec24, offsetof(Rec24, values), 12);
            out["counters"] = arrayAt<std::uint32_t>(records.rec24, offsetof(Rec24, counters), 2);
            return true;
        case 30:
            addRec30(out, *records.rec30, subtype);
            return true;
        default:
            return false;
    }
}

}  // namespace nvbtool
