#include "support/reader.h"

#include "pipeline/serialisation.h"
#include "stream/huffman.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
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

Handle::~Handle() { nvbdll_FreeNVBStateHandle(state_); }

namespace {

void processAnnounced(nvb_expand_t* state, ReadEvent& event) {
    if (event.result <= 0 || (event.status != 0 && event.status != 18)) return;
    event.datLength = nvbdll_processNVBRecord(state, 0, &event.type, &event.processStatus);
    if (event.delivered()) {
        event.dat.assign(event.datLength + 64u, 0);
        nvb::wholeDatForm(*state, static_cast<std::int16_t>(event.type), static_cast<std::uint16_t>(event.datLength),
                          event.dat.data(), event.dat.size());
        event.dat.resize(event.datLength);
    }
}

bool worthKeeping(const ReadEvent& event) { return event.result != 0 || event.status != 0; }

std::vector<ReadEvent> readFromFile(nvb_expand_t* state, const Bytes& stream, bool huffman) {
    std::vector<ReadEvent> events;
    std::FILE* file = std::tmpfile();
    if (!stream.empty()) std::fwrite(stream.data(), 1, stream.size(), file);
    std::rewind(file);
    for (int guard = 0; guard < 10'000'000; ++guard) {
        ReadEvent event;
        event.result = huffman ? nvbdll_getNVBRecord(state, file, &event.status)
                               : nvbdll_getNVARecord(state, file, &event.status);
        if (event.status == 1) break;
        processAnnounced(state, event);
        if (worthKeeping(event)) events.push_back(event);
    }
    std::fclose(file);
    return events;
}

}  // namespace

ReadEvent processFrame(nvb_expand_t* state, const Bytes& frame) {
    std::memset(&state->frame, 0, sizeof state->frame);
    const std::size_t length = std::min(frame.size(), sizeof state->frame.data);
    std::memcpy(state->frame.data, frame.data(), length);
    state->frame.length = static_cast<std::uint16_t>(length);
    state->currentType = length > 2 ? frame[2] : 0;
    ReadEvent event;
    event.result = static_cast<std::int32_t>(length);
    processAnnounced(state, event);
    return event;
}

std::vector<ReadEvent> readStream(nvb_expand_t* state, const Bytes& stream, Getter getter) {
    if (getter == Getter::NvbFile) return readFromFile(state, stream, true);
    if (getter == Getter::NvaFile) return readFromFile(state, stream, false);
    std::vector<ReadEvent> events;
    for (const std::uint8_t byte : stream) {
        ReadEvent event;
        std::uint8_t more = 0;
        if (getter == Getter::NvbByByte) {
            event.result = nvbdll_getNVBRecordByByte(state, byte, &event.status, 1, &more);
        } else {
            event.result = nvbdll_getNVARecordByByte(state, byte, &event.status);
        }
        processAnnounced(state, event);
        if (worthKeeping(event)) events.push_back(event);
        while (more == 1) {
            ReadEvent next;
            next.result = nvbdll_getNVBRecordByByte(state, 0, &next.status, 0, &more);
            processAnnounced(state, next);
            if (worthKeeping(next)) events.push_back(next);
        }
    }
    return events;
}

Delivered deliver(nvb_expand_t* state, const Bytes& frame) {
    std::memset(&state->frame, 0, sizeof state->frame);
    std::memcpy(state->frame.data, frame.data(), std::min(frame.size(), sizeof state->frame.data));
    state->frame.length = static_cast<std::uint16_t>(frame.size());
    state->currentType = frame.size() > 2 ? frame[2] : 0;
    Delivered out;
    out.length = nvbdll_processNVBRecord(state, 0, &out.type, &out.status);
    if (out.length > 0 && out.status == 0) {
        out.dat.assign(out.length, 0xA5);
        nvbdll_retrieveDATRecord(state, static_cast<std::int16_t>(out.type), out.dat.data());
    }
    return out;
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

}  // namespace nvbtest
