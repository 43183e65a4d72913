// What was typed: options anywhere, then the words of the command.
#pragma once
#include <cstddef>
#include <cstdint>

namespace ctl {

// What the program ends with.
enum Exit : int { kDone = 0, kFailed = 1, kUsage = 2, kNoDaemon = 3 };

inline constexpr size_t kMostWords = 4096;

struct CommandLine {
    const char *socket = nullptr;  // of the bus; null: the library's default
    bool json = false, save = false, once = false, all = false;
    int colour = -1;      // 1, 0, or -1 for what the terminal tells
    uint32_t limit = 50;  // entries of a list
    uint32_t delay = 2;   // seconds between two pictures of top
    const char *list = nullptr, *sort = nullptr, *name = nullptr, *application = nullptr, *address = nullptr;
    const char *url = nullptr, *user = nullptr, *passwordFile = nullptr, *key = nullptr, *kit = nullptr;
    const char *groups[kMostWords];  // of --group
    size_t groupCount = 0;
    const char *words[kMostWords];
    size_t wordCount = 0;

    const char *word(size_t index) const { return index < wordCount ? words[index] : ""; }
};

// False, and complained about on standard error: no such option, or a value that it does not take.
[[nodiscard]] bool readCommandLine(int argc, char **argv, CommandLine &line);

}  // namespace ctl
