// The members of an unpacked kit, in whatever folder it lies: read alike by the daemon and by who checks kits
// without one. Pure functions of files that are untrusted; a member that is no regular file is not read,
// whatever it would do to its reader.
#pragma once
#include <cstdint>
#include <cstdio>

#include "appmodel/app_pool.h"
#include "core/handle.h"

extern int32_t qel_kit_compatability_version;  // the compatibility level that this daemon accepts

namespace am {

using MemberPath = char[256];
void memberPath(MemberPath &out, const char *directory, const char *member);

// Null unless it is a regular file: opening a pipe would hold the reader until somebody writes to it.
File openMember(const char *path);

// As atoi, but defined for every text: 0 when not numeric, the nearest number when there is no such int.
int32_t decimal(const char *text);

// The first line of the version file; empty without one.
struct KitVersion {
    char text[50];
};
KitVersion readKitVersion(const char *directory);

// The compatibility level, 0 where a line names none.
int32_t readLevel(FILE *file);
// False without the member.
[[nodiscard]] bool readKitLevel(const char *directory, int32_t &level);

// What a line of the index (kit/kit_contents.h) says; the line is modified.  The name as the line has it: in
// `app` it is cut at 32 characters.
const char *parseIndexLine(char *line, AmAppNode &app);

}  // namespace am
