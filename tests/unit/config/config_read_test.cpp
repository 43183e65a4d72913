#include <sys/stat.h>

#include "unit/config/config_fixture.h"

namespace {

namespace fs = std::filesystem;

// The JSON of one file with these profiles, each given without its braces; ' stands for ".
std::string profiles(const std::vector<std::string> &texts) {
    std::string file;
    for (const std::string &text : texts) file += (file.empty() ? "{" : ",{") + text + "}";
    file = "{'ApplicationVisbilityProfile':[" + file + "]}";
    std::replace(file.begin(), file.end(), '\'', '"');
    return file;
}

constexpr char kEnable[] = "'appMonAdminState':{'adminState':'enable'}";
constexpr char kGroup[] = "'avAppGroup':{'G':[{'appName':'mail'}]}";

class ConfigRead : public ConfigTest {
  protected:
    static void load(const std::string &text) {
        putConfig(text);
        amParseConfigFromFile();
    }
    void loadProfiles(const std::vector<std::string> &texts) {
        forgetEverything();
        load(profiles(texts));
    }
};

TEST_F(ConfigRead, KeysAreReadInAnyCase) {
    load(R"({"applicationvisbilityprofile":[{"AVAPPGROUP":{"G":[{"APPNAME":"mail"}]},
             "avdpiapplist":{"APPGROUP":["G"],"AppList":[{"appname":"dns"}]},"APPMONADMINSTATE":{"ADMINSTATE":"enable"}}]})");
    EXPECT_EQ(marks(2), "e");
    EXPECT_EQ(marks(3), "e:G");
    EXPECT_EQ(mirroring(), 1);
}

TEST_F(ConfigRead, AdminStateDecidesOverTheLoad) {
    const struct {
        const char *name;
        std::vector<std::string> texts;
        int mirroring;
        bool grouped;
    } kCases[] = {
        {"enable", {std::string(kEnable) + "," + kGroup}, 1, true},
        {"none", {kGroup}, 0, true},
        {"none after enable", {kEnable, kGroup}, 1, true},
        {"disable", {std::string("'appMonAdminState':{'adminState':'disable'},") + kGroup}, 0, false},
        {"another case", {std::string("'appMonAdminState':{'adminState':'Enable'},") + kGroup}, 0, false},
        {"no text", {std::string("'appMonAdminState':{'adminState':1},") + kGroup}, 0, false},
        {"object without it", {std::string("'appMonAdminState':{},") + kGroup}, 0, true},
        {"no object", {std::string("'appMonAdminState':'disable',") + kGroup}, 0, true},
        {"disable stops later profiles", {"'appMonAdminState':{'adminState':'disable'}", kGroup}, 0, false},
        {"disable keeps what came before",
         {std::string(kEnable) + "," + kGroup, "'appMonAdminState':{'adminState':''}"},
         1,
         true},
        {"a later profile starts from no groups", {std::string(kEnable) + "," + kGroup, kEnable}, 1, false},
    };
    for (const auto &row : kCases) {
        loadProfiles(row.texts);
        EXPECT_EQ(mirroring(), row.mirroring) << row.name;
        EXPECT_EQ(groupMarks("G") != "none", row.grouped) << row.name;
    }
}

TEST_F(ConfigRead, WrongTypesAndUnknownNamesCostTheirEntryOnly) {
    loadProfiles(
        {"'avAppGroup':{'A':5,'B':{'appName':'dns'},'C':[],'D':['dns',7,null,[],{'appName':3},{},{'appName':"
         "'nobody'}],'G':[{'appName':'mail'},{'appName':'mail'}]},"
         "'avAppMonAppList':{'appList':['dns',{'appName':null},{'appName':'nobody'},{'appName':'dns'}],"
         "'appGroup':[1,{},null,'none','G']},"
         "'avDpiAppList':[{'appList':[{'appName':'dns'}]}]," +
         std::string(kEnable)});
    for (const char *group : {"A", "B", "C", "D"}) EXPECT_EQ(groupMarks(group), "none") << group;
    EXPECT_EQ(groupMarks("G"), "m");
    EXPECT_EQ(membersOf("G"), std::vector<std::string>{"mail"});
    EXPECT_EQ(marks(2), "m");
    EXPECT_EQ(mirroring(), 1);
    EXPECT_TRUE(log_.has("AppName is NULL"));

    const std::string wrong[] = {"5", "'text'", "null", "true", "[]", "[[[]]]", "{}", "{'avAppGroup':{}}"};
    const char *const keys[] = {"avSignatureProfile", "appMonUpdateSignatureFile", "reloadSignFile",
                                "avAppGroup",         "avAppMonAppList",           "avDpiAppList",
                                "appMonAdminState"};
    for (const char *key : keys)
        for (const std::string &value : wrong) {
            loadProfiles({std::string("'") + key + "':" + value, kEnable});
            EXPECT_EQ(mirroring(), 1) << key << " " << value;
        }
}

