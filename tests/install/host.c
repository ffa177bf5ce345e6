#include <nvbdll/nvbdll.h>

#include <stdio.h>
#include <string.h>

int main(void) {
    char version[8];
    nvbdll_getNVBLibVersion(version);
    nvbdll_initNVBLib();
    nvb_expand_t* state = nvbdll_GetNVBStateHandle();
    int ok = state != NULL && strcmp(version, "8.97 ") == 0;
    nvbdll_FreeNVBStateHandle(state);
    nvbdll_freeNVBLib();
    printf("%s\n", ok ? "host ok" : "host failed");
    return ok ? 0 : 1;
}
