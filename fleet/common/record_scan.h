// The lines of one record file, one by one: what can be read, and what cannot with its place and reason.
//
// A file may come again and again, with more lines at its end each time.  So a line is told from others by
// what stands in it and by how many equal ones stand above it in its file: that number is the same whenever
// the file comes.
#pragma once
#include <cstdint>
#include <optional>
#include <string_view>
#include <unordered_map>

#include "records/record_line.h"

namespace fleet {

// By the name of a file; none: not a record file.  "_old" and whatever is added to the name make no
// difference.
std::optional<am::RecordKind> kindOfFile(std::string_view name);

struct BadLine {
    const char *reason;     // static text
    size_t number, offset;  // of the line from 1, of its first byte from 0
    std::string_view text;  // without its newline
};

// One at a time; its memory is used again for the next file.
class RecordScan {
  public:
    // Calls row(const am::RecordLine &, uint32_t nth, std::string_view text) and bad(const BadLine &) in the
    // order of the lines; problem(const am::RecordLine &) may find a reason against a line that can be read,
    // a static text, or null.  Header lines and empty ones are passed over, wherever they stand.  What
    // follows the last newline is a line cut off.
    template <class Row, class Bad, class Problem>
    void scan(am::RecordKind kind, std::string_view contents, const Row &row, const Bad &bad,
              const Problem &problem);

  private:
    uint32_t countOf(std::string_view line);

    std::unordered_map<uint64_t, uint32_t> seen_;  // equal lines so far, by hash
};

template <class Row, class Bad, class Problem>
void RecordScan::scan(am::RecordKind kind, std::string_view contents, const Row &row, const Bad &bad,
                      const Problem &problem) {
    seen_.clear();
    am::RecordLine record{};
    for (size_t number = 1, offset = 0; offset < contents.size(); number++) {
        const size_t end = contents.find('\n', offset);
        const bool cut = end == std::string_view::npos;
        std::string_view line = contents.substr(offset, cut ? end : end - offset);
        const size_t next = offset + line.size() + 1;
        if (line.ends_with('\r')) line.remove_suffix(1);  // a transfer in text mode
        if (line != am::recordHeader(kind) && !line.empty()) {
            const char *reason = cut ? "cut off" : am::readRecordLine(kind, line, record);
            if (!reason) reason = problem(record);
            if (reason)
                bad(BadLine{reason, number, offset, line});
            else
                row(record, countOf(line), line);
        }
        offset = next;
    }
}

// The flow of an enforcement line within its box, by addresses, ports, protocol and start.  The same on every
// machine and in every version: it is stored.
uint64_t flowOf(const am::RecordLine &line);

}  // namespace fleet
