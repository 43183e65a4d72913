// Reads the lines of the record files, which their writers append column by column.  Lines come from file
// servers: they may be cut, damaged or made up.
//
// Columns are not quoted, so a comma in a name looks like another column.  Application names have none (the
// kit's index is split at commas); group and profile names may, and are told apart by the columns of fixed
// text between them where that can be done in one way only.
//
// Pure functions, any thread.  Not in the daemon: a library of its own for programs that collect records.
#pragma once
#include <cstdint>
#include <string_view>

#include "records/record_format.h"

namespace am {

enum class RecordKind : uint8_t { Enforcement, Monitoring, Application };
inline constexpr size_t kRecordKinds = 3;

struct RecordAddress {
    uint8_t bytes[16];  // network order; IPv4 as ::ffff:a.b.c.d

    bool operator==(const RecordAddress &) const = default;
};

// What a line says.  Columns that its kind does not have are zero or empty.
struct RecordLine {
    RecordAddress ipA, ipB;
    uint16_t portA, portB;
    uint8_t proto;                                 // 6, 17, or 0 for any other
    bool ended;                                    // the flow has an End, which is the time of the line
    std::string_view application, group, profile;  // "-": none.  Within the line that was read
    uint64_t packets, bytes;                       // of the flow since its start
    uint32_t flows;                                // of an application in an hour
    int64_t start, intStart;                       // seconds since the epoch
    int64_t time;                                  // IntEnd, Time or Utcinterval
};

// Null: `out` holds the line (without its newline).  Else the reason why it is none, a static text.
[[nodiscard]] const char *readRecordLine(RecordKind kind, std::string_view line, RecordLine &out);

// The header line of a kind, and the file's name without ".csv".
[[nodiscard]] std::string_view recordHeader(RecordKind kind);
[[nodiscard]] std::string_view recordName(RecordKind kind);

}  // namespace am
