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

TEST_F(ListMethods, ListsAreAddedToOrReplaced) {
    const struct {
        Handler handler;
        const char *json, *reply, *after;
    } rows[] = {
        {CREATEavAppMonAppList, R"({"appList":[{"appName":"appA","appId":"17"}]})", kOk, "m m:H e"},
        {SETavAppMonAppList, R"({"appList":[{"appName":"appA"}]})", kOk, "m - e"},
        {CREATEavDpiAppList, R"({"appList":[{"appId":1,"appName":"appA"}],"appGroup":["H"]})", kOk,
         "e me:H e"},
        {SETavDpiAppList, R"({"appGroup":["H"],"appList":[{"appName":"appA"},{}]})", kOk, "e me:H -"},
        // Nothing given: SET empties, CREATE leaves.
        {SETavDpiAppList, "{}", kOk, "- m:H -"},
        {CREATEavDpiAppList, "{}", kOk, "- m:H e"},
        {SETavAppMonAppList, nullptr, kOk, "- - e"},
        {CREATEavAppMonAppList, nullptr, kOk, "- m:H e"},
        {SETavDpiAppList, R"({"appList":[],"appGroup":[]})", kOk, "- m:H -"},
        // What was added before a failure stays, what follows is not looked at.
        {SETavAppMonAppList, R"({"appList":[{"appName":"appA"},{"appName":"none"},{"appName":"appB"}]})",
         kMonApp, "m - e"},
        {SETavDpiAppList, R"({"appList":[{"appName":"appA"}],"appGroup":["none","H"]})", kEnfGroup,
         "e m:H -"},
        {CREATEavAppMonAppList, R"({"appGroup":["none"]})", kMonGroup, "- m:H e"},
        {CREATEavDpiAppList, R"({"other":[],"appList":[{"appName":"appA"}]})", kInvalid, "- m:H e"},
        {SETavAppMonAppList, R"({"appList":[{"appName":"appA"}],"AppList":[]})", kInvalid, "m - e"},
        // Elements that are not what they should be.
        {CREATEavAppMonAppList, R"({"appList":["appA"]})", kMonApp, "- m:H e"},
        {CREATEavAppMonAppList, R"({"appList":[["appA"]]})", kMonApp, "- m:H e"},
        {CREATEavDpiAppList, R"({"appList":[{"appName":7}]})", kEnfApp, "- m:H e"},
        {CREATEavDpiAppList, R"({"appList":[{"appName":"appA","name":"appB"}]})", kEnfApp, "e m:H e"},
        {CREATEavDpiAppList, R"({"appGroup":["",1,{"x":"H"},"H"]})", kOk, "- me:H e"},
        // Values that hold nothing.
        {CREATEavAppMonAppList, R"({"appList":"appA"})", kMonApp, "- m:H e"},
        {CREATEavDpiAppList, R"({"appList":1})", kEnfApp, "- m:H e"},
        {SETavAppMonAppList, R"({"appGroup":"H"})", kMonGroup, "- - e"},
        {SETavDpiAppList, R"({"appGroup":true})", kEnfGroup, "- m:H -"},
    };
    for (const auto &row : rows) {
        amCleanAppGroup();
        amClearAppMonList();
        amClearAppEnfList();
        ASSERT_EQ(amAddAppToGrp("H", "appB"), 1);
        ASSERT_EQ(amAddGrpToAppList("H", AM_LIST_MONITORING), 1);
        ASSERT_EQ(amAddAppToAppList("appC", nullptr, AM_LIST_ENFORCEMENT), 1);
        ASSERT_EQ(lists(), "- m:H e");
        EXPECT_EQ(call(row.handler, row.json), row.reply) << (row.json ? row.json : "none");
        EXPECT_EQ(lists(), row.after) << (row.json ? row.json : "none");
    }
}

TEST_F(ListMethods, OnlySuccessDumpsTheListConcerned) {
    call(CREATEavDpiAppList, R"({"appList":[{"appName":"appA"}]})");
    EXPECT_TRUE(log_.has("---- Enforcement Application List ------\n"));
    EXPECT_TRUE(log_.has("AppId 0 App-Name appA\n"));
    EXPECT_FALSE(log_.has("---- Monitoring Application List ------\n"));
    log_.forget();
    call(CREATEavAppMonAppList, R"({"appList":[{"appName":"none"}]})");
    EXPECT_FALSE(log_.has("List ------\n"));
}

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

