#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "kit/upload.h"
#include "unit/ubus/fakes.h"

namespace {

constexpr char kRequest[] = R"({"username":"u","password":"p","filePath":"sftp://h/d"})";

class ExportMethods : public MethodTest {
  protected:
    void SetUp() override {
        MethodTest::SetUp();
        (void)mkdir("/flash", 0755);
        for (const char *name : {"enforcement", "monitor"}) setOld(name, false);
    }
    static void setOld(const std::string &name, bool present) {
        const std::string path = "/flash/appmon_" + name + "_flow_records_old.csv";
        if (present)
            std::ofstream(path) << "line\n";
        else
            (void)unlink(path.c_str());
    }
};

TEST_F(ExportMethods, FileIsUploadedInItsOwnSlotAfterTheReply) {
    EXPECT_EQ(call(GETavDpiStats, kRequest),
              "stop 0, clear 0, clear 1, stats appmon_enforcement_flow_records.csv, "
              "start 0 appmon_enforcement_flow_records.csv u|p|sftp://h/d");
    EXPECT_EQ(call(GETavAppMonStats, kRequest),
              "stop 2, clear 2, clear 3, stats appmon_monitor_flow_records.csv, "
              "start 2 appmon_monitor_flow_records.csv u|p|sftp://h/d");
}

TEST_F(ExportMethods, RotatedFileGoesAlongWhenThereIsOne) {
    setOld("enforcement", true);
    EXPECT_EQ(call(GETavDpiStats, kRequest),
              "stop 0, stop 1, clear 0, clear 1, stats appmon_enforcement_flow_records.csv old, "
              "start 0 appmon_enforcement_flow_records.csv u|p|sftp://h/d, "
              "start 1 appmon_enforcement_flow_records_old.csv u|p|sftp://h/d");
    setOld("monitor", true);
    EXPECT_EQ(call(GETavAppMonStats, kRequest),
              "stop 2, stop 3, clear 2, clear 3, stats appmon_monitor_flow_records.csv old, "
              "start 2 appmon_monitor_flow_records.csv u|p|sftp://h/d, "
              "start 3 appmon_monitor_flow_records_old.csv u|p|sftp://h/d");
}

TEST_F(ExportMethods, UploadThatDoesNotStopKeepsItsSlot) {
    fakes.stopResult[2] = -1;
    EXPECT_EQ(call(GETavAppMonStats, kRequest), "stop 2, stats appmon_monitor_flow_records.csv");
    setOld("monitor", true);
    EXPECT_EQ(call(GETavAppMonStats, kRequest), "stop 2, stats appmon_monitor_flow_records.csv old");
    fakes.stopResult[2] = 0;
    fakes.stopResult[3] = -1;
    EXPECT_EQ(call(GETavAppMonStats, kRequest), "stop 2, stop 3, stats appmon_monitor_flow_records.csv old");
}

TEST_F(ExportMethods, ArgumentsOfAnEarlierRequestAreForgotten) {
    call(GETavDpiStats, kRequest);
    EXPECT_EQ(call(GETavDpiStats, R"({"filePath":"ftp://x","password":5})"),
              "stop 0, clear 0, clear 1, stats appmon_enforcement_flow_records.csv, "
              "start 0 appmon_enforcement_flow_records.csv ||ftp://x");
    const std::string path(300, 'f');
    EXPECT_EQ(call(GETavDpiStats, (R"({"filePath":")" + path + R"("})").c_str()),
              "stop 0, clear 0, clear 1, stats appmon_enforcement_flow_records.csv, "
              "start 0 appmon_enforcement_flow_records.csv ||" +
                  path.substr(0, 255));
}

TEST_F(ExportMethods, ThreadsThatCannotBeStartedAreReportedEach) {
    setOld("enforcement", true);
    setOld("monitor", true);
    for (int &result : fakes.startResult) result = -1;
    const std::string enforcement = call(GETavDpiStats, kRequest);
    EXPECT_NE(enforcement.find("reply Failed to upload the enforcement stats file, start 1 "),
              std::string::npos);
    EXPECT_NE(enforcement.find("reply Failed to upload the enforcement old stats file"), std::string::npos);
    const std::string monitoring = call(GETavAppMonStats, kRequest);
    EXPECT_NE(monitoring.find("reply Failed to upload appmon_monitor_flow_records.csv file, start 3 "),
              std::string::npos);
    EXPECT_NE(monitoring.find("reply Failed to upload the app-records old stats file"), std::string::npos);
}

}  // namespace
