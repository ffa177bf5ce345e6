#include "nvb/record_json.h"

#include "host/dat_form.h"
#include "nvb/gnss_names.h"

#include "records/auxiliary_records.h"
#include "records/navigation_records.h"
#include "records/rec33_records.h"
#include "records/receiver_records.h"
#include "rec35/rec35_codecs.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace nvbtool {

namespace {

using json = nlohmann::ordered_json;

template <class T>
T value(T field) {
    return fieldValue(field);
}

// A single goes out with the digits that tell it apart, not those of its double.
double value(float field) {
    return std::strtod(fmt::format("{}", field).c_str(), nullptr);
}

std::string hexOf(std::span<const std::uint8_t> bytes) {
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const std::uint8_t byte : bytes) text += fmt::format("{:02x}", byte);
    return text;
}

json clockJson(const ClockSystemBlock& clock) {
    json out;
    out["referenceSystem"] = value(clock.referenceSystem);
    json terms = json::array();
    for (std::size_t i = 0; i < std::min<std::size_t>(clock.count, NVB_MAX_CLOCK_TERMS); ++i) {
        terms.push_back({{"system", value(clock.rt_clktype[i])}, {"offset", value(clock.systemClockOffset[i])}});
    }
    out["terms"] = terms;
    return out;
}

void addRec27(json& out, const Rec27& rec) {
    out["week"] = value(rec.weekNum);
    out["time"] = value(rec.receiveTime);
    out["clkOffset"] = value(rec.clkOffset);
    out["epochFlags"] = value(rec.epochFlags);
    if ((rec.epochFlags & 0x02) != 0) out["clkDrift"] = value(rec.clkDrift);
    if ((rec.epochFlags & 0x10) != 0) out["raimFault"] = value(rec.raimFault);
    if ((rec.epochFlags & 0x20) != 0) out["clock"] = clockJson(rec.clock);
    json satellites = json::array();
    for (std::size_t i = 0; i < std::min<std::size_t>(rec.nSv, NVB_MAX_SV); ++i) {
        const Rec27Sv& sv = rec.sv[i];
        json satellite;
        satellite["sv"] = satelliteName(sv.rt_sattype, sv.svId);
        satellite["system"] = value(sv.rt_sattype);
        satellite["svId"] = value(sv.svId);
        satellite["antenna"] = value(sv.antennaNumber);
        satellite["channel"] = value(sv.channel);
        satellite["elevation"] = value(sv.elevation);
        satellite["azimuth"] = value(sv.azimuth);
        satellite["svFlags"] = value(sv.svFlags);
        if ((sv.svFlags & 0x80) != 0) satellite["svFlags2"] = value(sv.svFlags2);
        json signals = json::array();
        for (std::size_t j = 0; j < std::min<std::size_t>(sv.nMeas, NVB_MAX_MEAS); ++j) {
            const Rec27Meas& meas = sv.meas[j];
            json signal;
            signal["band"] = value(meas.blockType);
            signal["track"] = value(meas.trackType);
            signal["snr"] = value(meas.snr) / 10.0;
            signal["range"] = value(meas.range);
            signal["phase"] = value(meas.phase);
            if ((meas.measFlags1 & 0x04) != 0) signal["doppler"] = value(meas.doppler);
            signal["slipCount"] = value(meas.slipCount);
            signal["measFlags1"] = value(meas.measFlags1);
            if ((meas.measFlags1 & 0x80) != 0) signal["measFlags2"] = value(meas.measFlags2);
            if ((meas.measFlags2 & 0x80) != 0) signal["measFlags3"] = value(meas.measFlags3);
            signals.push_back(signal);
        }
        satellite["signals"] = signals;
        satellites.push_back(satellite);
    }
    out["satellites"] = satellites;
}

