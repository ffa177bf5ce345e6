// The subframe cache (types 84 to 86 for record 25) and the list codec (type 41 for record
// 40). What both promise is written once over a traits struct: a long realistic sequence
// comes back byte for byte through the writer's hook, the single step and the dispatch, and
// a damaged record half-way gives its status and leaves the history byte-identical; after
// a lost record nothing wrong is delivered and all comes right at the next restart. The
// corner values of each follow as tables.
#include "external/su/list_codec.h"
#include "external/su/subframe_cache.h"

#include "common/byte_sum.h"
#include "su/pinned_rows.h"
#include "support/host.h"
#include "support/subframe_list_sequences.h"

#include <nvbdll/nvbdll.h>

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>

namespace nvb {
namespace {

using nvbtest::Bytes;
using nvbtest::PinnedRow;
using nvbtest::pinnedRows;

const std::string kFile = "subframe_list.txt";

struct Subframes {
    using History = subframe_cache_t;
    static constexpr const char* kName = "Subframes";
    static constexpr std::uint8_t kPlainType = kTypeSubframe;
    // The writer restarts the cache by itself, at least every ten minutes.
    static constexpr bool kRestartsItself = true;
    static nvbtest::CompactLink codec() {
        return nvbtest::CompactLink(compressRec25Frame, [](nvb_expand_t* state, std::uint8_t, bool, std::uint8_t* status) {
            return nvbdll_processType84(state, status);
        });
    }
    static std::vector<Bytes> sequence() { return nvbtest::buildAll(nvbtest::subframeSequence({})); }
    template <typename State>
    static History& history(State& state) {
        return state.subframeCache;
    }
    static std::string form(const Bytes& compact) {
        switch (compact[2]) {
            case kTypeSubframeFirst: return "85";
            case kTypeSubframeShort: return compact[1] == 11 ? "84 reference" : "84 literal";
            case kTypeSubframeLong:
                return compact[3] == 2 ? (compact[9] & 0x40 ? "86 reference of 32" : "86 reference of 28")
                                       : compact[3] == 0 ? "86 first" : "86 literal";
            default: return "plain";
        }
    }
    static std::set<std::string> coverage() {
        return {"85", "84 reference", "84 literal", "86 first", "86 literal", "86 reference of 32",
                "86 reference of 28", "plain"};
    }
    static bool restartsAt(const Bytes& compact) { return form(compact) == "85" || form(compact) == "86 first"; }
    static bool lossBites(const Bytes& compact) { return form(compact) == "84 literal"; }
    // The records that the damaged rows name, from the sequence so far.
    static std::map<std::string, Bytes> samples(const std::vector<Bytes>& compacts) {
        std::map<std::string, Bytes> named;
        for (const Bytes& compact : compacts) {
            if (form(compact) == "84 reference") named["reference"] = compact;
            if (form(compact) == "84 literal") named["literal"] = compact;
            if (form(compact) == "86 reference of 32") named["long-reference"] = compact;
        }
        return named;
    }
};

struct Lists {
    using History = list_state_t;
    static constexpr const char* kName = "Lists";
    static constexpr std::uint8_t kPlainType = kTypeList;
    // Type 41 has no reference form: only a reset of both sides starts it over.
    static constexpr bool kRestartsItself = false;
    static nvbtest::CompactLink codec() {
        return nvbtest::CompactLink(compressRec40Frame, [](nvb_expand_t* state, std::uint8_t, bool, std::uint8_t* status) {
            return nvbdll_processType41(state, status);
        });
    }
    static std::vector<Bytes> sequence() { return nvbtest::buildAll(nvbtest::listSequence({})); }
    template <typename State>
    static History& history(State& state) {
        return state.listState;
    }
    static std::string form(const Bytes& compact) {
        if (compact[2] != kTypeListCompact) return "plain";
        std::string name = (compact[4] & 0x80) ? "raw week" : (compact[4] & 0x40) ? "next week" : "same week";
        name += (compact[4] & 0x20) ? ", raw time" : (compact[4] & 0x1F) ? ", time off the line" : ", time on the line";
        return name;
    }
    static std::set<std::string> coverage() {
        return {"plain", "raw week, raw time", "next week, raw time", "same week, raw time",
                "same week, time on the line"};
    }
    static bool restartsAt(const Bytes&) { return false; }
    static bool lossBites(const Bytes& compact) { return compact[2] == kTypeListCompact; }
    static std::map<std::string, Bytes> samples(const std::vector<Bytes>& compacts) {
        std::map<std::string, Bytes> named;
        for (const Bytes& compact : compacts) {
            if (compact[2] == kTypeListCompact && compact.size() > 9) named["patched"] = compact;
        }
        // 81 identifiers, more than one length byte tells once rebuilt.
        Bytes& many = named["81-identifiers"] = {2, 254, kTypeListCompact, 1, 0x20, 0, 0, 0, 0};
        for (std::uint8_t id = 1; id <= 81; ++id) many.insert(many.end(), {static_cast<std::uint8_t>(id | 0x80), 0, 1});
        many.insert(many.end(), {0, 0});
        return named;
    }
};

template <typename Codec>
class DictionaryCodec : public ::testing::Test {};

using Codecs = ::testing::Types<Subframes, Lists>;

TYPED_TEST_SUITE(DictionaryCodec, Codecs, nvbtest::RowGroupNames);

// The damaged records are the codec's rows in the data file, tried on the single step before
// the record half-way; the dispatch, which never saw them, must still agree after it.
TYPED_TEST(DictionaryCodec, LongSequenceComesBackByteForByteThroughStepAndDispatchPastDamagedRecords) {
    using Codec = TypeParam;
    const std::vector<Bytes> plains = Codec::sequence();
    nvbtest::CompactLink codec = Codec::codec();
    nvbtest::Handle dispatch;
    std::vector<Bytes> compacts;
    std::set<std::string> seen;
    std::size_t compactBytes = 0, plainBytes = 0;
    for (std::size_t i = 0; i < plains.size(); ++i) {
        const Bytes compact = compacts.emplace_back(codec.compress(plains[i]));
        seen.insert(Codec::form(compact));
        compactBytes += compact.size();
        plainBytes += plains[i].size();
        Bytes expanded;
        if (i == plains.size() / 2) {
            const auto before = std::make_unique<typename Codec::History>(Codec::history(codec.expander()));
            const std::map<std::string, Bytes> named = Codec::samples(compacts);
            for (const PinnedRow& row : pinnedRows(kFile, Codec::kName)) {
                EXPECT_EQ(codec.expand(nvbtest::edited(row, named), expanded), row.number(2)) << row;
                EXPECT_TRUE(expanded.empty()) << row;
                EXPECT_EQ(std::memcmp(before.get(), &Codec::history(codec.expander()), sizeof *before), 0) << row;
            }
        }
        // The dispatch copies a plain frame as it stands; the single step expands the others.
        if (compact[2] != Codec::kPlainType) {
            ASSERT_EQ(codec.expand(compact, expanded), 0) << i;
        } else {
            expanded = compact;
        }
        ASSERT_EQ(expanded, plains[i]) << i << " " << Codec::form(compact);
        const nvbtest::ReadEvent event = nvbtest::processFrame(dispatch.get(), compact);
        ASSERT_TRUE(event.delivered()) << i;
        ASSERT_EQ(event.type, Codec::kPlainType);
        ASSERT_EQ(std::memcmp(&Codec::history(*dispatch.get()), &Codec::history(codec.expander()), sizeof(typename Codec::History)), 0);
    }
    EXPECT_EQ(seen, Codec::coverage());
    EXPECT_LT(compactBytes * 2, plainBytes);
}

TYPED_TEST(DictionaryCodec, AfterALostRecordNothingWrongIsDeliveredAndAllComesRightAtTheNextRestart) {
    using Codec = TypeParam;
    const std::vector<Bytes> plains = Codec::sequence();
    nvbtest::CompactLink codec = Codec::codec();
    nvbtest::Handle reader;
    std::size_t lost = 0, restart = 0, refused = 0;
    for (std::size_t i = 0; i < plains.size(); ++i) {
        if (!Codec::kRestartsItself && lost != 0 && i == lost + 300) {
            nvbdll_resetDATEncodeState(&codec.encoder());
            nvbdll_resetNVBExpandState(reader.get());
            restart = i;
        }
        const Bytes compact = codec.compress(plains[i]);
        if (lost == 0 && i > 200 && Codec::lossBites(compact)) {
            lost = i;
            continue;
        }
        if (lost != 0 && restart == 0 && Codec::restartsAt(compact)) restart = i;
        const nvbtest::ReadEvent event = nvbtest::processFrame(reader.get(), compact);
        if (!event.delivered()) {
            ASSERT_TRUE(lost != 0 && restart == 0) << "refused at " << i;
            ++refused;
            continue;
        }
        Bytes expanded(reader->plainFrame.data, reader->plainFrame.data + reader->plainFrame.length);
        ASSERT_EQ(expanded, plains[i]) << "delivered wrong at " << i;
    }
    EXPECT_NE(lost, 0u);
    EXPECT_NE(restart, 0u);
    EXPECT_GT(refused, 0u);
}

// The corner values of the subframe cache, on a cache of its own.
struct CacheSides {
    std::unique_ptr<subframe_cache_t> writer = std::make_unique<subframe_cache_t>();
    std::unique_ptr<subframe_cache_t> reader = std::make_unique<subframe_cache_t>();
    CacheSides() { writer->first = 1; }
    // The compact form, empty when the record stays out; the rebuilt record beside it.
    std::pair<Bytes, Bytes> pass(const Bytes& plain) {
        Bytes compact(64, 0), rebuilt(64, 0);
        if (!compressSubframe(*writer, plain.data(), plain.size(), compact.data(), compact.size())) return {};
        compact.resize(compact[1]);
        EXPECT_TRUE(expandSubframe(*reader, compact.data(), compact.size(), rebuilt.data(), rebuilt.size()));
        rebuilt.resize(rebuilt[1]);
        return {compact, rebuilt};
    }
};

// A record 25 of `slot` whose data bytes count up from `seed`.
Bytes block(std::uint8_t slot, std::uint8_t seed, std::uint32_t time = 345600, std::uint16_t week = 2301,
            std::uint8_t subtype = 0, std::uint8_t flag = 0) {
    nvbtest::Rec25Wire record{.time = time, .week = week, .tag = 131, .subtype = subtype, .flag = flag};
    for (std::size_t i = 0; i < record.data.size(); ++i) record.data[i] = static_cast<std::uint8_t>(seed * 31 + i);
    record.data[0] = static_cast<std::uint8_t>(slot << 2);
    return nvbtest::build(record);
}

TEST(SubframeCache, RingOfTwentyHoldsNineteenBlocksAndTheTwentiethPushesTheTailOn) {
    CacheSides sides;
    for (std::uint8_t i = 0; i < 20; ++i) EXPECT_EQ(sides.pass(block(5, i)).first.size(), 41u);
    EXPECT_EQ(sides.pass(block(5, 0)).first.size(), 41u) << "the first fell out";
    const auto [reference, rebuilt] = sides.pass(block(5, 2));
    EXPECT_EQ(reference.size(), 11u);
    EXPECT_EQ(reference[5], 2) << "ring position";
    EXPECT_EQ(rebuilt, block(5, 2));
}

TEST(SubframeCache, TimeDifferencesAtTheEdgesOfTheReferenceForm) {
    for (const PinnedRow& row : pinnedRows(kFile, "cache-time")) {
        CacheSides sides;
        const std::uint32_t start = 700000;
        sides.pass(block(9, 1, start));
        const auto [compact, rebuilt] =
            sides.pass(block(9, 1, static_cast<std::uint32_t>(start + row.number(0)), 2302));
        ASSERT_EQ(compact.size() == 11, row.number(1) != 0) << row;
        if (compact.size() != 11) continue;
        EXPECT_EQ(readU16BigEndian(&compact[6]), row.number(2)) << row;
        // The reference carries no week: the rebuilt record counts the same instant from the
        // cache's week, and its carried checksum is the original's.
        Bytes sameInstant = block(9, 1, start + row.number<std::uint32_t>(2));
        std::copy(compact.end() - 2, compact.end(), sameInstant.end() - 3);
        EXPECT_EQ(rebuilt, sameInstant) << row;
    }
}

TEST(SubframeCache, BlocksThatStayOutOrMissTheRing) {
    CacheSides sides;
    EXPECT_TRUE(sides.pass(block(63, 1)).first.empty()) << "slot 63 writes nothing";
    EXPECT_EQ(sides.writer->first, 1) << "and leaves the cache alone";

    const Bytes shortBlock = block(7, 4, 345600, 2301, 2);
    EXPECT_EQ(sides.pass(shortBlock).first.size(), 42u);
    EXPECT_EQ(sides.pass(block(7, 4, 345600, 2301, 2, 0x40)).first.size(), 46u) << "same bytes, another length";
    EXPECT_EQ(sides.pass(shortBlock).first.size(), 12u);
}

TEST(SubframeCache, LiteralFormsCarryTheFirstMarkAndTheirSubtypeByte) {
    CacheSides sides;
    Bytes withoutEnd = block(2, 1, 345600, 2301, 2);
    withoutEnd.pop_back();
    withoutEnd[1] = 42;
    withoutEnd[2] = 86;
    withoutEnd[3] = 0;
    EXPECT_EQ(sides.pass(block(2, 1, 345600, 2301, 2)).first, withoutEnd);
    const Bytes later = sides.pass(block(2, 2)).first;
    EXPECT_EQ((std::vector<std::uint8_t>{later[1], later[2], later[3]}), (std::vector<std::uint8_t>{41, 84, 0}));
    const auto [literal, rebuilt] = sides.pass(block(2, 3, 345600, 2301, 2));
    EXPECT_EQ(literal[3], 1);
    EXPECT_EQ(rebuilt[3], 2);
}

TEST(SubframeCache, WriterRestartsAtTheFirstRecordWhenTimeGoesBackAndEveryTenMinutes) {
    nvbtest::CompactLink codec = Subframes::codec();
    for (const PinnedRow& row : pinnedRows(kFile, "cache-restart")) {
        const Bytes compact = codec.compress(block(4, 1, row.number<std::uint32_t>(0), row.number<std::uint16_t>(1)));
        EXPECT_EQ(compact.size(), compact[1]) << row;
        EXPECT_EQ(compact[2], row.number(2)) << row;
    }
}

// The corner values of the list codec.
struct ListSides {
    list_state_t writer{};
    list_state_t reader{};
    std::pair<Bytes, Bytes> pass(const Bytes& plain) {
        Bytes compact(256, 0), rebuilt(256, 0);
        EXPECT_TRUE(compressListRecord(writer, plain.data(), plain.size(), compact.data(), compact.size()));
        compact.resize(compact[1]);
        EXPECT_EQ(expandListRecord(reader, compact.data(), compact.size(), rebuilt.data(), rebuilt.size()), 0);
        rebuilt.resize(rebuilt[1]);
        return {compact, rebuilt};
    }
};

// A record 40 of a row's fields from `at`: time, week, entries (identifier=value, - for none).
nvbtest::Rec40Wire list(const PinnedRow& row, std::size_t at, std::uint16_t week) {
    nvbtest::Rec40Wire record{1, week, row.number<std::uint32_t>(at), {}};
    std::istringstream entries(row.fields.at(at + 1) == "-" ? "" : row.fields.at(at + 1));
    for (std::string entry; std::getline(entries, entry, ',');) {
        const std::size_t equals = entry.find('=');
        record.entries.emplace_back(static_cast<std::uint8_t>(std::stoi(entry.substr(0, equals))),
                                    static_cast<std::uint16_t>(std::stoi(entry.substr(equals + 1))));
    }
    return record;
}

TEST(ListCodec, CodeByteAndPatchSizes) {
    for (const PinnedRow& row : pinnedRows(kFile, "list-code")) {
        ListSides sides;
        sides.pass(nvbtest::build(nvbtest::Rec40Wire{1, 2301, 1000, {{1, 100}, {2, 200}}}));
        sides.pass(nvbtest::build(nvbtest::Rec40Wire{1, 2301, 2000, {{1, 100}, {2, 200}}}));
        const nvbtest::Rec40Wire next = list(row, 0, row.number<std::uint16_t>(2));
        const Bytes plain = nvbtest::build(next);
        const auto [compact, rebuilt] = sides.pass(plain);
        EXPECT_EQ(compact[4], row.number(3)) << row;
        EXPECT_EQ(compact.size(), row.number<std::size_t>(4)) << row;
        if (!next.entries.empty()) {
            EXPECT_EQ(rebuilt, plain) << row;
        }
    }
}

TEST(ListCodec, WriterSendsAsPlainWhatTheExpanderWouldRebuildOtherwise) {
    nvbtest::CompactLink codec = Lists::codec();
    for (const PinnedRow& row : pinnedRows(kFile, "list-form")) {
        nvbtest::Rec40Wire record = list(row, 1, 2301);
        record.subtype = row.number<std::uint8_t>(0);
        const Bytes plain = nvbtest::build(record);
        const list_state_t before = codec.encoder().listState;
        const Bytes compact = codec.compress(plain);
        EXPECT_EQ(compact.size(), compact[1]) << row;
        EXPECT_EQ(compact[2], row.number(3)) << row;
        if (compact[2] == 40) {
            EXPECT_EQ(compact, plain) << row;
            EXPECT_EQ(std::memcmp(&before, &codec.encoder().listState, sizeof before), 0) << row;
        }
    }
}

}  // namespace
}  // namespace nvb
