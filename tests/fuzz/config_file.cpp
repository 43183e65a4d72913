// The configuration file, as anybody may have prepared it; what the daemon writes then must be readable
// again.
#include "config/config_file.h"

#include <cstdio>

#include "core/paths.h"
#include "fuzz.h"
#include "world.h"

namespace {

void checkWritten() {
    amWriteConfigToFile();
    std::unique_ptr<FILE, int (*)(FILE *)> file(std::fopen(kConfigPath, "rb"), std::fclose);
    FUZZ_CHECK(file);
    std::unique_ptr<char[]> text(new char[1 << 20]);
    const size_t length = std::fread(text.get(), 1, (1 << 20) - 1, file.get());
    text[length] = 0;
    std::unique_ptr<cJSON, void (*)(cJSON *)> root(cJSON_Parse(text.get()), cJSON_Delete);
    FUZZ_CHECK(root);
    FUZZ_CHECK(cJSON_GetArraySize(cJSON_GetObjectItem(root.get(), "ApplicationVisbilityProfile")) == 1);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz::makeWorld();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::writeFile(kConfigPath, data, size);
    amParseConfigFromFile();
    checkWritten();
    reloadSignFile = 0;
    fuzz::resetModel();
    return 0;
}
