// The questions of the bus object korvid, each with any message.  The first byte chooses the method; the rest
// is what stands in the request's data.
#include <memory>

#include "flows/enf_flow_db.h"
#include "flows/flow_info.h"
#include "flows/mirroring.h"
#include "fuzz.h"
#include "records/mon_records.h"
#include "show/methods.h"
#include "world.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz::makeWorld();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using Method = int (*)(am::Answer & answer, const blob_attr *message);
    constexpr Method kMethods[] = {am::answerStatus, am::answerCounters, am::answerApps,
                                   am::answerGroups, am::answerFlows,    am::answerExplain};
    if (size == 0) return 0;
    const Method method = kMethods[fuzz::takeByte(data, size) % std::size(kMethods)];
    capture_flow_info info{};
    info.proto = 17;
    info.app_id = 2;
    amUpdateEnfFlowDb(&info);
    amUpdateEnfFlowDb6(&info);
    amUpdateMonFlow(&info);
    amUpdateMonFlow6(&info);

    // As the library hands it over: whole, zero bytes up to the next multiple of 4.
    const size_t length = sizeof(blob_attr) + size;
    const std::unique_ptr<uint8_t[]> bytes(new uint8_t[(length + 3) & ~size_t{3}]());
    const blob_attr head{cpu_to_be32(static_cast<uint32_t>(UBUS_ATTR_DATA << 24 | length))};
    std::memcpy(bytes.get(), &head, sizeof head);
    if (size) std::memcpy(bytes.get() + sizeof head, data, size);
    static blob_buf buffer;
    am::Answer answer(buffer);
    const int status = method(answer, reinterpret_cast<const blob_attr *>(bytes.get()));
    FUZZ_CHECK(status == UBUS_STATUS_OK || status == UBUS_STATUS_INVALID_ARGUMENT ||
               status == UBUS_STATUS_NOT_FOUND);
    FUZZ_CHECK(answer.whole() && blob_pad_len(answer.message()) < 65536);
    fuzz::resetModel();
    return 0;
}
