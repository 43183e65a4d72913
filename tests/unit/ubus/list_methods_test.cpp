#include "unit/ubus/fakes.h"

namespace {

class ListMethods : public MethodTest {
  protected:
    // The lists as "appA appB appC", "-" for one without a mark.
    static std::string lists() {
        std::string all;
        for (uint16_t id = 0; id < 3; id++) all += (id ? " " : "") + (marks(id).empty() ? "-" : marks(id));
        return all;
    }
    static std::string groups() {
        std::string all;
        for (const char *group : {"G", "H"})
            if (groupMarks(group) != "none") {
                all += (all.empty() ? "" : " ") + std::string(group) + "(";
                for (const std::string &app : membersOf(group)) all += app.substr(3);
                all += ")";
            }
        return all;
    }
};

constexpr char kOk[] = "reply ok";
constexpr char kInvalid[] = "reply Invalid configuration received";
constexpr char kMonApp[] = "reply Adding App to Monitor List Failed";
constexpr char kMonGroup[] = "reply Adding grp to Monitor List Failed";
constexpr char kEnfApp[] = "reply Adding App to Enforcement List Failed";
constexpr char kEnfGroup[] = "reply Adding grp to Enforcement List Failed";
constexpr char kCreate[] = "reply Creation of App-Grp Failed";
constexpr char kDelete[] = "reply Deletion of App-Grp Failed";

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
