#ifndef NVB_OUTPUT_TEXT_SINK_H
#define NVB_OUTPUT_TEXT_SINK_H

// The bounded cursor every observation writer appends through. A write that would pass
// the capacity writes nothing and sets `failed`; the callers check room for a whole epoch
// before they start, so for an epoch that fits the guard never changes a byte.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace nvb {

struct TextSink {
    std::uint8_t* data;
    std::size_t capacity;
    std::size_t length;
    bool failed = false;
};

inline void put(TextSink& sink, const void* bytes, std::size_t count) {
    if (sink.failed || count > sink.capacity - sink.length) {
        sink.failed = true;
        return;
    }
    if (count != 0) std::memcpy(sink.data + sink.length, bytes, count);
    sink.length += count;
}
inline void put(TextSink& sink, std::string_view text) { put(sink, text.data(), text.size()); }
inline void put(TextSink& sink, char c) { put(sink, &c, 1); }
inline void putByte(TextSink& sink, std::uint8_t byte) { put(sink, &byte, 1); }
inline void putBlanks(TextSink& sink, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) put(sink, ' ');
}
// printf-formatted text; a field wider than the scratch line fails the sink.
void putFormatted(TextSink& sink, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Cuts trailing blanks back to `floor` and closes the line.
inline void endLine(TextSink& sink, std::size_t floor) {
    while (!sink.failed && sink.length > floor && sink.data[sink.length - 1] == ' ') --sink.length;
    put(sink, '\n');
}

}  // namespace nvb

#endif
