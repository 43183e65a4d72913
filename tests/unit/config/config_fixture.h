// A kit with a few applications and an empty /var/config.
#pragma once
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "config/config_file.h"
#include "core/paths.h"
#include "flows/enf_flow_db.h"
#include "flows/mirroring.h"
#include "switch/sockets.h"
#include "unit/appmodel/model_fixture.h"
#include "unit/sandbox.h"

class ConfigTest : public ModelTest {
  protected:
    void SetUp() override {
        ModelTest::SetUp();
        // Mirror settings go somewhere where nobody listens.
        if (!control_nls) control_nls = mnl_socket_open(NETLINK_USERSOCK);
        ASSERT_NE(control_nls, nullptr);
        static const bool treesReady = [] {
            amInitEnfFlowDb();
            return true;
        }();
        ASSERT_TRUE(treesReady);
        emptyFolder("/var/config");
        installKit({{"calendar", 1},
                    {"dns", 2},
                    {"mail", 3},
                    {"a-name-that-fills-its-field-full", 4},
                    {"quote\" \\ \x01 \xc3\xbc", 5}});
        log_.forget();
    }
    void TearDown() override {
        amNetLinkMirrorState(0);
        reloadSignFile = 0;
        emptyFolder("/var/config");
        ModelTest::TearDown();
    }

    static std::string fileText(const std::string &path = kConfigPath) {
        std::ostringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }
    static void putConfig(const std::string &text) { std::ofstream(kConfigPath) << text; }
    static std::vector<std::string> filesInFolder() {
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator("/var/config"))
            names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }

    static auto descriptors() {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                             std::filesystem::directory_iterator{});
    }

    // As the example of an office has it.
    static void configureOffice() {
        amAddAppToGrp("office", "mail");
        amAddAppToGrp("office", "calendar");
        amAddGrpToAppList("office", AM_LIST_ENFORCEMENT);
        amAddAppToAppList("dns", nullptr, AM_LIST_MONITORING);
        amNetLinkMirrorState(1);
        reloadSignFile = 1;
    }

    static void forgetEverything() {
        amClearAppEnfList();
        amClearAppMonList();
        amCleanAppGroup();
        amNetLinkMirrorState(0);
        reloadSignFile = 0;
    }

    static std::string written() {
        amWriteConfigToFile();
        return fileText();
    }

    static int mirroring() { return amAdminState; }
};
