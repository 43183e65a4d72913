// What a daemon sends to the kernel module's stand-in.
#include "fuzz.h"
#include "wire.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::ExactCopy datagram(data, size);
    std::string problem;
    for (const dpimod::Message &message : dpimod::splitDatagram({datagram.data(), size}, problem)) {
        FUZZ_CHECK(message.raw.size() >= dpimod::kHeaderSize && message.raw.size() <= size);
        if (message.type == dpimod::kMsgConfig) {
            dpimod::decodeConfig(message);
        } else {
            const dpimod::Result result = dpimod::decodeResult(message);
            if (result.usable)
                FUZZ_CHECK(!dpimod::addressText(result.flow.first, result.flow.version).empty());
        }
    }
    return 0;
}
