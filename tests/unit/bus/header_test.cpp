// The public headers are included bare elsewhere; sources for the real libraries wrap them like this.
extern "C" {
#include <libubox/blob.h>
#include <libubox/blobmsg.h>
#include <libubox/blobmsg_json.h>
#include <libubox/list.h>
#include <libubox/uloop.h>
#include <libubox/utils.h>
#include <libubus.h>

ubus_object_type c_object_type(void);
int c_count_members(blob_attr *attr);
}
#include <gtest/gtest.h>

TEST(BusHeaders, ServeCAndCPlusPlus) {
    const ubus_object_type type = c_object_type();
    EXPECT_EQ(type.n_methods, 5);
    EXPECT_EQ(type.methods[0].n_policy, 2);
    EXPECT_EQ(type.methods[1].policy, nullptr);
    blob_buf buf{};
    blob_buf_init(&buf, 0);
    blobmsg_add_u32(&buf, "a", 1);
    blobmsg_add_u32(&buf, "b", 2);
    EXPECT_EQ(c_count_members(buf.head), 3 * 2);
    blob_buf_free(&buf);
}
