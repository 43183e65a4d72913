#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <random>

#include "unit/config/config_fixture.h"

namespace {

namespace fs = std::filesystem;

using ConfigWrite = ConfigTest;
using Files = std::vector<std::string>;

TEST_F(ConfigWrite, FileHoldsGroupsListsAndStateInThisOrder) {
    configureOffice();
    EXPECT_EQ(written(), R"({
	"ApplicationVisbilityProfile":	[{
			"appMonUpdateSignatureFile":	{
				"reloadSignFile":	"force"
			},
			"avAppGroup":	{
				"office":	[{
						"appName":	"calendar"
					}, {
						"appName":	"mail"
					}]
			},
			"avAppMonAppList":	{
				"appList":	[{
						"appName":	"dns"
					}],
				"appGroup":	[]
			},
			"avDpiAppList":	{
				"appList":	[],
				"appGroup":	["office"]
			},
			"appMonAdminState":	{
				"adminState":	"enable"
			}
		}]
}
)");
    amNetLinkMirrorState(0);
    reloadSignFile = 0;
    const std::string disabled = written();
    EXPECT_NE(disabled.find("\"adminState\":\t\"disable\""), std::string::npos);
    EXPECT_NE(disabled.find("\"office\""), std::string::npos);
    EXPECT_EQ(disabled.find("reloadSignFile"), std::string::npos);
}

TEST_F(ConfigWrite, EverythingComesBackAsItWas) {
    std::mt19937 random(11);
    const char *const apps[] = {"calendar", "dns", "mail", "a-name-that-fills-its-field-full",
                                "quote\" \\ \x01 \xc3\xbc"};
    // In the order of their names, in which they are put on a list again: an application names its last
    // group.
    const char *const groups[] = {"\"{}[]:,", "a group name that fills its forty letters", "office",
                                  "u\xc3\xa9"};
    const auto model = [&] {
        std::string all;
        for (uint16_t id = 1; id <= std::size(apps); id++) all += marks(id) + " ";
        for (const char *group : groups) all += groupMarks(group) + " ";
        return all;
    };
    for (int round = 0; round < 100; round++) {
        forgetEverything();
        for (const char *group : groups)
            for (const char *app : apps)
                if (random() % 3 == 0) amAddAppToGrp(group, app);
        for (const uint32_t list : {AM_LIST_MONITORING, AM_LIST_ENFORCEMENT}) {
            for (const char *app : apps)
                if (random() % 3 == 0) amAddAppToAppList(app, nullptr, list);
            for (const char *group : groups)
                if (random() % 3 == 0 && amFindGrpNode(&amAppGrpTree, group)) amAddGrpToAppList(group, list);
        }
        amNetLinkMirrorState(random() % 2);
        const bool enabled = mirroring();
        const std::string marked = model();
        const std::string before = written();
        for (size_t at = before.find("forty"); at != before.npos; at = before.find("forty", at + 1))
            ASSERT_EQ(before.substr(at, 13), "forty letter\"") << before;

        forgetEverything();
        amParseConfigFromFile();
        if (!enabled) {
            EXPECT_EQ(rbtCount(&amAppGrpTree), 0U) << "a disabled state ends the load";
            continue;
        }
        ASSERT_EQ(mirroring(), 1);
        ASSERT_EQ(model(), marked) << before;
        ASSERT_EQ(written(), before);
    }
}

TEST_F(ConfigWrite, LinksAreFollowedToWhatTheyName) {
    fs::create_directory("/var/config/real");
    for (const char *target : {"real/dpi.conf", "/var/config/real/dpi.conf"}) {
        fs::remove(kConfigPath);
        fs::remove("/var/config/real/dpi.conf");
        fs::create_symlink(target, kConfigPath);
        for (int i = 0; i < 2; i++) {  // a link to nothing, then to a file
            written();
            EXPECT_TRUE(fs::is_symlink(kConfigPath)) << target;
            EXPECT_TRUE(fs::is_regular_file("/var/config/real/dpi.conf")) << target;
        }
    }
    fs::remove(kConfigPath);
    fs::create_symlink("dpi.conf", kConfigPath);
    amWriteConfigToFile();
    EXPECT_TRUE(fs::is_symlink(kConfigPath)) << "to itself";
}

