#include "kit/transfer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "core/log.h"
#include "kit_world.h"

namespace kit_test {

constexpr char kKit[] = "/flash/HAppSig.upgrade_kit";
constexpr char kSource[] = "/tmp/source";
constexpr char kSourceUrl[] = "file:///tmp/source";

std::string upperCase(std::string text) {
    for (char &c : text) c = static_cast<char>(toupper(c));
    return text;
}

class KitDownload : public KitTest {
  protected:
    static int fetch(const char *url, const char *md5) { return kit_download("admin", "secret", url, md5); }
    const std::string content_ = std::string(100000, 'k') + '\0' + "end";
    const std::string sum_ = md5Of(content_);
};

TEST_F(KitDownload, SumIsComparedExactly) {
    writeFile(kSource, content_);
    const std::string upper = upperCase(sum_);
    for (const std::string &wrong : {upper, sum_ + "0", sum_.substr(1), std::string(), md5Of("other")}) {
        EXPECT_EQ(-1, fetch(kSourceUrl, wrong.c_str())) << wrong;
        expectLog("KIT Download Failure : Md5sum not matching\n");
        EXPECT_EQ(content_, readFile(kKit));
        amLogOpen(nullptr, AM_LOG_ERROR);
        unlink("/tmp/kit_test.log");
        amLogOpen("/tmp/kit_test.log", AM_LOG_DEBUG);
    }
}

TEST_F(KitDownload, FailureBeforeAnyDataLeavesTheEarlierKit) {
    writeFile(kKit, "earlier");
    EXPECT_EQ(-1, fetch("file:///tmp/no-such-file", sum_.c_str()));
    expectLog("KIT Download FAILURE : CURLcode 37\n");
    EXPECT_EQ(-1, fetch("nonsense://host/kit", sum_.c_str()));
    expectLog("KIT Download FAILURE : CURLcode 1\n");
    EXPECT_EQ("earlier", readFile(kKit));
}

TEST_F(KitDownload, KitThatCannotBeStoredIsAFailureThoughItsSumMatches) {
    writeFile(kSource, "small");
    ASSERT_EQ(0, symlink("/dev/full", kKit));  // full, but that shows only when the buffer is written
    EXPECT_EQ(-1, fetch(kSourceUrl, md5Of("small").c_str()));
    expectLog("[ERROR]");
    expectNoLog("SUCCESS");
    unlink(kKit);
    ASSERT_EQ(0, mkdir(kKit, 0700));
    EXPECT_EQ(-1, fetch(kSourceUrl, md5Of("small").c_str()));
    expectLog("KIT Download FAILURE : CURLcode 23\n");
}

class KitStatsUpload : public KitTest {
  protected:
    void SetUp() override {
        KitTest::SetUp();
        ASSERT_EQ(0, mkdir("/tmp/up", 0700));
    }
    int send(const std::string &where, const char *file = "records.csv") {
        return stats_upload("admin", "secret", where.c_str(), file, sum_);
    }
    char sum_[33] = {};
};

TEST_F(KitStatsUpload, UrlHasOneSeparator) {
    const struct {
        std::string path;
        const char *file;
        std::string url;
    } rows[] = {
        {"ftp://host/dir", "a.csv", "ftp://host/dir/a.csv"},
        {"ftp://host/dir/", "a.csv", "ftp://host/dir/a.csv"},
        {"ftp://host/dir//", "a.csv", "ftp://host/dir//a.csv"},
        {"", "a.csv", "/a.csv"},
        {std::string(249, 'p'), "a.csv", std::string(249, 'p') + "/a.csv"},
        {std::string(249, 'p') + "/", "a.csv", std::string(249, 'p') + "/a.csv"},
    };
    for (const auto &row : rows) {
        UploadUrl url;
        EXPECT_EQ(0, getUrlwithFilename(row.path.c_str(), row.file, url));
        EXPECT_EQ(row.url, url);
        expectLog(" URL " + row.url + "\n");
    }
}

TEST_F(KitStatsUpload, OverlongUrlIsRefused) {
    writeFile("/flash/records.csv", "x");
    UploadUrl url;
    EXPECT_EQ(-1, getUrlwithFilename(std::string(250, 'p').c_str(), "a.csv", url));
    EXPECT_EQ(-1, send("file:///tmp/" + std::string(240, 'p')));
    expectLog("[ERROR]: getUrlwithFilename:");
    expectNoLog("pppp");
}

TEST_F(KitStatsUpload, FailuresAreTold) {
    EXPECT_EQ(-1, send("file:///tmp/up"));
    expectLog("[ERROR]: stats_upload:");
    expectLog(" File records.csv not present\n");
    writeFile("/flash/records.csv", "x");
    EXPECT_LT(0, send("file:///tmp/no/such/folder"));
    expectLog("STATS CSV Upload FAILURE : CURLcode ");
    EXPECT_STREQ("", sum_);
    expectNoLog("secret");
}

}  // namespace kit_test
