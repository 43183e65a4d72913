#include "show/answer.h"

namespace am {

void Answer::text(const char *name, const char *value) {
    keep(blobmsg_add_string(&buffer_, name, value));
}

void Answer::number(const char *name, uint64_t value) {
    keep(blobmsg_add_u64(&buffer_, name, value));
}

void Answer::flag(const char *name, bool value) {
    keep(blobmsg_add_u8(&buffer_, name, value ? 1 : 0));
}

void *Answer::open(const char *name, bool array) {
    void *const nested = whole_ ? blobmsg_open_nested(&buffer_, name, array) : nullptr;
    if (!nested) whole_ = false;
    return nested;
}

void Answer::close(void *nested) {
    blob_nest_end(&buffer_, nested);
}

}  // namespace am
