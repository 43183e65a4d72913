// Argument names and types of the fifteen methods: published on the bus, and the index of each text argument
// for the handlers that parse by them.
#pragma once
extern "C" {
#include <libubox/blobmsg.h>
}

namespace am {

enum SignatureProfileArgument { kKitUser, kKitPassword, kKitPath, kKitCheckSum };
inline constexpr blobmsg_policy kSignatureProfilePolicy[] = {
    {"username", BLOBMSG_TYPE_STRING},
    {"password", BLOBMSG_TYPE_STRING},
    {"filePath", BLOBMSG_TYPE_STRING},
    {"fileCheckSum", BLOBMSG_TYPE_STRING},
};

inline constexpr blobmsg_policy kClearConfigPolicy[] = {{"clearConfig", BLOBMSG_TYPE_STRING}};
inline constexpr blobmsg_policy kReloadSignFilePolicy[] = {{"reloadSignFile", BLOBMSG_TYPE_STRING}};
inline constexpr blobmsg_policy kAdminStatePolicy[] = {{"adminState", BLOBMSG_TYPE_STRING}};

// The handlers of these two walk the message themselves, in its own order.
inline constexpr blobmsg_policy kGroupPolicy[] = {
    {"ids", BLOBMSG_TYPE_ARRAY},
    {"appGroup", BLOBMSG_TYPE_TABLE},
};
inline constexpr blobmsg_policy kListPolicy[] = {
    {"appList", BLOBMSG_TYPE_ARRAY},
    {"appGroup", BLOBMSG_TYPE_ARRAY},
};

enum StatsArgument { kStatsUser, kStatsPassword, kStatsPath };
inline constexpr blobmsg_policy kStatsPolicy[] = {
    {"username", BLOBMSG_TYPE_STRING},
    {"password", BLOBMSG_TYPE_STRING},
    {"filePath", BLOBMSG_TYPE_STRING},
};

enum DebugArgument { kPacketLog, kStatsLog, kFlowLog, kDebugPrintDb, kLogLevel };
inline constexpr blobmsg_policy kDebugPolicy[] = {
    {"packetLog", BLOBMSG_TYPE_STRING}, {"statsLog", BLOBMSG_TYPE_STRING},
    {"flowLog", BLOBMSG_TYPE_STRING},   {"debugPrintDb", BLOBMSG_TYPE_STRING},
    {"logLevel", BLOBMSG_TYPE_STRING},
};

}  // namespace am
