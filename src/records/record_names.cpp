#include "records/record_names.h"

#include "appmodel/app_lists.h"
#include "core/append.h"
#include "core/text.h"
#include "records/record_format.h"

static_assert(kRecordAppSize == kAppNameSize && kRecordGroupSize == kGroupNameSize);

namespace am {

void RecordNames::fill(Slot &slot, uint32_t appId, uint32_t listType) {
    char application[kAppNameSize + 1] = {};
    char group[kGroupNameSize + 1] = {};
    getAppAndGroupNameFromAppId(appId, application, group, listType);

    char *end = am::append(slot.columns, fieldText(application));
    end = am::append(am::append(end, ','), fieldText(group));
    static_assert(sizeof slot.columns >= sizeof application + sizeof group);
    slot.length = static_cast<uint8_t>(end - slot.columns);
    slot.appId = appId;
    slot.filled = true;
}

char *RecordNames::append(char *at, uint32_t appId) {
    Slot &slot = slots_[appId % kSlots];
    if (!slot.filled || slot.appId != appId) fill(slot, appId, listType_);
    return am::append(at, {slot.columns, slot.length});
}

}  // namespace am
