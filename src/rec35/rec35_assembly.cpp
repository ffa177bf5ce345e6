#include "rec35/rec35_assembly.h"

#include <cstdlib>
#include <new>

namespace nvb {

void resetRec35Assembly(rec35_assembly_t& assembly) {
    assembly.payload.used = 0;
    assembly.in_progress = 0;
    assembly.pending = 0;
    assembly.schema_swallow = 1;
    assembly.skip_debug_260 = 0;
}

void freeRec35Assembly(rec35_assembly_t& assembly) {
    std::free(assembly.payload.data);
    assembly.payload = io_buffer_t{0, 0, nullptr};
    // The state is packed: slots are reached by index, never bound by reference.
    for (std::size_t i = 0; i < NVB_REC35_SUBTYPES; ++i) {
        std::free(assembly.slots[i]);
        assembly.slots[i] = nullptr;
    }
}

void freeRec35Content(rec35_content_t* content) {
    if (content == nullptr) return;
    std::free(content->schema_text.data);
    std::free(content->raw_area);
    for (std::size_t i = 0; i < NVB_REC35_SUBTYPES; ++i) std::free(content->records[i]);
    std::free(content->test_area);
    ::operator delete(content);
}

}  // namespace nvb
