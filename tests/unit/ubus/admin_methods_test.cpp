#include "config/config_file.h"
#include "netlink/sockets.h"
#include "unit/ubus/fakes.h"

namespace {

using AdminMethods = MethodTest;

TEST_F(AdminMethods, AdminStateIsSetAndWrittenWhenItChanges) {
    const struct {
        const char *json;
        int before;
        const char *calls;
    } rows[] = {
        {R"({"adminState":"enable"})", 0, "mirror 1, reply ok, write config"},
        {R"({"adminState":"enable"})", 1, "mirror 1, reply ok"},
        {R"({"adminState":"disable"})", 1, "mirror 0, reply ok, write config"},
        {R"({"adminState":"disable"})", 0, "mirror 0, reply ok"},
        {R"({"adminState":"off"})", 0, "mirror 1, reply ok, write config"},
        {R"({"adminState":"Disable"})", 0, "mirror 1, reply ok, write config"},
        {R"({"adminState":""})", 1, "mirror 1, reply ok"},
        // Without a state nothing changes.
        {R"({})", 1, "reply ok"},
        {nullptr, 1, "reply ok"},
        {R"({"adminState":0})", 1, "reply ok"},
        {R"({"adminState":["disable"]})", 1, "reply ok"},
        {R"({"other":"disable"})", 0, "reply ok"},
    };
    for (const auto &row : rows) {
        amAdminState = row.before;
        EXPECT_EQ(call(SETappMonAdminState, row.json), row.calls) << (row.json ? row.json : "none");
    }
}

TEST_F(AdminMethods, OfAnArgumentGivenTwiceTheFirstTextCounts) {
    Message message("{}");
    blobmsg_add_u32(&message.buffer(), "adminState", 1);
    blobmsg_add_string(&message.buffer(), "adminState", "disable");
    blobmsg_add_string(&message.buffer(), "adminState", "enable");
    EXPECT_EQ(call(SETappMonAdminState, message.get()), "mirror 0, reply ok");
}

struct Settings {
    int print, stats, flow, level;
    bool operator==(const Settings &) const = default;
    friend std::ostream &operator<<(std::ostream &out, const Settings &is) {
        return out << is.print << is.stats << is.flow << " level " << is.level;
    }
};

TEST_F(AdminMethods, DebugSettingsChangeOnlyWhatIsGiven) {
    const Settings ones{1, 1, 1, 3};
    const struct {
        const char *json;
        Settings before, after;
        const char *calls = "reply ok";
    } rows[] = {
        {R"({"logLevel":"STATS"})", {0, 1, 0, 1}, {0, 1, 0, 8}},
        {R"({"logLevel":"ERROR"})", ones, {1, 1, 1, 1}},
        {R"({"logLevel":"debug"})", ones, ones},
        {R"({"logLevel":"NONE"})", ones, ones},
        {R"({"packetLog":"enable","statsLog":"enable","flowLog":"enable"})", {0, 0, 0, 1}, {1, 1, 1, 1}},
        {R"({"packetLog":"disable","statsLog":"packetDump","flowLog":""})", ones, {0, 0, 0, 3}},
        {R"({"packetLog":"packetDump","flowLog":"packetDump"})", {0, 0, 1, 1}, {1, 0, 0, 1}},
        {R"({"packetLog":1,"statsLog":false,"flowLog":null})", ones, ones},
        {R"({"debugPrintDb":"counter"})", ones, ones, "dump counter, reply ok"},
        {R"({"debugPrintDb":"flow"})", ones, ones, "dump flows, dump ft4, dump ft6, reply ok"},
        {R"({"debugPrintDb":"yes"})", ones, ones,
         "dump flows, dump ft4, dump ft6, dump mon6, dump counter, reply ok"},
        {R"({"debugPrintDb":"no"})", ones, ones},
        {"{}", ones, ones},
        {nullptr, ones, ones},
    };
    for (const auto &row : rows) {
        print_debug = row.before.print;
        stats_debug = row.before.stats;
        flow_debug = row.before.flow;
        logLevel = row.before.level;
        EXPECT_EQ(call(SetavDebugSettings, row.json), row.calls) << (row.json ? row.json : "none");
        EXPECT_EQ((Settings{print_debug, stats_debug, flow_debug, logLevel}), row.after)
            << (row.json ? row.json : "none");
    }
    print_debug = stats_debug = flow_debug = 0;
}

TEST_F(AdminMethods, KitIsFetchedAfterTheReply) {
    EXPECT_EQ(call(CREATEavSignatureProfile,
                   R"({"filePath":"ftp://h/k","fileCheckSum":"0123","password":"p","username":"u"})"),
              "reply ok, download u|p|ftp://h/k|0123");
    EXPECT_TRUE(log_.has("[DEBUG]: CREATEavSignatureProfile:"));
    EXPECT_TRUE(log_.has(" Successfully downloaded the kit\n"));

    fakes.downloadResult = -1;
    EXPECT_EQ(call(CREATEavSignatureProfile, R"({"filePath":7})"), "reply ok, download |||");
    EXPECT_TRUE(log_.has("[ERROR]: CREATEavSignatureProfile:"));
    EXPECT_TRUE(log_.has(" Failed to download the kit\n"));

    const auto text = [](size_t length, char of) { return std::string(length, of); };
    const std::string json = R"({"username":")" + text(300, 'u') + R"(","password":")" + text(256, 'p') +
                             R"(","filePath":")" + text(1024, 'f') + R"(","fileCheckSum":")" + text(33, 'c') +
                             R"("})";
    EXPECT_EQ(call(CREATEavSignatureProfile, json.c_str()), "reply ok, download " + text(255, 'u') + "|" +
                                                                text(255, 'p') + "|" + text(1023, 'f') + "|" +
                                                                text(32, 'c'));
}

TEST_F(AdminMethods, KitOnFlashIsInstalledWithMirroringOff) {
    const struct {
        const char *json, *calls;
        int admin, validate, check, reload;
    } rows[] = {
        {R"({"reloadSignFile":"force"})", "mirror 0, validate, reply ok, check, update, mirror 1", 1, 1, 1,
         1},
        {R"({"reloadSignFile":"force"})", "validate, reply ok, check, update", 0, 1, 1, 1},
        {R"({"reloadSignFile":"force"})", "mirror 0, validate, reply ok, check, clean, mirror 1", 1, 1, 0, 1},
        {R"({"reloadSignFile":"force"})", "mirror 0, validate, reply Kit Validation Failed!!!", 1, 0, 1, 0},
        {R"({"reloadSignFile":"force"})", "validate, reply Kit Validation Failed!!!", 0, -1, 1, 0},
        {R"({"reloadSignFile":"no"})", "reply ok", 1, 1, 1, 1},
        {R"({"reloadSignFile":true})", "reply ok", 1, 1, 1, 1},
        {"{}", "reply ok", 1, 0, 1, 1},
        {nullptr, "reply ok", 1, 0, 1, 1},
    };
    for (const auto &row : rows) {
        amAdminState = row.admin;
        fakes.validateResult = row.validate;
        fakes.checkResult = row.check;
        reloadSignFile = 1 - row.reload;
        EXPECT_EQ(call(SETappMonUpdateSignatureFile, row.json), row.calls);
        EXPECT_EQ(reloadSignFile, row.reload) << row.calls;
    }
}

}  // namespace
