#include "show/nearest.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace am {

namespace {

constexpr size_t kLongest = 40;  // letters that are compared

int fold(char letter) {
    return tolower(static_cast<unsigned char>(letter));
}

}  // namespace

unsigned nameDistance(const char *given, const char *name, unsigned most) {
    const size_t length = strnlen(given, kLongest), other = strnlen(name, kLongest);
    if (length >= 2 && strncasecmp(given, name, length) == 0) return length == other ? 0 : 1;
    if (std::max(length, other) - std::min(length, other) > most) return most + 1;
    unsigned row[kLongest + 1];
    for (size_t j = 0; j <= other; j++) row[j] = static_cast<unsigned>(j);
    for (size_t i = 0; i < length; i++) {
        unsigned diagonal = row[0];
        unsigned least = row[0] = static_cast<unsigned>(i) + 1;
        for (size_t j = 0; j < other; j++) {
            const unsigned changed = diagonal + (fold(given[i]) != fold(name[j]));
            diagonal = row[j + 1];
            row[j + 1] = std::min({changed, row[j] + 1, diagonal + 1});
            least = std::min(least, row[j + 1]);
        }
        if (least > most) return most + 1;
    }
    return std::min(row[other], most + 1);
}

void NearestNames::offer(const char *name) {
    // Of a short name half the letters tell nothing any more.
    const auto enough = static_cast<unsigned>(std::min<size_t>(kNearEnough, strnlen(given_, kLongest) / 2));
    const unsigned worst = count_ < kMost ? enough + 1 : names_[kMost - 1].distance;
    if (worst == 0) return;
    const unsigned distance = nameDistance(given_, name, worst - 1);
    if (distance >= worst) return;
    if (count_ < kMost) count_++;
    size_t at = count_ - 1;
    for (; at > 0 && names_[at - 1].distance > distance; at--) names_[at] = names_[at - 1];
    names_[at] = {name, distance};
}

}  // namespace am
