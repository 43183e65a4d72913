// How things look to people: colour, times, amounts.
#pragma once
#include <cstddef>
#include <cstdint>

namespace ctl {

enum class Colour { none, good, bad, dim, strong };

// 1: colour, 0: none, -1: if standard output is a terminal and the environment does not say NO_COLOR.
void chooseColour(int choice);
const char *begin(Colour colour);  // the escape sequence, or nothing
const char *end(Colour colour);

// Text from elsewhere (kits, files, the bus) as a terminal may have it: of a character that is none, or that
// it would take for a command, a question mark; cut between characters.
void copyShown(char *to, size_t size, const char *text);
struct ShownText {
    char text[640];
};
ShownText shown(const char *text);

struct ShortText {
    char text[48];
};
ShortText timeText(uint64_t secondsSinceEpoch);  // local time; "never" for 0
ShortText agoText(uint64_t secondsSinceEpoch);   // "12 s ago"; "-" for 0
ShortText spanText(uint64_t seconds);            // "3 h 12 min"
ShortText amountText(uint64_t amount);           // "12.3 k" above 99,999
ShortText numberText(uint64_t number);

}  // namespace ctl