void addRec29(json& out, const Rec29& rec) {
    out["week"] = value(rec.week);
    out["time"] = value(rec.time);
    out["positionValid"] = value(rec.positionValid);
    out["numSVs"] = value(rec.numSVs);
    out["numSVsUsed"] = value(rec.numSVsUsed);
    out["raimInfo"] = value(rec.raimInfo);
    out["posFlags"] = value(rec.posFlags);
    out["fixMode"] = value(rec.fixMode);
    out["fixType"] = value(rec.fixType);
    out["fixInfo"] = value(rec.fixInfo);
    out["latitude"] = value(rec.latPos);
    out["longitude"] = value(rec.lonPos);
    out["height"] = value(rec.hgtPos);
    out["velocity"] = {value(rec.latVel), value(rec.lonVel), value(rec.hgtVel)};
    out["clkOffset"] = value(rec.clkOffset);
    out["clkDrift"] = value(rec.clkDrift);
    out["pdop"] = value(rec.pdop);
    out["hdop"] = value(rec.hdop);
    out["vdop"] = value(rec.vdop);
    out["tdop"] = value(rec.tdop);
    out["sigma"] = {value(rec.sigmaN), value(rec.sigmaE), value(rec.sigmaU)};
    out["rms"] = value(rec.rms);
    out["unitVariance"] = value(rec.unitVariance);
    if (rec.fixType >= 3 && rec.fixType <= 6) {
        out["correction"] = {
            {"info", value(rec.corrInfo)}, {"age", value(rec.corrAge)}, {"flags", value(rec.corrFlags)}};
    }
    if ((rec.posFlags & 0x02) != 0) {
        out["aux"] = {{"a", value(rec.auxValueA)}, {"b", value(rec.auxValueB)}, {"status", value(rec.auxStatus)}};
    }
    if ((rec.posFlags & 0x10) != 0) out["clock"] = clockJson(rec.clock);
    json satellites = json::array();
    for (std::size_t i = 0; i < std::min<std::size_t>(rec.numSVs, NVB_MAX_SV); ++i) {
        const Rec29SvEntry& entry = rec.sv[i];
        satellites.push_back({{"sv", satelliteName(entry.rt_sattype, entry.svId)}, {"flags", value(entry.flags)}});
    }
    out["satellites"] = satellites;
}

void addRec17(json& out, const Rec17& rec) {
    out["time"] = value(rec.receiveTime);
    out["clkOffset"] = value(rec.clkOffset);
    json satellites = json::array();
    for (std::size_t i = 0; i < std::min<std::size_t>(rec.nSv, NVB_REC17_MAX_SV); ++i) {
        const Rec17Sv& sv = rec.sv[i];
        json satellite = {
            {"svId", value(sv.svId)},           {"svFlags", value(sv.svFlags)}, {"svFlags2", value(sv.svFlags2)},
            {"elevation", value(sv.elevation)}, {"azimuth", value(sv.azimuth)}, {"snr", value(sv.snr)},
            {"range", value(sv.range)},         {"phase", value(sv.phase)},     {"doppler", value(sv.doppler)}};
        if ((sv.svFlags & 0x01) != 0) {
            satellite["snr2"] = value(sv.snr2);
            satellite["phase2"] = value(sv.phase2);
            satellite["rangeDiff2"] = value(sv.rangeDiff2);
        }
        satellites.push_back(satellite);
    }
    out["satellites"] = satellites;
}

void addRec11(json& out, const Rec11& rec) {
    out["time"] = value(rec.time);
    out["latitude"] = value(rec.latitude) * 180.0;
    out["longitude"] = value(rec.longitude) * 180.0;
    out["height"] = value(rec.height);
    out["clockOffset"] = value(rec.clockOffset);
    out["clockDrift"] = value(rec.clockDrift);
    out["pdop"] = value(rec.pdop);
    out["velocity"] = {value(rec.velocity1), value(rec.velocity2), value(rec.velocity3)};
    out["fixStatus"] = value(rec.fixStatus);
    const std::size_t count = std::min<std::size_t>(rec.nSv, NVB_REC11_MAX_SV);
    out["channels"] = std::vector<std::uint8_t>(rec.lists, rec.lists + count);
    out["satellites"] = std::vector<std::uint8_t>(rec.lists + count, rec.lists + 2 * count);
}

// The fields of a record that the library describes, by their names: entries as lists
// of objects, arrays as lists, bytes carried unread as hex.
struct FieldCollector {
    std::vector<json> objects;
    std::vector<std::pair<const char*, bool>> groups;
};

template <class T>
T itemAt(const std::uint8_t* item) {
    T value{};
    std::memcpy(&value, item, sizeof value);
    return value;
}

