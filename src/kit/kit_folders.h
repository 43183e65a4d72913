// Where a kit lies while it is checked and installed, and what the steps of both do with these folders.
// Event-loop thread.
#pragma once

inline constexpr char kKitScratch[] = "/var/flash";
inline constexpr char kKitTestDir[] = "/var/flash/.tmp_";
inline constexpr char kKitWorkDir[] = "/var/flash/switch/zor/app_mon";
inline constexpr char kKitInstallDir[] = "/var/flash/switch/zor/app_mon/.tmp_";

int fileExists(const char *path);  // 1 or 0

namespace am {

// `op` and `line` head the log line of a failure: those of the step that needs it.
[[nodiscard]] bool makeDirectory(const char *directory, const char *op, int line);
void wipe(const char *directory, const char *op, int line);  // with all that it holds

// Links that a refused kit left behind are all that could lead the next one's members out of the directory:
// tar itself follows none that it makes, but every one that it finds.
void dropLinks(const char *directory);

}  // namespace am
