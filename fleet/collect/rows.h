// Lines as rows of the tables in fleet/schema, in ClickHouse's RowBinary format.  Pure functions.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>

#include "records/record_line.h"

namespace fleet {

// "INSERT INTO table (columns) FORMAT RowBinary" for the lines of a kind.
[[nodiscard]] const char *insertStatement(am::RecordKind kind);

// Appends a line of a box: `nth` of equal ones in its file.
void appendRow(std::string &rows, am::RecordKind kind, std::string_view box, const am::RecordLine &line,
               uint32_t nth);

}  // namespace fleet
