// Reads the members of an extracted kit.  All of them are untrusted: a member that is no regular file is not
// read, whatever it would do to its reader.  Event-loop thread.
#pragma once
#include <cstdint>

#include "kit/kit_members.h"

extern char amKitVersion[50];  // first line of the version file, without its line end
extern int amKitUpgradeType;   // 1 when the last version read kept the major number

int amParseKitCompatibality();  // 1 when the test extraction is of a compatible kit
int amParseKitVersion();        // 1 when the version file was read

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
