// What dpimod tells people and programs: JSON lines while it runs, tables at the end.
#pragma once
#include <cstdio>
#include <string>
#include <vector>

#include "flow_table.h"
#include "json.h"
#include "wire.h"

namespace dpimod {

class Output {
  public:
    ~Output();
    Output() = default;
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;
    // "-" is standard output, "" is none.  False after a message.
    bool open(const std::string &path);
    [[nodiscard]] bool wantsLines() const { return file_ != nullptr; }
    // Lines reach the file at once: programs follow it.
    void line(const Json &json);
    [[nodiscard]] bool onStdout() const { return file_ == stdout; }

  private:
    FILE *file_ = nullptr;
};

Json resultJson(const Result &result, ByteView raw);
Json configJson(const Config &config, uint32_t from, ByteView raw);
Json reportJson(const FlowReport &report);
Json flowJson(const Flow &flow);

// A row for every classified flow, aligned.
void printVerdicts(FILE *out, const std::vector<Flow> &flows);

}  // namespace dpimod
