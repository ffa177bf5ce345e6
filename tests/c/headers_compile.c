/* The public headers compile as C11, and their layout agrees with what a C host sees. */
#include <nvbdll/nvbdll.h>

#include <stdio.h>
#include <string.h>

int main(void) {
    char version[8] = {0};
    if (nvbdll_getNVBLibVersion(version) != 5 || strcmp(version, "8.97 ") != 0) {
        fprintf(stderr, "version text wrong: '%s'\n", version);
        return 1;
    }
    if (sizeof(nvb_frame_t) != 5122 || sizeof(Rec27) != 22021 || sizeof(Rec17) != 1937) {
        fprintf(stderr, "structure sizes differ from the library's\n");
        return 1;
    }
    return 0;
}
