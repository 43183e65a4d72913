// Record files as a file server has them: cut, damaged or made up.
#include <algorithm>
#include <string>

#include "collect/rows.h"
#include "common/printable.h"
#include "common/record_scan.h"
#include "fuzz.h"

namespace {

bool isWithin(std::string_view part, std::string_view whole) {
    return part.empty() ||
           (part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size());
}

void scan(am::RecordKind kind, std::string_view file) {
    static fleet::RecordScan scanner;
    std::string rows;
    size_t place = 0;
    scanner.scan(
        kind, file,
        [&](const am::RecordLine &line, uint32_t nth, std::string_view text) {
            FUZZ_CHECK(isWithin(text, file));
            for (const std::string_view name : {line.application, line.group, line.profile})
                FUZZ_CHECK(isWithin(name, text));
            fleet::appendRow(rows, kind, "box", line, nth);
        },
        [&](const fleet::BadLine &line) {
            // In their order, and nothing of it looks like another line or column of the quarantine.
            FUZZ_CHECK(isWithin(line.text, file) && line.offset >= place);
            place = line.offset;
            const std::string shown = fleet::printable(line.text);
            FUZZ_CHECK(std::none_of(shown.begin(), shown.end(), [](char c) { return c >= 0 && c < 0x20; }));
        },
        [](const am::RecordLine &) { return nullptr; });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string_view file{reinterpret_cast<const char *>(data), size};
    for (size_t kind = 0; kind < am::kRecordKinds; kind++) scan(static_cast<am::RecordKind>(kind), file);
    return 0;
}