json itemJson(const nvb::FieldSpec& field, const std::uint8_t* item) {
    if (field.kind == nvb::FieldKind::Real) {
        return field.width == 4 ? json(value(itemAt<float>(item))) : json(itemAt<double>(item));
    }
    if (field.width == 1) return *item;
    if (field.width == 2) return itemAt<std::uint16_t>(item);
    return itemAt<std::uint32_t>(item);
}

void collectField(void* context, const nvb::FieldSpec& field, const std::uint8_t* items) {
    json& object = static_cast<FieldCollector*>(context)->objects.back();
    json values;
    if (field.kind == nvb::FieldKind::Opaque) {
        values = hexOf(std::span<const std::uint8_t>(items, std::size_t{field.width} * field.count));
    } else if (field.count == 1) {
        values = itemJson(field, items);
    } else {
        values = json::array();
        for (std::size_t i = 0; i < field.count; ++i) values.push_back(itemJson(field, items + i * field.width));
    }
    // A field sent in parts (the upper triangle of a matrix) reads as one list.
    if (!object.contains(field.name)) {
        object[field.name] = std::move(values);
        return;
    }
    json& present = object[field.name];
    if (!present.is_array()) present = json::array({present});
    if (values.is_array()) {
        for (json& item : values) present.push_back(std::move(item));
    } else {
        present.push_back(std::move(values));
    }
}

void openGroup(void* context, const char* group, bool repeated) {
    auto* collector = static_cast<FieldCollector*>(context);
    collector->objects.emplace_back(json::object());
    collector->groups.emplace_back(group, repeated);
}

void closeGroup(void* context) {
    auto* collector = static_cast<FieldCollector*>(context);
    json group = std::move(collector->objects.back());
    collector->objects.pop_back();
    const auto [name, repeated] = collector->groups.back();
    collector->groups.pop_back();
    json& parent = collector->objects.back();
    if (repeated) {
        parent[name].push_back(std::move(group));
    } else {
        parent[name] = std::move(group);
    }
}

bool addDescribed(json& out, const DeliveredRecord& record) {
    FieldCollector collector;
    collector.objects.emplace_back(json::object());
    const nvb::FieldSink sink{&collector, collectField, openGroup, closeGroup};
    const nvb_record_table_t& records = record.state->records;
    if (record.type == 33) {
        if (records.rec33 == nullptr) return false;
        nvb::describeRec33(*records.rec33, static_cast<std::uint16_t>(record.length), sink);
    } else if (!nvb::describeAuxiliaryRecord(*record.state, record.type, record.length, sink) &&
               !nvb::describeNavigationRecord(*record.state, record.type, record.length, sink) &&
               !nvb::describeReceiverRecord(*record.state, record.type, record.length, sink)) {
        return false;
    }
    for (auto& [key, field] : collector.objects.front().items()) out[key] = std::move(field);
    return true;
}

// The system of a navigation record's satellite, by its type and subtype: 21 GPS, 25
// SBAS, 26 and 28 as their subtypes name them (28 subtypes 7 and 8 name none).
int navigationSystem(std::uint16_t type, std::uint8_t subtype) {
    constexpr std::array<int, 15> kRaw = {0, 2, 3, 3, 3, 3, 0, 2, 7, 4, 4, 7, 4, 9, 3};
    constexpr std::array<int, 14> kEphemeris = {-1, 1, 2, 3, 3, 4, 5, -1, -1, 7, 7, 7, -1, 9};
    if (type == 21) return 0;
    if (type == 25) return 1;
    if (type == 26) return subtype < kRaw.size() ? kRaw[subtype] : -1;
    if (type == 28) return subtype < kEphemeris.size() ? kEphemeris[subtype] : -1;
    return -1;
}

void addNavigationSatellite(json& out, std::uint16_t type) {
    if (!out.contains("svId")) return;
    const int system = navigationSystem(type, out.value("subtype", std::uint8_t{0}));
    if (system < 0) return;
    out["system"] = systemName(static_cast<std::uint8_t>(system));
    out["sv"] = satelliteName(static_cast<std::uint8_t>(system), out["svId"].get<std::uint8_t>());
}

}  // namespace

std::string rec35Kind(std::uint64_t subtype, std::uint64_t subsubtype) {
    if (!nvb::rec35SlotOf(subtype)) return "record";
    switch (subsubtype) {
        case 0: return "schema";
        case 1: return "reference";
        case 2: return "delta";
        default: return "other";
    }
}