TEST_F(ConfigRead, LongNamesAreCutAndTextsEndAtAZero) {
    const std::string longName(60, 'g');
    loadProfiles({"'avAppGroup':{'" + longName +
                  "':[{'appName':'mail\\u0000x'}]},'avDpiAppList':{'appGroup':['" + longName + "']}"});
    EXPECT_EQ(marks(3), "e:" + longName.substr(0, 40));
}

TEST_F(ConfigRead, WhatIsNoConfigurationAppliesNothing) {
    amNetLinkMirrorState(1);
    amAddAppToGrp("G", "mail");
    log_.forget();
    const auto descriptorsBefore = descriptors();
    std::string garbage(10 << 20, '\0');
    for (size_t i = 0; i < garbage.size(); i++) garbage[i] = static_cast<char>(i * 2654435761U >> 13);
    const std::string kCases[] = {
        "",
        "\n",
        "{}",
        "[]",
        "5",
        "{\"ApplicationVisbilityProfile\":null}",
        "{\"ApplicationVisbilityProfile\":{\"a\":{}}}",
        "{\"ApplicationVisbilityProfile\":[]}",
        "{\"ApplicationVisbilityProfile\":[5,null,\"text\",[]]}",
        std::string(1, '\0') + "{\"ApplicationVisbilityProfile\":[{}]}",
        garbage,
        std::string(10 << 20, '{'),
        std::string(10 << 20, '['),
        "{\"ApplicationVisbilityProfile\":" + std::string(5 << 20, '[') + std::string(5 << 20, ']') + "}",
    };
    for (const std::string &text : kCases) {
        load(text);
        EXPECT_EQ(mirroring(), 1) << text.substr(0, 60);
        EXPECT_EQ(groupMarks("G"), "") << text.substr(0, 60);
    }

    fs::remove(kConfigPath);
    amParseConfigFromFile();
    fs::create_directory(kConfigPath);
    amParseConfigFromFile();
    fs::remove(kConfigPath);
    ASSERT_EQ(mkfifo(kConfigPath, 0600), 0);
    amParseConfigFromFile();
    fs::remove(kConfigPath);
    fs::create_symlink("/dev/zero", kConfigPath);
    amParseConfigFromFile();
    EXPECT_EQ(log_.text(), "");

    fs::remove(kConfigPath);
    putConfig("");
    for (const int more : {0, 1}) {
        fs::resize_file(kConfigPath, (uintmax_t{32} << 20) + static_cast<uintmax_t>(more));
        amParseConfigFromFile();
    }
    EXPECT_EQ(mirroring(), 1);
    EXPECT_EQ(descriptors(), descriptorsBefore);
    const std::string log = log_.text();
    EXPECT_NE(log.find(" [ERROR]: amParseConfigFromFile:"), log.npos);
    EXPECT_NE(log.find(" /var/config/dpi.conf is too large: 33554433 bytes\n"), log.npos);
    EXPECT_EQ(log.find('\n'), log.size() - 1) << "told once";
}

TEST_F(ConfigRead, FileCutAnywhereAppliesNothing) {
    configureOffice();
    const std::string text = written();
    forgetEverything();
    for (size_t size = 0; size + 2 < text.size(); size++) {
        load(text.substr(0, size));
        ASSERT_EQ(rbtCount(&amAppGrpTree), 0U) << size;
        ASSERT_EQ(mirroring(), 0) << size;
    }
    load(text.substr(0, text.size() - 1));
    EXPECT_EQ(mirroring(), 1) << "only the line end is missing";
}

