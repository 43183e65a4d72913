#include "ubus/request_log.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <fstream>
#include <random>
#include <regex>

#include "core/paths.h"
#include "unit/log_capture.h"
#include "unit/sandbox.h"

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace {

std::string masked(std::string text) {
    mask_pass(text.data(), static_cast<int>(text.size()));
    return text;
}

// Word by word, each to the end of its walk.
std::string maskedPlainly(std::string text) {
    int quotes = 0;
    for (size_t word = text.find("password"); word != text.npos; word = text.find("password", word + 9)) {
        for (size_t at = word; at < text.size(); at++) {
            if (text[at] == '"') {
                if (++quotes <= 2) continue;
                quotes = 0;
                break;
            }
            if (quotes == 2) text[at] = '*';
        }
    }
    return text;
}

TEST(MaskPass, AgreesWithThePlainWalkAndTakesNoLongerForManyWords) {
    std::mt19937 random(26);
    const char *const pieces[] = {"password", "password ", "\"", "x", "passwor", "\": \""};
    for (int round = 0; round < 20'000; round++) {
        std::string text;
        for (auto n = random() % 24; n > 0; n--) text += pieces[random() % std::size(pieces)];
        ASSERT_EQ(masked(text), maskedPlainly(text)) << text;
    }
    std::string words = "{\"appName\": \"";
    while (words.size() < 1U << 20) words += "password ";
    words += "\", \"a\": \"b\"}";
    const clock_t before = clock();  // processor time: a busy machine does not count
    EXPECT_NE(masked(words).find('*'), words.npos);
    EXPECT_LT((clock() - before) / CLOCKS_PER_SEC, 5) << "the square of the length takes half a minute";
}

TEST(MaskPass, HidesTheValuesOfPasswordsAndNothingElse) {
    const struct {
        const char *text, *masked;
    } rows[] = {
        {"", ""},
        {"password", "password"},
        {R"("password": "abc")", R"("password": "***")"},
        {R"({"user": "password"})", R"({"user": "password"})"},
        {R"("password": "", "a": "b")", R"("password": "", "a": "b")"},
        {R"("username": "u", "password": "sec ret", "filePath": "f")",
         R"("username": "u", "password": "*******", "filePath": "f")"},
        {"\"password\":\t\"a\nb\"", "\"password\":\t\"***\""},
        // A backslash before a quote does not protect it.
        {R"("password": "a\"b", "x": "y")", R"("password": "**"b", "x": "y")"},
        {R"("password": "password", "x": "y")", R"("password": "********", "x": "y")"},
        {R"("password": "p", "password": "q")", R"("password": "*", "password": "*")"},
        {R"("oldpassword": "p", "passwords": "q")", R"("oldpassword": "*", "passwords": "*")"},
        // As a value, it is the following key that stands where its value would be.
        {R"("user": "password", "filePath": "f")", R"("user": "password", "********": "f")"},
        // The count goes on where the text ended before the third quote.
        {R"("password": "never ends)", R"("password": "**********)"},
        {R"(password password "x" "y")", R"(password password "x"*"y")"},
        {"password password", "password password"},
        // The next word is looked for nine characters on, so one that follows at once is not seen.
        {R"(passwordpassword "v")", R"(passwordpassword "v")"},
        {R"(password)"
         "\"",
         R"(password)"
         "\""},
    };
    for (const auto &row : rows) EXPECT_EQ(masked(row.text), row.masked) << row.text;
}

// A message of the bus, from JSON text; of null, none at all.
class Message {
  public:
    explicit Message(const char *json) : absent_(!json) {
        blob_buf_init(&buf_, 0);
        if (absent_) return;
        EXPECT_TRUE(blobmsg_add_json_from_string(&buf_, json)) << json;
    }
    ~Message() { blob_buf_free(&buf_); }
    Message(const Message &) = delete;
    Message &operator=(const Message &) = delete;
    blob_attr *get() { return absent_ ? nullptr : buf_.head; }
    blob_buf &buffer() { return buf_; }

  private:
    blob_buf buf_{};
    bool absent_;
};

class RequestLog : public testing::Test {
  protected:
    void SetUp() override {
        requireSandbox();
        (void)rmdir(kRequestLogPath);
        // The stream of an earlier case is dropped the way the daemon drops it: at the limit.
        std::ofstream(kRequestLogPath, std::ios::trunc) << "";
        setSize(2'097'152);
    }
    static void setSize(off_t bytes) { ASSERT_EQ(truncate(kRequestLogPath, bytes), 0); }
    static std::string text() {
        std::ostringstream text;
        text << std::ifstream(kRequestLogPath).rdbuf();
        return text.str();
    }
    static void log(const char *json) { log_ubus_msg(Message(json).get()); }

    LogCapture log_;
};

TEST_F(RequestLog, EntryIsTheTimeAndTheMessageOneMemberALine) {
    log(R"({"username":"me","password":"secret!","t":{}})");
    const std::string entry = text();
    ASSERT_GT(entry.size(), 19U);
    EXPECT_TRUE(std::regex_match(entry.substr(0, 19), std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)")));
    EXPECT_EQ(entry.substr(19),
              " : ubus msg :\n{\n\t\"username\": \"me\",\n\t\"password\": \"*******\",\n\t\"t\": "
              "{\n\t\t\n\t}\n}\n");
    log("{}");
    EXPECT_EQ(text().substr(entry.size() + 19), " : ubus msg :\n{\n\t\n}\n");
    log(nullptr);
    EXPECT_EQ(text().substr(entry.size() + 19), " : ubus msg :\n{\n\t\n}\n");
    struct stat file {};
    ASSERT_EQ(stat(kRequestLogPath, &file), 0);
    EXPECT_EQ(file.st_mode & 0777U, 0600U);
}

TEST_F(RequestLog, LongEntryIsCut) {
    log("{}");
    const size_t before = text().size();
    log((R"({"filePath":")" + std::string(6000, 'f') + R"("})").c_str());
    EXPECT_EQ(text().size() - before, 4095U);
}

TEST_F(RequestLog, FileIsRestartedAtTwoMebibytes) {
    log("{}");
    const size_t entry = text().size();
    setSize(2'097'151);
    log("{}");
    EXPECT_EQ(text().size(), 2'097'151 + entry);
    log(R"({"a":1})");
    EXPECT_EQ(text().substr(19), " : ubus msg :\n{\n\t\"a\": 1\n}\n");
}

TEST_F(RequestLog, StandardErrorTakesThePlaceOfAFileThatCannotBeOpened) {
    log("{}");
    setSize(2'097'152);
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const rlimit none{3, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    log(R"({"a":1})");
    log(R"({"b":2})");
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    (void)fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error opening ubus log file: /var/log/ubusDpi.log\n");
    const std::string entries = testing::internal::GetCapturedStderr();
    EXPECT_EQ(entries.substr(19, 25), " : ubus msg :\n{\n\t\"a\": 1\n}");
    EXPECT_NE(entries.find("\"b\": 2"), std::string::npos);
}

TEST_F(RequestLog, MessageThatWouldOverrunTheFormattersStackIsLeftOut) {
    log("{}");
    for (const int levels : {63, 64, 50'000}) {
        Message message("{}");
        std::vector<void *> open;
        while (std::ssize(open) < levels) open.push_back(blobmsg_open_nested(&message.buffer(), "", true));
        for (; !open.empty(); open.pop_back()) blob_nest_end(&message.buffer(), open.back());
        const size_t before = text().size();
        log_.forget();
        log_ubus_msg(message.get());
        EXPECT_EQ(text().size() > before, levels == 63) << levels;
        EXPECT_EQ(log_.has("[ERROR]: log_ubus_msg:"), levels != 63) << levels;
    }
}

}  // namespace
