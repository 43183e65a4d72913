#include "json.h"

#include <array>
#include <cstdio>

namespace dpimod {

std::string jsonText(std::string_view text) {
    std::string out = "\"";
    for (char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte < 0x20 || byte >= 0x7f) {
            std::array<char, 8> escape{};
            std::snprintf(escape.data(), escape.size(), "\\u%04x", byte);
            out += escape.data();
        } else {
            out += c;
        }
    }
    return out + '"';
}

Json &Json::texts(std::string_view name, std::span<const std::string> values) {
    std::string list = "[";
    for (const std::string &value : values) list += (list.size() > 1 ? "," : "") + jsonText(value);
    return raw(name, list + "]");
}

Json &Json::raw(std::string_view name, std::string_view json) {
    if (text_.size() > 1) text_ += ',';
    text_ += jsonText(name);
    text_ += ':';
    text_ += json;
    return *this;
}

}  // namespace dpimod
