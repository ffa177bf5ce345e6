#include "support/wire.h"
#include "support/host.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using namespace nvbtest;

Bytes epochAt(std::uint32_t timeMs, std::uint8_t system = 0) {
    Epoch27 epoch;
    epoch.timeMs = timeMs;
    Satellite27 sv{3, system, 0, 1, 20, 40, 0, {}};
    sv.signals.push_back({0, 0, 400, 2e7, 1e6 + timeMs, 0, 0x03, std::nullopt});
    epoch.satellites = {sv};
    return build(epoch);
}

Bytes positionAt(std::uint32_t timeMs, std::uint8_t system = 0) {
    Rec29Wire p;
    p.positionValid = 0;
    p.time = timeMs;
    p.svs = {{3, system, 2}};
    return build(p);
}

Bytes shortPositionAt(std::uint32_t timeMs) {
    Rec11Wire p;
    p.time = timeMs;
    return build(p);
}

Bytes olderEpochAt(std::uint32_t timeMs) {
    return build(Rec17Wire{timeMs, 0, {Rec17Sat{7, 0x10, 0, 30, 20, 160, 2560000000u, std::int64_t{1000000} << 15}}});
}

TEST(PlainDispatch, ThinnedEpochsReportTheirTypeWithoutALength) {
    Handle handle;
    handle->measurementInterval = 1.0f;
    for (const std::uint32_t time : {1000u, 1500u, 2000u, 2004u, 2005u}) {
        const Processed result = process(handle.get(), epochAt(time));
        EXPECT_EQ(result.type, 27) << time;
        EXPECT_EQ(result.status, 0) << time;
        EXPECT_EQ(result.length != 0, time == 1000 || time == 2000 || time == 2004) << time;
    }
    EXPECT_EQ(+handle->measurementCount, 3u);
}

TEST(PlainDispatch, RecordsElevenAndSeventeenTakeWholeSecondsWhere27And29RoundToTheMillisecond) {
    Handle handle;
    handle->positionInterval = 0.5f;
    handle->measurementInterval = 0.5f;
    EXPECT_EQ(process(handle.get(), positionAt(1250)).length, 0u) << "500 ms: 1250 lies between";
    EXPECT_GT(process(handle.get(), positionAt(1500)).length, 0u);
    EXPECT_GT(process(handle.get(), shortPositionAt(1250)).length, 0u) << "0 s: every record is kept";
    EXPECT_EQ(+handle->positionCount, 2u);
    EXPECT_EQ(process(handle.get(), epochAt(1250)).length, 0u);
    EXPECT_GT(process(handle.get(), olderEpochAt(1250)).length, 0u);
    EXPECT_EQ(+handle->measurementCount, 1u);
}

TEST(PlainDispatch, TheStatesMapOptionsReachTheReaders) {
    Handle handle;
    process(handle.get(), epochAt(1000, 7));
    process(handle.get(), positionAt(1000, 7));
    EXPECT_EQ(handle->records.rec27->sv[0].rt_sattype, 10);
    EXPECT_EQ(handle->records.rec29->sv[0].rt_sattype, 10);
    handle->mapSystem7To10 = 0;
    process(handle.get(), epochAt(2000, 7));
    process(handle.get(), positionAt(2000, 7));
    EXPECT_EQ(handle->records.rec27->sv[0].rt_sattype, 7);
    EXPECT_EQ(handle->records.rec29->sv[0].rt_sattype, 7);
}

