// Replies as JSON on standard output, for programs.
#pragma once
#include "ctl/client.h"

namespace ctl {

void printJson(const Reply &reply);

// A list whose entries come one by one: {"name": [entry, ...]}.
class JsonList {
  public:
    explicit JsonList(const char *name);
    ~JsonList();
    JsonList(const JsonList &) = delete;
    JsonList &operator=(const JsonList &) = delete;
    void add(const am::Member &entry);

  private:
    bool first_ = true;
};

}  // namespace ctl
