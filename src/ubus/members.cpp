#include "ubus/members.h"

namespace am {
namespace {

constexpr size_t kMostArguments = 8;

Member memberAt(const blob_attr *attr) {
    if (!blobmsg_check_attr(attr, false)) return {"", Member::kNoType, attr};
    // Only an extended attribute has a name; blobmsg_name would read payload bytes of any other.
    return {blob_is_extended(attr) ? blobmsg_name(attr) : "", static_cast<int>(blob_id(attr)), attr};
}

}  // namespace

const char *Member::text() const {
    return type == BLOBMSG_TYPE_STRING ? static_cast<const char *>(blobmsg_data(attr)) : nullptr;
}

Members Members::ofMessage(const blob_attr *message) {
    return message ? Members(blob_data(message), blob_len(message)) : Members();
}

Members Members::of(const Member &container) {
    if (!container.isContainer()) return {};
    return {blobmsg_data(container.attr), blobmsg_len(container.attr)};
}

bool Members::next(Member &member) {
    if (left_ < sizeof(blob_attr)) return false;
    const auto *attr = reinterpret_cast<const blob_attr *>(at_);
    const size_t padded = blob_pad_len(attr);
    if (padded < sizeof(blob_attr) || padded > left_) return false;
    at_ += padded;
    left_ -= padded;
    member = memberAt(attr);
    return true;
}

void parseTexts(const blobmsg_policy *policy, const char **texts, size_t count, const blob_attr *message) {
    blob_attr *found[kMostArguments] = {};
    if (message)
        (void)blobmsg_parse(policy, static_cast<int>(count), found, blob_data(message),
                            static_cast<unsigned>(blob_len(message)));
    for (size_t i = 0; i < count; i++) texts[i] = found[i] ? blobmsg_get_string(found[i]) : nullptr;
}

}  // namespace am
