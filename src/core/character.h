// The characters of UTF-8 text (RFC 3629) of unknown origin, which may be cut, damaged or made up.
// Pure function, any thread.
#pragma once
#include <cstddef>
#include <string_view>

namespace am {

// Bytes of the character that a text begins with.  0: there is none, or a control character (C0, DEL, C1),
// which a terminal may take for a command.
size_t characterLength(std::string_view text);

}  // namespace am
