// The text members of an unpacked kit: application index, compatibility level, version.
#include <sys/stat.h>

#include "appmodel/app_pool.h"
#include "fuzz.h"
#include "kit/kit_contents.h"
#include "world.h"

namespace {

constexpr const char *kFolders[] = {"/var/flash",
                                    "/var/flash/.tmp_",
                                    "/var/flash/switch",
                                    "/var/flash/switch/zor",
                                    "/var/flash/switch/zor/app_mon",
                                    "/var/flash/switch/zor/app_mon/.tmp_"};

void readIndex(const uint8_t *data, size_t size) {
    fuzz::writeFile("/var/flash/switch/zor/app_mon/.tmp_/AppMon_Signature_Index.csv", data, size);
    amAppPoolMarkObsolete();
    FUZZ_CHECK(amParseAppPoolCsv() == 1);
    amCleanAppPool();
    const AmAppNode *previous = nullptr;
    for (const AmAppNode *node = amGetNextAppNode(nullptr); node; node = amGetNextAppNode(node)) {
        FUZZ_CHECK(node->state == AM_APP_VALID);
        FUZZ_CHECK(strnlen(node->name, sizeof(node->name)) <= kAppNameSize);
        FUZZ_CHECK(node->appId <= amAppPoolShmSigCnt);
        FUZZ_CHECK(!previous || amAppPoolNameCompare(&previous->node, &node->node) < 0);
        previous = node;
    }
    amAppPoolMarkObsolete();
    amCleanAppPool();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz::makeWorld();
    for (const char *folder : kFolders) mkdir(folder, 0755);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    switch (fuzz::takeByte(data, size)) {
        case 'i':
            readIndex(data, size);
            break;
        case 'c':
            fuzz::writeFile("/var/flash/.tmp_/compatibility.txt", data, size);
            amParseKitCompatibality();
            break;
        case 'v':
            fuzz::writeFile("/var/flash/switch/zor/app_mon/.tmp_/version", data, size);
            FUZZ_CHECK(amParseKitVersion() == 1);
            FUZZ_CHECK(memchr(amKitVersion, 0, sizeof(amKitVersion)));
            break;
        default:
            break;
    }
    return 0;
}
