// Values on command lines, the server's among them.  Pure functions but for what they read from files.
#pragma once
#include <cstdint>
#include <cstdio>
#include <string>

#include "common/clickhouse.h"

namespace fleet {

// A decimal number of a range; false: none.
template <class Number>
[[nodiscard]] bool readWithin(const char *text, int64_t least, int64_t most, Number &out) {
    char *end = nullptr;
    const long long number = strtoll(text, &end, 10);
    if (end == text || *end != '\0' || number < least || number > most) return false;
    out = static_cast<Number>(number);
    return true;
}

// The first line of a file.  False: it cannot be read.
[[nodiscard]] inline bool readFirstLine(const char *path, std::string &out) {
    FILE *const file = fopen(path, "re");
    if (!file) return false;
    char line[512] = {};
    const bool good = fgets(line, sizeof line, file) != nullptr;
    (void)fclose(file);
    out = line;
    out.erase(out.find_last_not_of("\r\n") + 1);
    return good;
}

}  // namespace fleet