TEST(ExportedReaders, TakeAFrameBufferOfTheStatesLayout) {
    Handle handle;
    auto frame = std::make_unique<nvb_frame_t>();
    auto load = [&](const Bytes& bytes) {
        std::memset(frame.get(), 0, sizeof(nvb_frame_t));
        std::memcpy(frame->data, bytes.data(), bytes.size());
        frame->length = static_cast<std::uint16_t>(bytes.size());
        return reinterpret_cast<std::uint8_t*>(frame.get());
    };
    auto* previous = reinterpret_cast<std::uint8_t*>(handle->previousEpochs);
    EXPECT_EQ(nvbdll_readRec27Buffer(load(epochAt(1000)), handle.get(), previous, 27, 3, 1, 1, 0), 17 + 4 + 10 + 27);
    EXPECT_EQ(nvbdll_readRec27Buffer(load(epochAt(1000)), handle.get(), nullptr, 27, 3, 1, 1, 0), 0);
    EXPECT_EQ(nvbdll_readRec27Stream(load(epochAt(2000)) + 4, handle.get(), previous, 27, 3, 1, 1), 17 + 4 + 10 + 27);
    EXPECT_EQ(+handle->records.rec27->receiveTime, 2000.0);
    EXPECT_EQ(nvbdll_readRec29Buffer(load(positionAt(1000, 5)), handle.get(), 1, 0), 15 + 93 + 4 + 4);
    EXPECT_EQ(handle->records.rec29->sv[0].rt_sattype, 7);
    EXPECT_EQ(nvbdll_readRec11Buffer(load(shortPositionAt(1000)), handle.get()), 82);
    EXPECT_EQ(nvbdll_readRec17Buffer(load(olderEpochAt(1000)), handle.get(),
                                     reinterpret_cast<std::uint8_t*>(handle->rec17Work)),
              21 + 48);
    EXPECT_EQ(nvbdll_readRec17Buffer(load(olderEpochAt(1000)), handle.get(), nullptr), 0);
    EXPECT_EQ(nvbdll_readRec11Buffer(nullptr, handle.get()), 0);
    // The navigation and receiver readers, each with the arguments its export names.
    using nvbtest::plainFrame;
    auto* slots = handle->trackingSlots;
    EXPECT_EQ(nvbdll_readRec21Buffer(load(plainFrame(21, {12})), handle.get()), 190);
    EXPECT_EQ(nvbdll_readRec25Buffer(load(plainFrame(25, {0})), handle.get()), 39);
    EXPECT_EQ(nvbdll_readRec26Buffer(load(plainFrame(26, {8, 0, 0, 0, 0, 0, 0, 1})), handle.get(), 1), 55);
    EXPECT_EQ(handle->records.datHeader[2], 11);
    EXPECT_EQ(nvbdll_readRec28Buffer(load(plainFrame(28, {6, 1})), handle.get(), 1), 181);
    EXPECT_EQ(handle->records.rec28->subtype, 9);
    EXPECT_EQ(handle->records.rec28->common.svId, 30) << "system 5 satellite 1 is system 7 satellite 30";
    EXPECT_EQ(nvbdll_readRec28Buffer(load(plainFrame(28, {6, 1})), handle.get(), 0), 181);
    EXPECT_EQ(handle->records.rec28->common.svId, 1);
    EXPECT_EQ(nvbdll_readRec12Buffer(load(plainFrame(12, {0})), handle.get()), 68);
    EXPECT_EQ(nvbdll_readRec15Buffer(load(plainFrame(15, {})), handle.get()), 124);
    EXPECT_EQ(nvbdll_readRec19Buffer(load(plainFrame(19, {11, 3})), handle.get(), slots), 15);
    EXPECT_EQ(nvbdll_readRec19Buffer(load(plainFrame(19, {11, 3})), handle.get(), nullptr), 0);
    EXPECT_EQ(nvbdll_readRec30Buffer(load(plainFrame(30, {0})), handle.get()), 12);
    EXPECT_EQ(nvbdll_readRec16Buffer(load(plainFrame(16, {3, 9, 9, 9})), handle.get()), 7);
    EXPECT_EQ(handle->records.datHeader[2], 3) << "record 16 keeps its subtype in the DAT header";
    EXPECT_EQ(nvbdll_readRec16Buffer(load({0x02, 0x02}), handle.get()), 0) << "a frame shorter than its trailer";
}

}  // namespace
