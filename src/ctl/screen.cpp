#include "ctl/screen.h"

#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "core/character.h"

namespace ctl {

namespace {
bool coloured = false;
}

void chooseColour(int choice) {
    const char *const no = getenv("NO_COLOR");
    coloured = choice == 1 || (choice == -1 && isatty(STDOUT_FILENO) == 1 && !(no && *no));
}

const char *begin(Colour colour) {
    if (!coloured) return "";
    switch (colour) {
        case Colour::none:
            return "";
        case Colour::good:
            return "\033[32m";
        case Colour::bad:
            return "\033[31m";
        case Colour::dim:
            return "\033[2m";
        case Colour::strong:
            return "\033[1m";
    }
    return "";
}

const char *end(Colour colour) {
    return coloured && colour != Colour::none ? "\033[0m" : "";
}

void copyShown(char *to, size_t size, const char *text) {
    for (std::string_view rest = text; !rest.empty();) {
        const size_t length = am::characterLength(rest), taken = length ? length : 1;
        if (taken >= size) break;
        if (length)
            memcpy(to, rest.data(), length);
        else
            *to = '?';
        to += taken;
        size -= taken;
        rest.remove_prefix(taken);
    }
    *to = '\0';
}

ShownText shown(const char *text) {
    ShownText out;
    copyShown(out.text, sizeof out.text, text);
    return out;
}

ShortText timeText(uint64_t at) {
    ShortText out{};
    const auto when = static_cast<time_t>(at);
    tm parts{};
    if (at == 0 || !localtime_r(&when, &parts))
        snprintf(out.text, sizeof out.text, "never");
    else
        (void)strftime(out.text, sizeof out.text, "%F %T", &parts);
    return out;
}

ShortText agoText(uint64_t at) {
    ShortText out{};
    const auto now = static_cast<uint64_t>(time(nullptr));
    if (at == 0)
        snprintf(out.text, sizeof out.text, "-");
    else
        snprintf(out.text, sizeof out.text, "%.40s ago", spanText(now > at ? now - at : 0).text);
    return out;
}

ShortText spanText(uint64_t seconds) {
    ShortText out{};
    const uint64_t minutes = seconds / 60, hours = minutes / 60, days = hours / 24;
    if (minutes == 0)
        snprintf(out.text, sizeof out.text, "%" PRIu64 " s", seconds);
    else if (hours == 0)
        snprintf(out.text, sizeof out.text, "%" PRIu64 " min", minutes);
    else if (days == 0)
        snprintf(out.text, sizeof out.text, "%" PRIu64 " h %" PRIu64 " min", hours, minutes % 60);
    else
        snprintf(out.text, sizeof out.text, "%" PRIu64 " d %" PRIu64 " h", days, hours % 24);
    return out;
}

ShortText amountText(uint64_t amount) {
    static constexpr char kUnits[] = " kMGTPE";
    ShortText out{};
    if (amount < 100'000) return numberText(amount);
    double scaled = static_cast<double>(amount);
    size_t unit = 0;
    for (; scaled >= 1000 && kUnits[unit + 1]; unit++) scaled /= 1000;
    snprintf(out.text, sizeof out.text, "%.1f %c", scaled, kUnits[unit]);
    return out;
}

ShortText numberText(uint64_t number) {
    ShortText out{};
    snprintf(out.text, sizeof out.text, "%" PRIu64, number);
    return out;
}

}  // namespace ctl
