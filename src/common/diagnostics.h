#ifndef NVB_COMMON_DIAGNOSTICS_H
#define NVB_COMMON_DIAGNOSTICS_H

#include <cstdio>

namespace nvb {

// The one process-wide log stream. Null at load and set by no exported function, so the
// library is silent unless a host build sets it.
extern std::FILE* logStream;

// Writes a message to the log stream when there is one. Texts are the format's own and
// end in a new line.
[[gnu::format(printf, 1, 2)]] void logMessage(const char* format, ...);

// A message that the process will not survive: to the log stream, or to standard error
// when no host has set one.
[[gnu::format(printf, 1, 2)]] void logFatal(const char* format, ...);

// The codecs' assertion on length ranges: reports "cond" with this module's name and
// line 1319 to the log stream, then returns to the caller. It does not stop the codec.
void compactAssert(bool condition);

// A violated assertion that the format treats as fatal (a field writer's range, a
// growth that could not allocate): reports the condition text and ends the process.
[[noreturn]] void fatalAssert(const char* conditionText, const char* module, int line);

}  // namespace nvb

#endif