namespace {

json fftJson(const rec35_sub24_t& fft) {
    const auto* bins = static_cast<const std::int32_t*>(fft.FreqData.elements);
    return {{"gps_msecs", value(fft.gps_msecs)},
            {"center_freq", value(fft.center_freq)},
            {"bin_size", value(fft.bin_size)},
            {"peak_freq", value(fft.peak_freq)},
            {"peak_snr", value(fft.peak_snr)},
            {"mean_val", value(fft.mean_val)},
            {"FreqData", std::vector<std::int32_t>(bins, bins + std::max<std::int64_t>(fft.FreqData.count, 0))},
            {"antenna_num", value(fft.antenna_num)}};
}

// The envelope of a record 35, what a schema record names, and the decoded values where
// the library has the subtype's family; the payload in hex otherwise.
void addRec35(json& out, DeliveredRecord& record) {
    const auto rec = rec35DatOf(record.dat());
    if (!rec) return;
    out["subtype"] = rec->subtype;
    out["subsubtype"] = rec->subsubtype;
    out["kind"] = rec35Kind(rec->subtype, rec->subsubtype);
    out["payloadBytes"] = rec->payload.size();
    if (out["kind"] == "schema") {
        const auto zero = std::find(rec->payload.begin(), rec->payload.end(), 0);
        const json schema = json::parse(rec->payload.begin(), zero, nullptr, false);
        if (schema.is_object()) {
            out["schema"] = {{"name", schema.value("name", "")},
                             {"version", schema.value("version", 0)},
                             {"description", schema.value("description", "")}};
            return;
        }
    }
    const void* native = record.state->records.rec35->records[*nvb::rec35SlotOf(24)];
    if (rec->subtype == 24 && rec->subsubtype != 0 && native != nullptr) {
        out["values"] = fftJson(*static_cast<const rec35_sub24_t*>(native));
        return;
    }
    out["hex"] = hexOf(rec->payload);
}

// Types whose DAT header holds a subtype in byte 2 rather than a length byte.
bool headerHoldsSubtype(std::uint16_t type) {
    return !(type <= 2 || type == 12 || type == 17 || type == 27 || type == 29 || type == 101 || type == 102);
}

std::string scalarText(const json& field) {
    if (field.is_string()) return field.get<std::string>();
    if (field.is_number_float()) return fmt::format("{}", field.get<double>());
    return field.dump();
}

void appendText(std::string& text, const json& field);

void appendObject(std::string& text, const json& object, bool braces) {
    if (braces) text += '{';
    bool first = true;
    for (const auto& [key, field] : object.items()) {
        if (!first) text += ' ';
        first = false;
        text += key;
        text += '=';
        appendText(text, field);
    }
    if (braces) text += '}';
}

void appendText(std::string& text, const json& field) {
    if (field.is_object()) {
        appendObject(text, field, true);
    } else if (field.is_array()) {
        text += '[';
        for (std::size_t i = 0; i < field.size(); ++i) {
            if (i > 0) text += ' ';
            appendText(text, field[i]);
        }
        text += ']';
    } else {
        text += scalarText(field);
    }
}

}  // namespace

json recordJson(DeliveredRecord& record) {
    json out;
    out["type"] = record.type;
    out["offset"] = record.offset;
    if (record.unpackedOffset) out["unpackedOffset"] = *record.unpackedOffset;
    out["length"] = record.length;
    const nvb_record_table_t& records = record.state->records;
    switch (record.type) {
        case 27:
            addRec27(out, *records.rec27);
            break;
        case 29:
            addRec29(out, *records.rec29);
            break;
        case 17:
            addRec17(out, *records.rec17);
            break;
        case 11:
            addRec11(out, *records.rec11);
            break;
        case 35:
            addRec35(out, record);
            break;
        default: {
            if (addDescribed(out, record)) {
                addNavigationSatellite(out, record.type);
                break;
            }
            const auto dat = record.dat();
            if (dat.size() >= 4 && headerHoldsSubtype(record.type)) out["subtype"] = dat[2];
            out["hex"] = hexOf(dat.size() > 4 ? dat.subspan(4) : std::span<const std::uint8_t>());
            break;
        }
    }
    return out;
}

std::string recordText(const json& fields) {
    std::string text;
    appendObject(text, fields, false);
    return text;
}

}  // namespace nvbtool
