// Masking of passwords in the JSON text of a request.
#include "fuzz.h"
#include "ubus/request_log.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const size_t length = strnlen(reinterpret_cast<const char *>(data), size);
    std::unique_ptr<char[]> text(new char[length + 1]);
    std::memcpy(text.get(), data, length);
    text[length] = 0;
    mask_pass(text.get(), static_cast<int>(length));
    FUZZ_CHECK(text[length] == 0);
    const bool named = length && memmem(data, length, "password", 8);
    for (size_t i = 0; i < length; i++) {
        const auto before = static_cast<char>(data[i]);
        FUZZ_CHECK(text[i] == before || (named && text[i] == '*' && before != '"'));
    }
    return 0;
}
