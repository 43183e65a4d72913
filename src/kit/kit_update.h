// Validates the kit on flash, decides by its MD5 digest whether it has to be installed, and installs it. File
// work is done by shell commands.  Everything runs on the event-loop thread and blocks it while it lasts.
//
// Results are 1 for success (of the change check: install) and 0 for failure (unchanged).
#pragma once
#include <cstdint>

inline constexpr char kKitScratch[] = "/var/flash";
inline constexpr char kKitTestDir[] = "/var/flash/.tmp_";
inline constexpr char kKitWorkDir[] = "/var/flash/switch/zor/app_mon";
inline constexpr char kKitInstallDir[] = "/var/flash/switch/zor/app_mon/.tmp_";

extern uint8_t CurMd5Sum[16];  // digest of the kit as last seen by the change check; zero at start

int dpiValidateKit();     // checked and staged
int amcCheckKit();        // whether the kit is to be installed
void amUpdateKit();       // installs the staged kit; reports through the log only
void amCleanUpdateKit();  // wipes the scratch areas
int amCopyLibsSo();       // the installed kit's libraries into /lib

// The exit code of a command run with system(), or -1 when it did not end normally or could not be started.
int decodeSystemResult(int status);
