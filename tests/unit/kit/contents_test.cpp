#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "appmodel/app_pool.h"
#include "kit/kit_contents.h"
#include "kit/kit_folders.h"
#include "kit_world.h"

namespace kit_test {

struct IndexLine {
    const char *what;
    std::string line;
    std::string name;
    unsigned id;
};

void PrintTo(const IndexLine &line, std::ostream *out) {
    *out << line.what;
}

class KitIndexLine : public KitTest, public ::testing::WithParamInterface<IndexLine> {};

TEST_P(KitIndexLine, BecomesAnApplication) {
    std::vector<char> line(GetParam().line.begin(), GetParam().line.end());
    line.push_back('\0');
    amParseAppPoolCsvLine(line.data());
    ASSERT_EQ(1U, rbtCount(&amAppPoolTree));
    const AmAppNode *app = amGetNextAppNode(nullptr);
    EXPECT_EQ(GetParam().name, app->name);
    EXPECT_EQ(GetParam().id, app->appId);
    EXPECT_EQ(static_cast<int32_t>(GetParam().id), amAppPoolShmSigCnt);
}

const std::string k32(32, 'n');
const IndexLine kLines[] = {
    {"Plain", "17,Mail,x,y\n", "Mail", 17},
    {"EmptyFieldsVanish", ",,17,,,Mail,x\n", "Mail", 17},
    {"IdOf16Bits", "70000,Foo,a\n", "Foo", 4464},
    {"NegativeId", "-1,Foo,a\n", "Foo", 65535},
    {"IdBeyondAnyNumber", "99999999999999999999,Foo,a\n", "Foo", 65535},
    {"NumberIsReadAsFarAsItGoes", " 12ab,Foo,a\n", "Foo", 12},
    {"NoNumber", "Foo,Bar,a\n", "Bar", 0},
    {"LineEndStaysOnTwoFields", "5,Foo\n", "Foo\n", 5},
    {"CarriageReturnStaysToo", "5,Foo\r\n", "Foo\r\n", 5},
    {"NoName", "5", "", 5},
    {"Nothing", "", "", 0},
    {"OnlySeparators", ",,,,", "", 0},
    {"NameOfFullWidth", "5," + k32 + ",x\n", k32, 5},
    {"LongNameIsCut", "5," + std::string(40, 'n') + ",x\n", k32, 5},
    {"ManyFields", "5,Foo,3,4,5,6,7,8,9,10,11\n", "Foo", 5},
};
INSTANTIATE_TEST_SUITE_P(Lines, KitIndexLine, ::testing::ValuesIn(kLines),
                         [](const auto &row) { return std::string(row.param.what); });

class KitContents : public KitTest {
  protected:
    void SetUp() override {
        KitTest::SetUp();
        shell("mkdir -p /var/flash/.tmp_ /var/flash/switch/zor/app_mon/.tmp_");
    }
    static std::string member(const char *name) { return std::string(kKitInstallDir) + "/" + name; }
    static int readIndex(const std::string &content) {
        writeFile(member("AppMon_Signature_Index.csv"), content);
        return amParseAppPoolCsv();
    }
    static int lowestFreeDescriptor() {
        const int descriptor = dup(STDIN_FILENO);
        close(descriptor);
        return descriptor;
    }
    static int readVersion(const std::string &content) {
        writeFile(member("version"), content);
        return amParseKitVersion();
    }
};

TEST_F(KitContents, HeaderOfTheIndexIsSkippedWhateverItHolds) {
    EXPECT_EQ(1, readIndex("9,NoApplication,x\n1,One,x\n300,Two,x\n2,Three,x"));
    EXPECT_EQ(3U, rbtCount(&amAppPoolTree));
    EXPECT_EQ(nullptr, getAppNode("NoApplication"));
    EXPECT_EQ(300, amAppPoolShmSigCnt);
}

TEST_F(KitContents, ANumberIsKeptWhileItsApplicationStays) {
    EXPECT_EQ(1, readIndex("header\n9,Moved,x\n"));
    amAppPoolMarkObsolete();
    EXPECT_EQ(1, readIndex("header\n4,Moved,x\n"));
    ASSERT_NE(nullptr, getAppNode("Moved"));
    EXPECT_EQ(9, getAppNode("Moved")->appId);
}

TEST_F(KitContents, LongLineIsReadInPiecesOf511Characters) {
    const std::string longLine = "5,Foo," + std::string(505, 'x') + "6,Bar,x\n";  // second piece: 6,Bar,x
    EXPECT_EQ(1, readIndex("header\n" + longLine + "7,Baz,x\n"));
    ASSERT_NE(nullptr, getAppNode("Bar"));
    EXPECT_EQ(6, getAppNode("Bar")->appId);
    EXPECT_EQ(5, getAppNode("Foo")->appId);
    EXPECT_EQ(7, getAppNode("Baz")->appId);
    EXPECT_EQ(3U, rbtCount(&amAppPoolTree));
}

TEST_F(KitContents, CompatibilityIsTheFirstLinesNumber) {
    const struct {
        const char *content;
        int compatible;
        const char *logged;
    } rows[] = {
        {"1\n", 1, ""},
        {"1", 1, ""},
        {" 1 beta\n2\n", 1, ""},
        {"2\n1\n", 0, "Kit not comaptible 2\n"},
        {"", 0, "Kit not comaptible 0\n"},
        {"4294967297\n", 0, "Kit not comaptible 2147483647\n"},
    };
    for (const auto &row : rows) {
        writeFile(std::string(kKitTestDir) + "/compatibility.txt", row.content);
        EXPECT_EQ(row.compatible, amParseKitCompatibality()) << row.content;
        expectLog(row.logged);
    }
}

// Opening a pipe of the kit's making for reading would never return.
TEST_F(KitContents, MemberThatIsNoRegularFileIsNotOpened) {
    const int before = lowestFreeDescriptor();
    ASSERT_EQ(0, mkfifo((std::string(kKitTestDir) + "/compatibility.txt").c_str(), 0600));
    EXPECT_EQ(0, amParseKitCompatibality());
    expectLog("Error opening file /var/flash/.tmp_/compatibility.txt");
    ASSERT_EQ(0, mkfifo(member("version").c_str(), 0600));
    EXPECT_EQ(0, amParseKitVersion());
    expectLog("Error opening Version file");
    ASSERT_EQ(0, mkdir(member("AppMon_Signature_Index.csv").c_str(), 0700));
    EXPECT_EQ(0, amParseAppPoolCsv());
    expectLog("AppMon_Signature_Index.csv");
    EXPECT_EQ(before, lowestFreeDescriptor());
}

TEST_F(KitContents, VersionTellsWhetherTheMajorNumberWasKept) {
    memset(amKitVersion, 0, sizeof amKitVersion);
    const struct {
        std::string content, version;
        int kept;
    } rows[] = {
        {"2.9\n", "2.9", 0},
        {"3.0.5\nmore\n", "3.0.5", 0},
        {"3.2.1\r\n", "3.2.1", 1},
        {"", "3.2.1", 1},  // no first line: the version held stays
        {std::string(60, '7') + "\n", std::string(49, '7'), 0},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(1, readVersion(row.content));
        EXPECT_EQ(row.version, amKitVersion);
        EXPECT_EQ(row.kept, amKitUpgradeType) << row.content;
    }
}

}  // namespace kit_test
