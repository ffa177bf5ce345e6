#include "support/host.h"

#include "external/su/compact_compressors.h"
#include "external/su/epoch_compressor.h"
#include "external/su/predicted_epoch.h"
#include "pipeline/serialisation.h"
#include "stream/block_reader.h"
#include "stream/huffman.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <unistd.h>

namespace nvbtest {

void initLibrary() {
    if (nvb::huffmanRoot() == nullptr) nvbdll_initNVBLib();
}

Handle::Handle() {
    initLibrary();
    state_ = nvbdll_GetNVBStateHandle();
    if (state_ == nullptr) throw std::runtime_error("no expand state");
}

Handle::~Handle() {
    nvbdll_FreeNVBStateHandle(state_);
}

namespace {

void processAnnounced(nvb_expand_t* state, ReadEvent& event) {
    if (event.result <= 0 || (event.status != 0 && event.status != NVB_STATUS_RESYNCHRONISED)) return;
    if (event.isRecord()) event.frame.assign(state->frame.data, state->frame.data + state->frame.length);
    event.datLength = nvbdll_processNVBRecord(state, 0, &event.type, &event.processStatus);
    if (event.delivered()) {
        // Filled with a pattern, so that a byte retrieval leaves as the host's buffer held
        // it shows.
        event.dat.assign(event.datLength + 64u, 0xA5);
        const std::uint16_t written =
            nvb::wholeDatForm(*state, static_cast<std::int16_t>(event.type),
                              static_cast<std::uint16_t>(event.datLength), event.dat.data(), event.dat.size());
        event.dat.resize(written != 0 ? written : event.datLength);
    }
}

void keep(nvb_expand_t* state, ReadEvent event, std::vector<ReadEvent>& events) {
    if (event.result == 0 && event.status == 0) return;
    processAnnounced(state, event);
    events.push_back(std::move(event));
}

std::vector<ReadEvent> readFromFile(nvb_expand_t* state, const Bytes& stream, bool huffman) {
    std::vector<ReadEvent> events;
    std::FILE* file = std::tmpfile();
    if (!stream.empty()) std::fwrite(stream.data(), 1, stream.size(), file);
    std::rewind(file);
    for (std::size_t guard = 0; guard <= stream.size() * 2 + 16; ++guard) {
        ReadEvent event;
        event.result =
            huffman ? nvbdll_getNVBRecord(state, file, &event.status) : nvbdll_getNVARecord(state, file, &event.status);
        if (event.status == 1) break;
        keep(state, std::move(event), events);
    }
    std::fclose(file);
    return events;
}

}  // namespace

std::vector<ReadEvent> readStream(nvb_expand_t* state, const Bytes& stream, Getter getter) {
    if (getter == Getter::NvbFile) return readFromFile(state, stream, true);
    if (getter == Getter::NvaFile) return readFromFile(state, stream, false);
    std::vector<ReadEvent> events;
    feedByByte(state, stream, getter, [&](std::int32_t result, std::uint8_t status) {
        ReadEvent event;
        event.result = result;
        event.status = status;
        keep(state, std::move(event), events);
    });
    return events;
}

void feedByByte(nvb_expand_t* state, std::span<const std::uint8_t> bytes, Getter getter,
                const std::function<void(std::int32_t, std::uint8_t)>& take, bool takeQuiet) {
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (takeQuiet) {
            i += nvb::takeQuietBlockBytes(*state, bytes.data() + i, bytes.size() - i);
            if (i == bytes.size()) break;
        }
        std::uint8_t status = 0;
        std::uint8_t more = 0;
        const std::int32_t result = getter == Getter::NvbByByte
                                        ? nvbdll_getNVBRecordByByte(state, bytes[i], &status, 1, &more)
                                        : nvbdll_getNVARecordByByte(state, bytes[i], &status);
        take(result, status);
        for (int follow = 0; more == 1; ++follow) {
            if (follow > 5120) throw std::runtime_error("more does not run out");
            const std::int32_t next = nvbdll_getNVBRecordByByte(state, 0, &status, 0, &more);
            take(next, status);
        }
    }
}

