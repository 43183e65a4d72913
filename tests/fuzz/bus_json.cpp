// JSON text from the command line into a bus message, and back.
#include "fuzz.h"
extern "C" {
#include <libubox/blobmsg_json.h>
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::unique_ptr<char[]> text(new char[size + 1]);
    if (size) std::memcpy(text.get(), data, size);
    text[size] = 0;

    blob_buf message{};
    blob_buf_init(&message, 0);
    if (blobmsg_add_json_from_string(&message, text.get())) {
        std::unique_ptr<char, decltype(&std::free)> printed(blobmsg_format_json(message.head, true),
                                                            std::free);
        FUZZ_CHECK(printed);
        blob_buf again{};
        blob_buf_init(&again, 0);
        // Not always JSON again: members without a name and numbers out of range are printed as the bus
        // library always has.
        (void)blobmsg_add_json_from_string(&again, printed.get());
        blob_buf_free(&again);
    }
    blob_buf_free(&message);
    return 0;
}
