#include "unit/ubus/fakes.h"

namespace {

using ListMethods = MethodTest;

TEST_F(ListMethods, UnknownKeysAreLoggedInTheMethodsOwnWords) {
    const struct {
        Handler handler;
        const char *json, *name, *text;
    } rows[] = {
        {CREATEavAppMonAppList, R"({"x":1})",
         "CREATEavAppMonAppList:", " Invalid configuration received from ubus\n"},
        {SETavAppMonAppList, R"({"x":1})",
         "SETavAppMonAppList:", " Invalid Configuration received from ubus"},
        {CREATEavDpiAppList, R"({"x":1})",
         "CREATEavDpiAppList:", " Invalid configuration received from ubus\n"},
        {SETavDpiAppList, R"({"x":1})", "SETavDpiAppList:", " Invalid configuration received from ubus\n"},
        {SETavAppGroup, R"({"x":1})", "SETavAppGroup:", " Invalid configuration received from ubus\n"},
        {CREATEavAppGroup, R"({"x":1})", "CREATEavAppGroup:", " Invalid Group Configuration received"},
        {SETavDpiAppList, R"({"appList":[1]})",
         "applist_parse_apps:", " Invalid Configuration received from ubus"},
        {SETavDpiAppList, R"({"appList":[{"x":1}]})",
         "applist_parse_each_app:", " Invalid Configuration received from ubus"},
        {CREATEavAppGroup, R"({"appGroup":{"G":1}})",
         "group_parse_group:", " Invalid Group Configuration received"},
        {CREATEavAppGroup, R"({"appGroup":{"G":[{"x":1}]}})",
         "group_parse_app:", " Invalid Group Config received\n"},
    };
    for (const auto &row : rows) {
        log_.forget();
        call(row.handler, row.json);
        EXPECT_TRUE(log_.has(std::string("[ERROR]: ") + row.name)) << row.name << log_.text();
        EXPECT_TRUE(log_.has(row.text)) << row.name;
    }
}

TEST_F(ListMethods, GroupNameIsCutToItsBuffer) {
    call(CREATEavDpiAppList, (R"({"appGroup":[")" + std::string(150, 'g') + R"("]})").c_str());
    EXPECT_TRUE(log_.has(" No App Group name grp name:" + std::string(99, 'g') + "\n"));
}

}  // namespace
