// A daemon that does nothing: the libraries of korvid, the bus, one method that answers what korvid's answer
// to a change.  What korvid takes more is its own.
#include <cjson/cJSON.h>
#include <curl/curl.h>
#include <libmnl/libmnl.h>
#include <nettle/eddsa.h>
#include <nettle/md5.h>

extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubus.h>
}

namespace {

blob_buf reply;

int nothing(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *) {
    blob_buf_init(&reply, 0);
    (void)blobmsg_add_u8(&reply, "success", 1);
    blob_nest_end(&reply, blobmsg_open_nested(&reply, "result", false));
    void *error = blobmsg_open_nested(&reply, "error", false);
    (void)blobmsg_add_u32(&reply, "errorCode", 0);
    (void)blobmsg_add_string(&reply, "errorMessage", "");
    blob_nest_end(&reply, error);
    return ubus_send_reply(ctx, req, reply.head);
}

ubus_method methods[] = {
    {.name = "nothing", .handler = nothing, .mask = 0, .tags = 0, .policy = nullptr, .n_policy = 0}};
ubus_object_type type{};
ubus_object object{};

}  // namespace

int main(int argc, char **argv) {
    if (argc != 3) return 2;  // -s SOCKET, as for korvid
    uloop_init();
    curl_global_init(CURL_GLOBAL_ALL);
    // All libraries stay linked: one use each.
    if (!cJSON_Version() || mnl_nlmsg_size(0) == 0) return 2;
    md5_ctx digest;
    nettle_md5_init(&digest);
    auto *const volatile verify =
        ed25519_sha512_verify;  // not called: the daemon does not without a key either
    if (!verify) return 2;

    ubus_context *ctx = ubus_connect(argv[2]);
    if (!ctx) return 1;
    type.name = "create";
    type.methods = methods;
    type.n_methods = 1;
    object.name = "empty";
    object.type = &type;
    object.methods = methods;
    object.n_methods = 1;
    if (ubus_add_object(ctx, &object) != 0) return 1;
    ubus_add_uloop(ctx);
    uloop_run();
    ubus_free(ctx);
    curl_global_cleanup();
    return 0;
}