TEST_F(ListMethods, GroupsAreCreatedChangedAndDeletedInTheOrderOfTheMessage) {
    const struct {
        Handler handler;
        const char *json, *reply, *after;
    } rows[] = {
        {CREATEavAppGroup, R"({"appGroup":{"G":[{"appName":"appA","appId":"1"},{"appName":"appC"}]}})", kOk,
         "G(AC) H(B)"},
        {CREATEavAppGroup, R"({"appGroup":{"H":[{"appName":"appA"}],"G":[{"appName":"appB"}]},"ids":["H"]})",
         kOk, "G(B) H(AB)"},
        {CREATEavAppGroup, R"({"ids":["H"]})", kCreate, "H(B)"},
        {CREATEavAppGroup, R"({"ids":"H","appGroup":{"G":[{"appName":"appB"}]}})", kCreate, "G(B) H(B)"},
        {CREATEavAppGroup, "{}", kCreate, "H(B)"},
        {CREATEavAppGroup, nullptr, kCreate, "H(B)"},
        {CREATEavAppGroup, R"({"appGroup":{}})", kOk, "H(B)"},
        {CREATEavAppGroup, R"({"appGroup":{"G":[]}})", kOk, "H(B)"},
        // A failed entry does not keep the group's others out, but later groups.
        {CREATEavAppGroup,
         R"({"appGroup":{"G":[{"x":1,"appName":"appA"},{"appName":"appC"}],"H":[{"appName":"appC"}]}})",
         kCreate, "G(C) H(B)"},
        {CREATEavAppGroup, R"({"appGroup":{"G":[{"appName":"none"},{"appName":"appA"}]}})", kCreate,
         "G(A) H(B)"},
        {CREATEavAppGroup, R"({"appGroup":{"H":[{"appName":"appB"}]}})", kCreate, "H(B)"},
        {CREATEavAppGroup, R"({"appGroup":{"G":{"appName":"appA"}}})", kCreate, "H(B)"},
        {CREATEavAppGroup, R"({"appGroup":{"G":["appA",{"appName":"appC"}]}})", kCreate, "G(C) H(B)"},
        {CREATEavAppGroup, R"({"appGroup":{"G":[{"appName":3}]}})", kCreate, "H(B)"},
        {CREATEavAppGroup, R"({"appGroup":"G"})", kCreate, "H(B)"},
        // A failed member of the request does not end it.
        {CREATEavAppGroup, R"({"x":1,"appGroup":{"G":[{"appName":"appA"}]}})", kCreate, "G(A) H(B)"},

        {SETavAppGroup, R"({"ids":["H"],"appGroup":{"H":[{"appName":"appA"}]}})", kOk, "H(A)"},
        {SETavAppGroup, R"({"appGroup":{"H":[{"appName":"appA"}]},"ids":["H"]})", kOk, ""},
        {SETavAppGroup, R"({"ids":["none",5,"H"]})", kOk, ""},
        {SETavAppGroup, "{}", kOk, "H(B)"},
        {SETavAppGroup, nullptr, kOk, "H(B)"},
        {SETavAppGroup, R"({"ids":"H"})", kCreate, "H(B)"},
        {SETavAppGroup, R"({"other":1,"ids":["H"]})", kCreate, ""},
        {SETavAppGroup, R"({"appGroup":7})", kCreate, "H(B)"},

        {DELETEavAppGroup, R"({"ids":["H"],"appGroup":{"G":[{"appName":"appA"}]}})", kOk, ""},
        {DELETEavAppGroup, R"({"ids":["none","H"]})", kDelete, "H(B)"},
        {DELETEavAppGroup, R"({"ids":["H","none","H"]})", kDelete, ""},
        {DELETEavAppGroup, R"({"ids":"H","x":1})", kOk, "H(B)"},
        {DELETEavAppGroup, "{}", kOk, "H(B)"},
        {DELETEavAppGroup, nullptr, kOk, "H(B)"},
    };
    for (const auto &row : rows) {
        amCleanAppGroup();
        ASSERT_EQ(amAddAppToGrp("H", "appB"), 1);
        EXPECT_EQ(call(row.handler, row.json), row.reply) << (row.json ? row.json : "none");
        EXPECT_EQ(groups(), row.after) << (row.json ? row.json : "none");
    }
}

TEST_F(ListMethods, DeletionOfAMissingGroupIsOnlyADetailForSet) {
    log_.forget();
    EXPECT_EQ(call(SETavAppGroup, R"({"ids":["none"]})"), kOk);
    EXPECT_TRUE(log_.has("[DEBUG]: SETavAppGroup:"));
    EXPECT_TRUE(log_.has(" Deletion for non-existent group\n"));
}

}  // namespace
