#include "collect/rows.h"

#include <bit>

#include "common/printable.h"
#include "common/record_scan.h"

namespace fleet {
namespace {

static_assert(std::endian::native == std::endian::little);  // as RowBinary's numbers

template <class Number>
void put(std::string &out, Number number) {
    out.append(reinterpret_cast<const char *>(&number), sizeof number);
}

// A length in groups of seven bits, then the bytes.
void put(std::string &out, std::string_view text) {
    size_t length = text.size();
    for (; length >= 0x80; length >>= 7) out += static_cast<char>(length | 0x80);
    out += static_cast<char>(length);
    out += text;
}

void putName(std::string &out, std::string_view name) {
    const size_t place = out.size();
    // Names are short: their length, whatever escapes add, is one byte or two.
    out += '\0';
    appendPrintable(out, name);
    const size_t length = out.size() - place - 1;
    if (length < 0x80) {
        out[place] = static_cast<char>(length);
        return;
    }
    const std::string escaped = out.substr(place + 1);
    out.resize(place);
    put(out, escaped);
}

void putTime(std::string &out, int64_t seconds) {
    put(out, static_cast<uint32_t>(seconds));
}

void putTuple(std::string &out, const am::RecordLine &line) {
    out.append(reinterpret_cast<const char *>(line.ipA.bytes), sizeof line.ipA);
    out.append(reinterpret_cast<const char *>(line.ipB.bytes), sizeof line.ipB);
    put(out, line.portA);
    put(out, line.portB);
    put(out, line.proto);
}

}  // namespace

const char *insertStatement(am::RecordKind kind) {
    switch (kind) {
        case am::RecordKind::Enforcement:
            return "INSERT INTO enforcement (Box, IntEnd, Flow, Start, IntStart, Ended, IpA, IpB, PortA, "
                   "PortB, Proto, "
                   "Application, AppGroup, Profile, Packets, Bytes, Nth) FORMAT RowBinary";
        case am::RecordKind::Monitoring:
            return "INSERT INTO monitoring (Box, Time, IpA, IpB, PortA, PortB, Proto, Application, AppGroup, "
                   "Nth) "
                   "FORMAT RowBinary";
        case am::RecordKind::Application:
            return "INSERT INTO applications (Box, Hour, Application, AppGroup, Flows, Nth) FORMAT RowBinary";
    }
    return "";
}

void appendRow(std::string &rows, am::RecordKind kind, std::string_view box, const am::RecordLine &line,
               uint32_t nth) {
    put(rows, box);
    putTime(rows, line.time);
    if (kind == am::RecordKind::Enforcement) {
        put(rows, flowOf(line));
        putTime(rows, line.start);
        putTime(rows, line.intStart);
        put(rows, static_cast<uint8_t>(line.ended));
    }
    if (kind != am::RecordKind::Application) putTuple(rows, line);
    putName(rows, line.application);
    putName(rows, line.group);
    if (kind == am::RecordKind::Enforcement) {
        putName(rows, line.profile);
        put(rows, line.packets);
        put(rows, line.bytes);
    }
    if (kind == am::RecordKind::Application) put(rows, line.flows);
    put(rows, nth);
}

}  // namespace fleet