void retrieveAnnounced(nvb_expand_t* state, std::int32_t result, std::uint8_t status) {
    if (result <= 0 || (status != 0 && status != NVB_STATUS_RESYNCHRONISED)) return;
    std::uint16_t type = 0;
    std::uint8_t processStatus = 0;
    const std::uint32_t length = nvbdll_processNVBRecord(state, 0, &type, &processStatus);
    if (length == 0 || processStatus != 0) return;
    auto dat = std::make_unique<std::uint8_t[]>(length);
    nvbdll_retrieveDATRecord(state, static_cast<std::int16_t>(type), dat.get());
}

std::vector<Bytes> framesOf(const std::vector<ReadEvent>& events) {
    std::vector<Bytes> frames;
    for (const ReadEvent& event : events) {
        if (event.isRecord()) frames.push_back(event.frame);
    }
    return frames;
}

std::vector<Bytes> deliveredDat(const std::vector<ReadEvent>& events) {
    std::vector<Bytes> dats;
    for (const ReadEvent& event : events) {
        if (event.delivered()) dats.push_back(event.dat);
    }
    return dats;
}

std::string writeTempFile(const Bytes& bytes, const std::string& suffix) {
    std::string path = "/tmp/nvbdll-test-XXXXXX" + suffix;
    const int fd = mkstemps(path.data(), static_cast<int>(suffix.size()));
    if (fd < 0) throw std::runtime_error("no temporary file");
    if (!bytes.empty() && write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
        close(fd);
        throw std::runtime_error("short write");
    }
    close(fd);
    return path;
}

void standFrame(nvb_expand_t* state, const Bytes& frame) {
    std::memset(&state->frame, 0, sizeof state->frame);
    std::copy_n(frame.begin(), std::min(frame.size(), sizeof state->frame.data), state->frame.data);
    state->frame.length = static_cast<std::uint16_t>(frame.size());
    state->currentType = frame.size() > 2 ? frame[2] : 0;
}

Processed process(nvb_expand_t* state, const Bytes& frame) {
    standFrame(state, frame);
    Processed result;
    result.length = nvbdll_processNVBRecord(state, 0, &result.type, &result.status);
    return result;
}

ReadEvent processFrame(nvb_expand_t* state, const Bytes& frame) {
    const Bytes stood(frame.begin(),
                      frame.begin() + static_cast<long>(std::min(frame.size(), sizeof state->frame.data)));
    standFrame(state, stood);
    ReadEvent event;
    event.result = static_cast<std::int32_t>(stood.size());
    processAnnounced(state, event);
    return event;
}

Encoder::Encoder(std::uint8_t method, std::uint8_t level)
    : host_((initLibrary(), method), level, [this](std::span<const std::uint8_t> unit) {
          output_.insert(output_.end(), unit.begin(), unit.end());
          ++callbacks_;
      }) {}

std::uint32_t Encoder::put(Bytes dat, std::uint8_t* status) {
    std::uint8_t local = 0;
    return host_.put(dat.data(), status != nullptr ? *status : local);
}

const Bytes& Encoder::finish() {
    host_.finish();
    return output_;
}

Bytes shortDat(std::uint8_t type, std::uint8_t byte2, const Bytes& body) {
    Bytes dat(body.size() + 4);
    dat[0] = 0x74;
    dat[1] = static_cast<std::uint8_t>(body.size() + 4);
    dat[2] = byte2;
    dat[3] = type;
    std::copy(body.begin(), body.end(), dat.begin() + 4);
    return dat;
}

Bytes structDat(std::uint8_t type, std::uint8_t byte2, const void* rec, std::size_t datLength) {
    const auto* bytes = static_cast<const std::uint8_t*>(rec);
    Bytes dat = shortDat(type, type == 12 ? static_cast<std::uint8_t>(datLength >> 8) : byte2,
                         Bytes(bytes, bytes + (datLength - 4)));
    dat[1] = static_cast<std::uint8_t>(datLength);
    return dat;
}

