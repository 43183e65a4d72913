// The handlers of the fifteen methods.  Each writes the request to the request log, answers through reply.h,
// and returns 0.  The caller gets one answer; an upload that cannot be started after it sends another, which
// only the request log shows.  Messages are untrusted.  Event-loop thread.
#pragma once
extern "C" {
#include <libubox/blobmsg.h>
}
#include <libubus.h>

#define AM_METHOD(name)                                                                          \
    int name(ubus_context *ctx, ubus_object *object, ubus_request_data *req, const char *method, \
             blob_attr *msg)

// Groups and lists: list_methods.cpp, group_methods.cpp.
AM_METHOD(CREATEavAppMonAppList);
AM_METHOD(SETavAppMonAppList);
AM_METHOD(CREATEavDpiAppList);
AM_METHOD(SETavDpiAppList);
AM_METHOD(CREATEavAppGroup);
AM_METHOD(SETavAppGroup);
AM_METHOD(DELETEavAppGroup);

// Administration, debugging, signature kits: admin_methods.cpp, kit_methods.cpp.
AM_METHOD(SETappMonAdminState);
AM_METHOD(SETappMonActivateAppList);
AM_METHOD(SETappMonClearConfig);
AM_METHOD(SetavDebugSettings);
AM_METHOD(CREATEavSignatureProfile);
AM_METHOD(SETappMonUpdateSignatureFile);

// Export of record files: export_methods.cpp.
AM_METHOD(GETavDpiStats);
AM_METHOD(GETavAppMonStats);

#undef AM_METHOD
