/* The public headers serve C as well: this must compile without a warning. */
#include <libubox/blobmsg_json.h>
#include <libubus.h>

static int handler(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req,
                   const char *method, struct blob_attr *msg) {
    (void)obj;
    (void)method;
    return ubus_send_reply(ctx, req, msg);
}

static const struct blobmsg_policy policy[] = {
    {.name = "a", .type = BLOBMSG_TYPE_STRING},
    {.name = "b", .type = BLOBMSG_CAST_INT64},
};

static const struct ubus_method methods[] = {
    UBUS_METHOD("set", handler, policy),
    UBUS_METHOD_NOARG("get", handler),
    UBUS_METHOD_MASK("masked", handler, policy, 1),
    UBUS_METHOD_TAG("tagged", handler, policy, UBUS_TAG_STATUS),
    UBUS_METHOD_TAG_NOARG("bare", handler, UBUS_TAG_PRIVATE),
};

struct ubus_object_type c_object_type(void);
struct ubus_object_type c_object_type(void) {
    struct ubus_object_type type = UBUS_OBJECT_TYPE("create", methods);
    return type;
}

int c_count_members(struct blob_attr *attr);
int c_count_members(struct blob_attr *attr) {
    struct blob_attr *pos;
    int count = 0;
    int rem;
    size_t left = blob_len(attr);
    blobmsg_for_each_attr(pos, attr, rem) count++;
    blob_for_each_attr(pos, attr, rem) count++;
    __blob_for_each_attr(pos, blob_data(attr), left) count++;
    return count;
}
