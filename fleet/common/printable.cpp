#include "common/printable.h"

#include <algorithm>

namespace fleet {
namespace {

bool isPlain(char character) {
    const auto byte = static_cast<unsigned char>(character);
    return byte >= 0x20 && byte < 0x7f && byte != '\\';
}

// Length of the UTF-8 sequence of two to four bytes that the text begins with (RFC 3629); 0: none.
size_t sequenceLength(std::string_view text) {
    const auto at = [text](size_t place) { return static_cast<unsigned char>(text[place]); };
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

}  // namespace

void appendPrintable(std::string &out, std::string_view text) {
    while (!text.empty()) {
        const auto plain =
            static_cast<size_t>(std::find_if_not(text.begin(), text.end(), isPlain) - text.begin());
        out.append(text.substr(0, plain));
        text.remove_prefix(plain);
        if (text.empty()) return;
        const size_t length = sequenceLength(text);
        if (length != 0) {
            out.append(text.substr(0, length));
        } else {
            const auto byte = static_cast<unsigned char>(text[0]);
            out.append("\\x")
                .append(1, "0123456789abcdef"[byte >> 4])
                .append(1, "0123456789abcdef"[byte & 15]);
        }
        text.remove_prefix(length != 0 ? length : 1);
    }
}

std::string printable(std::string_view text) {
    std::string out;
    appendPrintable(out, text);
    return out;
}

}  // namespace fleet
