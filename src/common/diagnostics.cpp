#include "common/diagnostics.h"

#include <cstdarg>
#include <cstdlib>

namespace nvb {

std::FILE* logStream = nullptr;

namespace {

void writeMessage(std::FILE* stream, const char* format, va_list args) {
    if (stream != nullptr) std::vfprintf(stream, format, args);
}

}  // namespace

void logMessage(const char* format, ...) {
    va_list args;
    va_start(args, format);
    writeMessage(logStream, format, args);
    va_end(args);
}

void logFatal(const char* format, ...) {
    va_list args;
    va_start(args, format);
    // The process ends after this message: without a log stream it is the host's only
    // word of why.
    writeMessage(logStream != nullptr ? logStream : stderr, format, args);
    va_end(args);
}

void compactAssert(bool condition) {
    if (condition) return;
    logMessage("Assertion failed: cond, file su_compr_common, line 1319\n");
}

void fatalAssert(const char* conditionText, const char* module, int line) {
    logFatal("Assertion failed: %s, file %s, line %d\n", conditionText, module, line);
    std::abort();
}

}  // namespace nvb