TEST_F(ConfigRead, KitIsInstalledWhereTheProfileAsksForIt) {
    const struct {
        const char *name;
        const char *text;
        bool asked;
    } kCases[] = {
        {"in its object", "'appMonUpdateSignatureFile':{'reloadSignFile':'force'}", true},
        {"in the profile", "'reloadSignFile':'force'", true},
        {"beside an object that has none", "'appMonUpdateSignatureFile':{},'reloadSignFile':'force'", false},
        {"another word", "'appMonUpdateSignatureFile':{'reloadSignFile':'Force'}", false},
        {"no text", "'reloadSignFile':1", false},
    };
    for (const auto &row : kCases) {
        log_.forget();
        loadProfiles({std::string(row.text) + "," + kGroup});
        EXPECT_EQ(reloadSignFile, row.asked ? 1 : 0) << row.name;
        EXPECT_EQ(log_.has("app Signature kit not present in /flash"), row.asked) << row.name;
        EXPECT_EQ(groupMarks("G"), "") << row.name << ": the load goes on";
    }
}

TEST_F(ConfigRead, KitIsDownloadedWithTheAdministratorsCredentials) {
    std::ofstream("/tmp/kit") << "hello";
    const auto request = [](const std::string &extra) {
        return "'avSignatureProfile':{'filePath':'file:///tmp/"
               "kit','username':'SecretUser','password':'SecretWord'" +
               extra + "}";
    };
    const struct {
        const char *name;
        std::string text;
        const char *line;
    } kCases[] = {
        {"no check sum", request(""), "Successfully downloaded the kit\n"},
        {"its check sum", request(",'fileCheckSum':'5d41402abc4b2a76b9719d911017c592'"),
         "Successfully downloaded the kit\n"},
        {"another's", request(",'fileCheckSum':'5D41402ABC4B2A76B9719D911017C592'"),
         "Failed to download the kit\n"},
        {"a check sum that is no text", request(",'fileCheckSum':5"), "Failed to download the kit\n"},
        {"no such file",
         "'avSignatureProfile':{'filePath':'file:///tmp/"
         "none','username':'SecretUser','password':'SecretWord'}",
         "Failed to download the kit\n"},
        {"no request", "'x':1", "avSignatureProfile received is NULL\n"},
        {"no path", "'avSignatureProfile':{'username':'SecretUser','password':'SecretWord'}",
         "Filepath receivced is NULL\n"},
        {"no user", "'avSignatureProfile':{'filePath':'file:///tmp/kit','password':'SecretWord'}",
         "Username receivced is NULL\n"},
        {"no password", "'avSignatureProfile':{'filePath':'file:///tmp/kit','username':'SecretUser'}",
         "Password receivced is NULL\n"},
    };
    for (const auto &row : kCases) {
        log_.forget();
        fs::remove(kKitPath);
        loadProfiles({row.text, std::string("'appMonAdminState':{'adminState':'disable'}")});
        EXPECT_TRUE(log_.has(row.line)) << row.name << "\n" << log_.text();
        EXPECT_FALSE(log_.has("Secret")) << row.name;
    }
    EXPECT_EQ(fs::exists(kKitPath), false);
    loadProfiles({request("") + ",'appMonAdminState':{'adminState':'disable'}"});
    EXPECT_EQ(fileText(kKitPath), "hello") << "also of a profile that disables the rest";
}

// Marks of the array stay when the groups go.
TEST_F(ConfigRead, LoadReplacesGroupsAndAddsToTheLists) {
    amAddAppToGrp("old", "dns");
    amAddAppToAppList("dns", nullptr, AM_LIST_MONITORING);
    load(profiles({kGroup}));
    EXPECT_EQ(groupMarks("old"), "none");
    EXPECT_EQ(groupMarks("G"), "");
    EXPECT_EQ(marks(2), "m");
}

TEST_F(ConfigRead, LoadWithoutAnEnabledStateSwitchesMirroringOff) {
    amNetLinkMirrorState(1);
    load(profiles({kGroup}));
    EXPECT_EQ(mirroring(), 0);
    amNetLinkMirrorState(1);
    load(profiles({"'appMonAdminState':{'adminState':'disable'}"}));
    EXPECT_EQ(mirroring(), 1) << "not touched";
}

}  // namespace
