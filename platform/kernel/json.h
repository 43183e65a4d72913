// One JSON object as text, built in the order of the calls.
#pragma once
#include <concepts>
#include <span>
#include <string>
#include <string_view>

namespace dpimod {

// With quotes; bytes that are no UTF-8 come out as \u00XX of their value.
std::string jsonText(std::string_view text);

class Json {
  public:
    Json &text(std::string_view name, std::string_view value) { return raw(name, jsonText(value)); }
    Json &flag(std::string_view name, bool value) { return raw(name, value ? "true" : "false"); }
    template <std::integral T>
    Json &number(std::string_view name, T value) {
        return raw(name, std::to_string(value));
    }
    Json &texts(std::string_view name, std::span<const std::string> values);
    Json &raw(std::string_view name, std::string_view json);
    [[nodiscard]] std::string done() const { return text_ + "}"; }

  private:
    std::string text_ = "{";
};

}  // namespace dpimod