Bytes writtenFrame(const Bytes& dat, std::uint8_t* status) {
    Encoder encoder(1);
    const std::uint32_t before = encoder->recordCount;
    encoder.put(dat, status);
    if (encoder->recordCount == before) return {};
    return Bytes(encoder->frame.data, encoder->frame.data + encoder->frame.length);
}

std::vector<Bytes> readLog(const Bytes& log) {
    Handle handle;
    return deliveredDat(readStream(handle.get(), log, Getter::NvbFile));
}

std::vector<Bytes> writtenAndRead(const std::vector<Bytes>& dats, std::uint8_t method) {
    Encoder encoder(method);
    for (const Bytes& dat : dats) encoder.put(dat);
    return readLog(encoder.finish());
}

CompactLink::CompactLink(Compress compressor, Step step) : compress_(compressor), step_(step) {
    // As the encode state's initialisation leaves them: each family starts with a reference.
    encoder_->lastEpochReferenceTime = 0xFFFFFFFF;
    encoder_->lastPositionReferenceTime = 0xFFFFFFFF;
    encoder_->lastSolutionReferenceTime = 0xFFFFFFFF;
    encoder_->lastObsReferenceTime = 0xFFFFFFFF;
    encoder_->lastSubframeReferenceTime = 0xFFFFFFFF;
}

Bytes CompactLink::compress(const Bytes& plain) {
    auto in = std::make_unique<nvb_frame_t>();
    auto out = std::make_unique<nvb_frame_t>();
    std::memcpy(in->data, plain.data(), std::min(plain.size(), sizeof in->data));
    in->length = static_cast<std::uint16_t>(plain.size());
    const std::uint16_t length = compress_(*encoder_, *in, *out);
    return Bytes(out->data, out->data + length);
}

std::uint8_t CompactLink::dispatch(const Bytes& compact, Bytes& plain) {
    nvb_expand_t& state = *reader_.get();
    const std::uint8_t status = process(&state, compact).status;
    plain.assign(state.plainFrame.data, state.plainFrame.data + (status == 0 ? state.plainFrame.length : 0));
    return status;
}

std::uint8_t CompactLink::expand(const Bytes& compact, Bytes& plain, bool framed) {
    nvb_expand_t& state = *reader_.get();
    standFrame(&state, compact);
    std::uint8_t status = 0xEE;
    const std::uint8_t result = step_(&state, compact.size() > 2 ? compact[2] : 0, framed, &status);
    if (result != status) throw std::logic_error("a step returned other than its status");
    plain.assign(state.plainFrame.data, state.plainFrame.data + state.plainFrame.length);
    return status;
}

std::uint8_t positionStep(nvb_expand_t* state, std::uint8_t type, bool framed, std::uint8_t* status) {
    return type == 54 ? nvbdll_processType54(state, status, framed) : nvbdll_processType55(state, status, framed);
}

std::uint8_t solutionStep(nvb_expand_t* state, std::uint8_t type, bool, std::uint8_t* status) {
    return type == 56 ? nvbdll_processType56(state, status) : nvbdll_processType57(state, status);
}

// Types 66-69 and 74-77 share a step each, by the low two bits of their offset from 66.
std::uint8_t obsStep(nvb_expand_t* state, std::uint8_t type, bool framed, std::uint8_t* status) {
    static constexpr std::uint8_t (*kSteps[])(nvb_expand_t*, std::uint8_t*, std::uint8_t) = {
        nvbdll_processType66_74, nvbdll_processType67_75, nvbdll_processType68_76, nvbdll_processType69_77};
    return kSteps[(type - 66) & 3](state, status, framed);
}

// Type 39 has no export of its own; a host reaches it through the dispatch.
std::uint8_t epochStep(nvb_expand_t* state, std::uint8_t type, bool framed, std::uint8_t* status) {
    if (type == 38) return nvbdll_processType38(state, status);
    if (type == 39) return nvb::processType39(*state, *status);
    return nvbdll_processType37(state, status, framed ? 1 : 0, type == 36 ? 1 : 0);
}

CompactLink epochLink() {
    return CompactLink(nvb::compressEpochFrame, epochStep);
}

}  // namespace nvbtest
