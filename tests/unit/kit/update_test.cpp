#include "kit/kit_update.h"

#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "appmodel/app_lists.h"
#include "appmodel/app_pool.h"
#include "kit/engine.h"
#include "kit/kit_folders.h"
#include "kit/kit_libraries.h"
#include "kit/shell.h"
#include "kit_world.h"

namespace kit_test {

constexpr char kKit[] = "/flash/HAppSig.upgrade_kit";
constexpr char kStaged[] = "/var/flash/switch/zor/app_mon/HAppSig.upgrade_kit_new";

class KitUpdate : public KitTest {
  protected:
    void SetUp() override {
        KitTest::SetUp();
        memset(CurMd5Sum, 0, sizeof CurMd5Sum);
        shell("mkdir -p /tmp/kit/lib/ni && cp " KIT_TEST_ENGINES "/whole.so /tmp/kit/lib/ni/libcapture.so");
        writeFile("/tmp/kit/compatibility.txt", "1\n");
        writeFile("/tmp/kit/version", "1.0\n");
        writeFile("/tmp/kit/AppMon_Signature_Index.csv", "id,name\n17,Mail,x\n40,Web,x\n");
    }
    void TearDown() override {
        amQsCleanUp();
        amUnLoadQsKit();
        KitTest::TearDown();
    }
    static void pack(const std::string &members = ".") {
        shell(std::string("tar -czf ") + kKit + " -C /tmp/kit " + members);
    }
    static void install() {
        ASSERT_EQ(1, dpiValidateKit());
        amUpdateKit();
    }
    static std::string digestOfKit() {
        const std::string content = readFile(kKit);
        return md5Of(content);
    }
    static std::string remembered() {
        std::string text;
        char byte[3];
        for (const uint8_t value : CurMd5Sum) text += (snprintf(byte, sizeof byte, "%02x", value), byte);
        return text;
    }
};

// 2^40 bytes: nothing of them is left in 32 bits.
TEST_F(KitUpdate, KitLargerThanTheScratchAreaIsRefused) {
    writeFile(kKit, "");
    ASSERT_EQ(0, truncate(kKit, off_t{1} << 40));
    EXPECT_EQ(0, dpiValidateKit());
    expectLog("fileStat.st_size 1099511627776\n");
    expectLog(":Insufficient flash space\n");
    EXPECT_FALSE(exists(kKitTestDir));
}

TEST_F(KitUpdate, NothingIsWrittenOutsideTheExtraction) {
    shell("mkdir -p /tmp/out && ln -s /tmp/out /tmp/kit/link && echo x >/tmp/kit/plain");
    const char *const packings[] = {
        "--transform s,plain,/tmp/out/absolute, -P .",
        "--transform s,plain,../../../../tmp/out/upwards, -P .",
        "./compatibility.txt ./link --transform s,plain,link/through, ./plain",
    };
    for (const char *packing : packings) {
        pack(packing);
        shell(std::string("tar -tzPf ") + kKit + " | grep -q out/ || tar -tzf " + kKit +
              " | grep -q link/through");
        (void)dpiValidateKit();
        shell("test -z \"$(ls /tmp/out)\"");
        amCleanUpdateKit();
    }
}

// A refused kit's extraction stays, and with it the link.
TEST_F(KitUpdate, LinkOfARefusedKitDoesNotLeadTheNextOneOut) {
    shell("mkdir /tmp/out && ln -s /tmp/out /tmp/kit/link");
    writeFile("/tmp/kit/compatibility.txt", "2\n");
    pack();
    EXPECT_EQ(0, dpiValidateKit());
    EXPECT_TRUE(exists(std::string(kKitTestDir) + "/link"));
    shell("rm /tmp/kit/link && mkdir /tmp/kit/link && echo x >/tmp/kit/link/through");
    writeFile("/tmp/kit/compatibility.txt", "1\n");
    pack("./compatibility.txt ./link/through");
    EXPECT_EQ(1, dpiValidateKit());
    shell("test -z \"$(ls /tmp/out)\"");
}

TEST_F(KitUpdate, InstallationReplacesPoolEngineAndArray) {
    pack();
    install();
    EXPECT_TRUE(amEngineLoaded());
    EXPECT_EQ(17, getAppNode("Mail")->appId);
    EXPECT_EQ(41U, amMaxAppIdCount);
    EXPECT_EQ(1, amCreateAppGrp(&amAppGrpTree, "Office"));
    EXPECT_EQ(1, amAddAppToAppList("Mail", nullptr, AM_LIST_MONITORING));
    EXPECT_FALSE(exists("/var/flash"));
    EXPECT_TRUE(exists(kKit));
    EXPECT_FALSE(exists("/lib/libcapture.so"));

    writeFile("/tmp/kit/AppMon_Signature_Index.csv", "id,name\n30,Mail,x\n5,Chat,x\n");
    pack();
    install();
    EXPECT_EQ(nullptr, getAppNode("Web"));
    EXPECT_EQ(5, getAppNode("Chat")->appId);
    EXPECT_EQ(17, getAppNode("Mail")->appId);  // the id of an application that stays does not change
    EXPECT_EQ(31U, amMaxAppIdCount);
    EXPECT_EQ(0, amActiveApp(17)->isMonitoring);
    EXPECT_EQ(nullptr, amFindGrpNode(&amAppGrpTree, "Office"));
    expectLog("Kit update complete Spawning Thread\n");
}

// What the loader keeps mapped must not change under the process, nor what a link in /lib leads to.
TEST_F(KitUpdate, LibrariesAreNotCopiedIntoFilesThatAreThere) {
    const std::string kit = std::string(kKitInstallDir) + "/lib/ni/";
    shell("mkdir -p " + kit + " && cd " + kit +
          " && echo new >libx.so.1 && ln -s libx.so.1 libx.so && ln -s nowhere liby.so && mkdir libz.so");
    shell(
        "cd /lib && echo old >libx.so.1 && ln libx.so.1 libx.mapped && echo other >/tmp/other"
        " && ln -s /tmp/other libx.so && echo old | tee liby.so >libz.so");
    EXPECT_EQ(0, amCopyLibsSo());  // for the link to nowhere and the folder
    expectLog("Unable to copy libraries cp -f " + kit + "*.so*  /lib \n");
    EXPECT_EQ("new\n", readFile("/lib/libx.so"));
    EXPECT_EQ("new\n", readFile("/lib/libx.so.1"));
    EXPECT_EQ("old\n", readFile("/lib/libx.mapped"));
    EXPECT_EQ("other\n", readFile("/tmp/other"));
    EXPECT_EQ("old\nold\n", readFile("/lib/liby.so") + readFile("/lib/libz.so"));
    shell("rm /lib/lib[xyz].*");
}

TEST_F(KitUpdate, FailedExtractionLeavesTheInstalledKitInPlace) {
    pack();
    install();
    ASSERT_EQ(1, dpiValidateKit());
    writeFile(kStaged, "no archive");
    amUpdateKit();
    expectLog("[ERROR]:   amUpdateKit():");
    expectLog(": Unable to Unzip KIT to appMon folder, KIT file corrupted\n");
    EXPECT_TRUE(amEngineLoaded());
    EXPECT_EQ(AM_APP_VALID, getAppNode("Mail")->state);
}

TEST_F(KitUpdate, KitIsInstalledOnceUntilItChanges) {
    pack();
    EXPECT_EQ(1, amcCheckKit());  // no engine yet: in any case
    EXPECT_EQ(digestOfKit(), remembered());
    EXPECT_EQ(1, amcCheckKit());
    expectLog(" GET md5sum\n");
    expectNoLog(" compare md5sum\n");
    install();
    EXPECT_EQ(0, amcCheckKit());
    expectLog(" md5sum same\n");
    writeFile("/tmp/kit/version", "1.1\n");
    pack();
    EXPECT_EQ(1, amcCheckKit());
    expectLog(" md5sum diffrent\n");
    EXPECT_EQ(digestOfKit(), remembered());
    EXPECT_EQ(0, amcCheckKit());
}

TEST_F(KitUpdate, UnreadableKitAtTheFirstCheckIsRememberedAsZero) {
    memset(CurMd5Sum, 7, sizeof CurMd5Sum);
    EXPECT_EQ(1, amcCheckKit());
    expectLog("amcMd5SigKitDigest DPI: /flash/HAppSig.upgrade_kit Cannot be opened.\n");
    EXPECT_EQ(std::string(32, '0'), remembered());
}

TEST_F(KitUpdate, CommandsResultIsItsExitCode) {
    char command[64];
    EXPECT_EQ(0, am::runCommand(command, sizeof command, "true"));
    EXPECT_EQ(3, am::runCommand(command, sizeof command, "exit %d", 3));
    EXPECT_STREQ("exit 3", command);
    EXPECT_EQ(127, am::runCommand(command, sizeof command, "no-such-command-anywhere 2>/dev/null"));
    EXPECT_EQ(-1, am::runCommand(command, sizeof command, "kill -9 $$"));
    EXPECT_EQ(-1, am::runCommand(command, 8, "touch %s", "/tmp/cut"));
    EXPECT_FALSE(exists("/tmp/c") || exists("/tmp/cut"));
    EXPECT_EQ(-1, decodeSystemResult(-1));
    EXPECT_EQ(255, decodeSystemResult(255 << 8));
}

// Ending the daemon while a kit is being installed.
TEST_F(KitUpdate, InterruptDuringACommandIsNotLost) {
    static volatile sig_atomic_t interrupted;
    interrupted = 0;
    struct sigaction ours {};
    struct sigaction before {};
    ours.sa_handler = [](int) { interrupted = 1; };
    sigaction(SIGINT, &ours, &before);
    char command[64];
    EXPECT_EQ(0, am::runCommand(command, sizeof command, "kill -INT %d", getpid()));
    sigaction(SIGINT, &before, nullptr);
    EXPECT_EQ(1, interrupted);
}

}  // namespace kit_test
