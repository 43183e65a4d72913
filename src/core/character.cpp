#include "core/character.h"

size_t am::characterLength(std::string_view text) {
    if (text.empty()) return 0;
    const auto at = [text](size_t place) { return static_cast<unsigned char>(text[place]); };
    if (at(0) < 0x80) return at(0) >= 0x20 && at(0) != 0x7f ? 1 : 0;
    const size_t length = at(0) >= 0xf0 ? 4 : at(0) >= 0xe0 ? 3 : 2;
    if (at(0) < 0xc2 || at(0) > 0xf4 || text.size() < length) return 0;
    for (size_t i = 1; i < length; i++)
        if ((at(i) & 0xc0) != 0x80) return 0;
    // Forms longer than need be, surrogates, and what lies beyond the last character.
    if ((at(0) == 0xe0 && at(1) < 0xa0) || (at(0) == 0xed && at(1) > 0x9f) ||
        (at(0) == 0xf0 && at(1) < 0x90) || (at(0) == 0xf4 && at(1) > 0x8f))
        return 0;
    // C1 control characters.
    return at(0) == 0xc2 && at(1) < 0xa0 ? 0 : length;
}
