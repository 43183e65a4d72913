#include "common/printable.h"

#include <algorithm>

#include "core/character.h"

namespace fleet {
namespace {

bool isPlain(char character) {
    const auto byte = static_cast<unsigned char>(character);
    return byte >= 0x20 && byte < 0x7f && byte != '\\';
}

}  // namespace

void appendPrintable(std::string &out, std::string_view text) {
    while (!text.empty()) {
        const auto plain =
            static_cast<size_t>(std::find_if_not(text.begin(), text.end(), isPlain) - text.begin());
        out.append(text.substr(0, plain));
        text.remove_prefix(plain);
        if (text.empty()) return;
        const size_t length = text[0] == '\\' ? 0 : am::characterLength(text);
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
