// The page: one HTML file with its script, style and numbers in it, which asks no network for anything.
#pragma once
#include <string>

namespace fleet {

[[nodiscard]] std::string pageOf(const std::string &json);

}  // namespace fleet
