// Reads the members of an extracted kit.  All of them are untrusted.  Event-loop thread.
#pragma once
#include <cstdint>

extern int32_t qel_kit_compatability_version;  // the compatibility level that this daemon accepts
extern char amKitVersion[50];                  // first line of the version file, without its line end
extern int amKitUpgradeType;                   // 1 when the last version read kept the major number

int amParseKitCompatibality();           // 1 when the test extraction is of a compatible kit
int amParseAppPoolCsv();                 // 1 when the installation extraction's index was read into the pool
void amParseAppPoolCsvLine(char *line);  // one index line, which is modified
int amParseKitVersion();                 // 1 when the version file was read
