#include "common/diagnostics.h"

#include <cstdarg>
#include <cstdlib>

namespace nvb {

std::FILE* logStream = nullptr;

void logMessage(const char* format, ...) {
    if (logStream == nullptr) return;
    va_list args;
    va_start(args, format);
    std::vfprintf(logStream, format, args);
    va_end(args);
}

void compactAssert(bool condition) {
    if (condition) return;
    std::fprintf(stderr, "Assertion failed: cond, file su_compr_common, line 1319\n");
}

void fatalAssert(const char* conditionText, const char* module, int line) {
    std::fprintf(stderr, "Assertion failed: %s, file %s, line %d\n", conditionText, module, line);
    std::abort();
}

}  // namespace nvb
