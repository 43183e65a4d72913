// Validates the kit on flash, decides by its MD5 digest whether it has to be installed, and installs it. File
// work is done by shell commands.  Everything runs on the event-loop thread and blocks it while it lasts.
//
//   kit on flash --dpiValidateKit--> staged copy --amUpdateKit--> pool, engine and array of the new kit
//                                        '--- unchanged: amCleanUpdateKit ---> wiped
//
// Results are 1 for success (of the change check: install) and 0 for failure (unchanged).  Failures are
// logged and end their sequence; nothing is rolled back.  What a failure leaves:
//   validation    the kit in use as it was; in the scratch area what had been extracted for the test, or
//                 staged
//   installation  engine, groups, lists and array as they were; the staged kit and what had been extracted of
//                 it; with an index that could not be read, the pool's applications marked obsolete, still
//                 found by name
//   engine step   no engine where the kit's could not be copied or opened, but its pool and an array for it,
//                 and no groups; the rest goes on, the wipe included
// A new digest is remembered before the installation, so a kit that failed counts as unchanged while an
// engine is loaded.  The scratch area is wiped by the next installation that comes to its end, and by a check
// that finds the kit unchanged.
#pragma once
#include <cstdint>

extern uint8_t CurMd5Sum[16];  // digest of the kit as last seen by the change check; zero at start

int dpiValidateKit();     // checked and staged
int amcCheckKit();        // whether the kit is to be installed
void amUpdateKit();       // installs the staged kit; reports through the log only
void amCleanUpdateKit();  // wipes the scratch areas

// Steps of the validation.
int amIsUpgradeKitPresent();
int amCheckFlashSpace(const char *path);         // whether the scratch area has room for as much as this file
uint64_t amGetFreeFlashSpace(const char *path);  // bytes; 0 when it cannot be told
int amCheckIfKitValid();                         // extracts the kit on flash into kKitTestDir
void amCleanUpKitTest();
int amCopyNewKit();

// Steps of the change check.  Digests are of 16 bytes; results are 0, or -1 without a digest.
int amcGetKitMd5sum();  // of the kit on flash, into CurMd5Sum, which is zero when there is none
int amcCompareKit(uint8_t *digest);
int amcMd5SigKitDigest(const char *path, uint8_t *digest);
void dumpMd5String(const uint8_t *digest);

// Extracts the staged kit; from kKitFromFactory the factory's kit is staged first.
enum KitSource : int { kKitFromFactory = 1, kKitStaged = 2 };
int amUnzipKit(int source);
