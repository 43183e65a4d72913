#include "show/arguments.h"

#include <cstring>

#include "ubus/members.h"

namespace am {

namespace {

bool takeNumber(const Member &member, const Argument &argument) {
    auto *const attr = const_cast<blob_attr *>(member.attr);
    if (member.type != BLOBMSG_TYPE_INT8 && member.type != BLOBMSG_TYPE_INT16 &&
        member.type != BLOBMSG_TYPE_INT32 && member.type != BLOBMSG_TYPE_INT64)
        return false;
    const int64_t value = blobmsg_cast_s64(attr);
    if (value < 0 || value > int64_t{argument.most}) return false;
    *argument.number = static_cast<uint32_t>(value);
    return true;
}

bool take(const Member &member, const Argument &argument) {
    if (argument.number) return takeNumber(member, argument);
    *argument.text = member.text();
    return *argument.text != nullptr;
}

}  // namespace

bool takeArguments(const blob_attr *message, const Argument *arguments, size_t count) {
    Member member;
    for (Members members = Members::ofMessage(message); members.next(member);)
        for (size_t i = 0; i < count; i++)
            if (strcmp(member.name, arguments[i].name) == 0 && !take(member, arguments[i])) return false;
    return true;
}

}  // namespace am
