// Folders with fixed names that tests fill and empty: those of tools/sandbox, never a machine's.
#pragma once
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>

// Ends the program unless it runs in the sandbox, which alone has this mark.
inline void requireSandbox() {
    if (access("/run/korvid-sandbox", F_OK) == 0) return;
    fputs("run this in tools/sandbox: it empties folders of the machine\n", stderr);
    exit(1);
}

// Removes what the folder holds, but for what it keeps.
inline void emptyFolder(const std::filesystem::path &folder,
                        const std::set<std::filesystem::path> &kept = {}) {
    requireSandbox();
    for (const auto &entry : std::filesystem::directory_iterator(folder))
        if (!kept.contains(entry.path())) std::filesystem::remove_all(entry.path());
}
