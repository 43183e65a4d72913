// Reads the members of an extracted kit.  All of them are untrusted: a member that is no regular file is not
// read, whatever it would do to its reader.  Event-loop thread.
#pragma once
#include <cstdint>

#include "appmodel/app_pool.h"

extern int32_t qel_kit_compatability_version;  // the compatibility level that this daemon accepts
extern char amKitVersion[50];                  // first line of the version file, without its line end
extern int amKitUpgradeType;                   // 1 when the last version read kept the major number

int amParseKitCompatibality();  // 1 when the test extraction is of a compatible kit
int amParseKitVersion();        // 1 when the version file was read

namespace am {

// The first line of an extracted kit's version file; empty without one.
struct KitVersion {
    char text[50];
};
KitVersion readKitVersion(const char *directory);

// The compatibility level of an extracted kit, 0 where it names none.  False without the member.
[[nodiscard]] bool readKitLevel(const char *directory, int32_t &level);

// What a line of the index says; the line is modified.  The name as the line has it, cut at 32 characters in
// `app`.
const char *parseIndexLine(char *line, AmAppNode &app);

}  // namespace am

// The application index: text lines of fields separated by runs of ","; the first line is a header.
//
//   field 1   application id: decimal, 0 when not numeric, its low 16 bits count
//   field 2   application name, of which 32 characters are kept
//   fields 3 to 7 and all that follows are not looked at
//
// The line end stays with the last field.  A line is read in pieces of 511 characters, each a line of its
// own.
int amParseAppPoolCsv();                 // 1 when the installation extraction's index was read into the pool
void amParseAppPoolCsvLine(char *line);  // one index line, which is modified
