#include <nvbdll/nvbdll.h>

#include "stream/huffman.h"

#include <cstdio>

extern "C" {

NVBDLL_API int nvbdll_getNVBLibVersion(char* text) {
    return std::sprintf(text, "%d.%02d ", NVB_VERSION_MAJOR, NVB_VERSION_MINOR);
}

NVBDLL_API int nvbdll_initNVBLib(void) {
    nvb::huffmanFree();
    nvb::huffmanBuild();
    return 0;
}

NVBDLL_API int nvbdll_freeNVBLib(void) {
    nvb::huffmanFree();
    return 0;
}

}  // extern "C"