TEST_F(ConfigWrite, WhereTheFolderTakesNoNewFileTheFileIsWrittenInPlace) {
    putConfig(std::string(100'000, 'x'));
    struct stat before {};
    struct stat after {};
    ASSERT_EQ(stat(kConfigPath, &before), 0);
    fs::create_directory("/var/config/dpi.conf.new");
    const std::string text = written();
    ASSERT_EQ(stat(kConfigPath, &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(text.substr(0, 2), "{\n");
    EXPECT_EQ(text.back(), '\n');
}

TEST_F(ConfigWrite, WithoutAFreeInodeTheFileIsWrittenInPlaceIfItsContentFits) {
    // Room for the folder, one file, and a page or two.
    ASSERT_EQ(mount("none", "/var/config", "tmpfs", 0, "nr_inodes=2,size=8192"), 0) << strerror(errno);
    configureOffice();
    const std::string longer = written();
    for (const int32_t reload : {0, 1}) {
        reloadSignFile = reload;
        EXPECT_EQ(written() == longer, reload == 1) << "shorter, and longer again";
    }
    EXPECT_FALSE(log_.has("ERROR"));
    for (int i = 0; i < 300; i++) amAddAppToGrp(("group " + std::to_string(i)).c_str(), "mail");
    EXPECT_EQ(written(), longer) << "no room for what it has to hold now";
    EXPECT_TRUE(log_.has("[ERROR]: replaceFile:"));
    EXPECT_TRUE(log_.has(" Unable to write /var/config/dpi.conf: No space left on device\n")) << log_.text();
    ASSERT_EQ(umount("/var/config"), 0);
}

TEST_F(ConfigWrite, WhatCannotBeOpenedIsNotWritten) {
    fs::create_directory(kConfigPath);
    amWriteConfigToFile();
    EXPECT_EQ(filesInFolder(), Files{"dpi.conf"});
    fs::rename("/var/config", "/var/elsewhere");
    amWriteConfigToFile();
    EXPECT_FALSE(fs::exists("/var/config"));
    EXPECT_EQ(log_.text(), "");
    fs::rename("/var/elsewhere", "/var/config");
}

TEST_F(ConfigWrite, WhatAKilledDaemonLeftBesideGoesWithTheNextWrite) {
    std::ofstream("/var/config/dpi.conf.new") << "half a fi";
    EXPECT_EQ(written().back(), '\n');
    EXPECT_EQ(filesInFolder(), Files{"dpi.conf"});
}

TEST_F(ConfigWrite, OwnerAndModeOfTheFileStay) {
    putConfig("{}");
    const bool isOurs = chown(kConfigPath, 4711, 4712) != 0;  // a user's sandbox knows no other users
    ASSERT_EQ(chmod(kConfigPath, 0664), 0);
    written();
    struct stat after {};
    ASSERT_EQ(stat(kConfigPath, &after), 0);
    EXPECT_EQ(after.st_mode & 07777U, 0664U);
    if (!isOurs) {
        EXPECT_EQ((std::pair{after.st_uid, after.st_gid}), (std::pair{4711U, 4712U}));
    }
}

TEST_F(ConfigWrite, WhatIsNoFileIsWrittenToAndStaysWhatItIs) {
    ASSERT_EQ(mkfifo(kConfigPath, 0600), 0);
    const int reader = open(kConfigPath, O_RDONLY | O_NONBLOCK);
    const auto before = descriptors();
    amWriteConfigToFile();
    EXPECT_EQ(descriptors(), before);
    char text[2] = "";
    EXPECT_EQ(read(reader, text, 1), 1);
    EXPECT_STREQ(text, "{");
    (void)close(reader);
    EXPECT_TRUE(fs::is_fifo(kConfigPath));
    amWriteConfigToFile();  // nobody reads: not waited for
    EXPECT_EQ(log_.text(), "");
}

TEST_F(ConfigWrite, FullDiskKeepsTheFileThatWasThere) {
    const std::string before = written();
    configureOffice();
    signal(SIGXFSZ, SIG_IGN);
    rlimit unlimited{};
    getrlimit(RLIMIT_FSIZE, &unlimited);
    const size_t size = written().size();
    putConfig(before);
    for (size_t room = 0; room < size; room++) {
        rlimit limit = unlimited;
        limit.rlim_cur = room;
        setrlimit(RLIMIT_FSIZE, &limit);
        amWriteConfigToFile();
        setrlimit(RLIMIT_FSIZE, &unlimited);
        ASSERT_EQ(fileText(), before) << room;
        ASSERT_EQ(filesInFolder(), Files{"dpi.conf"}) << room;
    }
    EXPECT_EQ(written().size(), size);
}

}  // namespace
