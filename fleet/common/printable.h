// Text of unknown origin as UTF-8 that can be shown and stored: names of folders, applications and groups.
// Pure functions, any thread.
#pragma once
#include <string>
#include <string_view>

namespace fleet {

// The text itself where that is UTF-8 without control characters and backslashes; every other byte as \xNN,
// so that different texts stay different.
std::string printable(std::string_view text);

// The same, appended.
void appendPrintable(std::string &out, std::string_view text);

}  // namespace fleet
