// The daemon's log, caught in a file of the test's own while the object lives.
#pragma once
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "core/log.h"

class LogCapture {
  public:
    explicit LogCapture(int level = AM_LOG_STATS) {
        const int fd = mkstemp(path_);
        if (fd >= 0) close(fd);
        amLogOpen(path_, level);
    }
    ~LogCapture() {
        amLogClose();
        logLevel = AM_LOG_ERROR;
        unlink(path_);
    }
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    std::string text() const {
        std::ostringstream text;
        text << std::ifstream(path_).rdbuf();
        return text.str();
    }
    bool has(const std::string &part) const { return text().find(part) != std::string::npos; }
    void forget() {
        if (truncate(path_, 0) != 0) perror("truncate");
    }

  private:
    char path_[32] = "/tmp/korvid_log_XXXXXX";
};
