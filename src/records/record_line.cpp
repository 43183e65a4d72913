#include "records/record_line.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>

namespace am {
namespace {

struct Kind {
    std::string_view name, header;
};
constexpr std::array<Kind, kRecordKinds> kKinds = {{{kEnfRecordsName, kEnfRecordsHeader},
                                                    {kMonRecordsName, kMonRecordsHeader},
                                                    {kAppRecordsName, kAppRecordsHeader}}};

constexpr char kFewColumns[] = "too few columns";
constexpr char kUnclearNames[] = "commas in names cannot be told from columns";
constexpr char kBadNumber[] = "not a number, or out of range";
constexpr char kBadTime[] = "not a time";

// Takes the columns of a line from both of its ends; what is left between are the names.
class Columns {
  public:
    explicit Columns(std::string_view line) : rest_(line) {}

    std::string_view front() {
        const size_t comma = rest_.find(',');
        const std::string_view column = rest_.substr(0, comma);
        if (comma == std::string_view::npos)
            short_ = true;
        else
            rest_.remove_prefix(comma + 1);
        return column;
    }
    std::string_view back() {
        const size_t comma = rest_.rfind(',');
        if (comma == std::string_view::npos) {
            short_ = true;
            return rest_;
        }
        const std::string_view column = rest_.substr(comma + 1);
        rest_.remove_suffix(column.size() + 1);
        return column;
    }
    [[nodiscard]] std::string_view rest() const { return rest_; }
    [[nodiscard]] bool tooFew() const { return short_; }

  private:
    std::string_view rest_;
    bool short_ = false;
};

// As the writer has it: decimal digits, no sign, no zeros in front.
template <class Number>
bool readNumber(std::string_view text, Number &out) {
    if (text.empty() || (text[0] == '0' && text.size() > 1)) return false;
    const char *const end = text.data() + text.size();
    const auto [at, error] = std::from_chars(text.data(), end, out);
    return error == std::errc{} && at == end;
}

bool readDigits(std::string_view text, int64_t &out) {
    out = 0;
    for (const char digit : text) {
        if (digit < '0' || digit > '9') return false;
        out = out * 10 + (digit - '0');
    }
    return true;
}

// Days since the epoch of a date of the Gregorian calendar.
int64_t daysOf(int64_t year, int64_t month, int64_t day) {
    // Years from March on, so that the leap day is a year's last: each has 365 days and those of its leap
    // years, and 153 days are five months.
    const int64_t y = month > 2 ? year : year - 1;
    const int64_t m = month > 2 ? month - 3 : month + 9;
    return y * 365 + y / 4 - y / 100 + y / 400 + (m * 153 + 2) / 5 + day - 1 - 719468;
}

int64_t lengthOf(int64_t year, int64_t month) {
    constexpr int64_t kLengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
    return month == 2 && leap ? 29 : kLengths[month - 1];
}

// "2024-03-05 07:04:09", UTC.
bool readTime(std::string_view text, int64_t &out) {
    constexpr std::string_view kShape = "0000-00-00 00:00:00";
    if (text.size() != kShape.size()) return false;
    for (const size_t place : {4U, 7U, 10U, 13U, 16U})
        if (text[place] != kShape[place]) return false;
    int64_t year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    if (!readDigits(text.substr(0, 4), year) || !readDigits(text.substr(5, 2), month) ||
        !readDigits(text.substr(8, 2), day) || !readDigits(text.substr(11, 2), hour) ||
        !readDigits(text.substr(14, 2), minute) || !readDigits(text.substr(17, 2), second))
        return false;
    if (month < 1 || month > 12 || day < 1 || day > lengthOf(year, month)) return false;
    if (hour > 23 || minute > 59 || second > 59) return false;
    out = ((daysOf(year, month, day) * 24 + hour) * 60 + minute) * 60 + second;
    return true;
}

bool readAddress(std::string_view text, bool v6, RecordAddress &out) {
    char terminated[INET6_ADDRSTRLEN];
    if (text.size() >= sizeof terminated) return false;
    *std::copy(text.begin(), text.end(), terminated) = '\0';
    if (v6) return inet_pton(AF_INET6, terminated, out.bytes) == 1;
    out = {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff}};
    return inet_pton(AF_INET, terminated, out.bytes + 12) == 1;
}

bool readProto(std::string_view text, uint8_t &out) {
    out = text == "TCP" ? 6 : text == "UDP" ? 17 : 0;
    return out != 0 || text == " - ";
}

// The six columns that flows begin with.
const char *readFlow(Columns &columns, RecordLine &out) {
    const std::string_view type = columns.front(), ipA = columns.front(), ipB = columns.front(),
                           portA = columns.front(), portB = columns.front(), proto = columns.front();
    if (columns.tooFew()) return kFewColumns;
    if (type != "IPv4" && type != "IPv6") return "neither IPv4 nor IPv6";
    const bool v6 = type == "IPv6";
    if (!readAddress(ipA, v6, out.ipA) || !readAddress(ipB, v6, out.ipB)) return "not an address";
    if (!readNumber(portA, out.portA) || !readNumber(portB, out.portB)) return kBadNumber;
    return readProto(proto, out.proto) ? nullptr : "not a protocol";
}

// "group,-,profile": MacA, which is always "-", parts the two.
const char *splitNames(std::string_view names, RecordLine &out) {
    constexpr std::string_view kMac = ",-,";
    const size_t place = names.find(kMac);
    if (place == std::string_view::npos) return kFewColumns;
    if (names.find(kMac, place + 1) != std::string_view::npos) return kUnclearNames;
    out.group = names.substr(0, place);
    out.profile = names.substr(place + kMac.size());
    return nullptr;
}

const char *readEnforcement(Columns &columns, RecordLine &out) {
    if (const char *const reason = readFlow(columns, out)) return reason;
    out.application = columns.front();
    const std::string_view intEnd = columns.back(), intStart = columns.back(), end = columns.back(),
                           start = columns.back(), bytes = columns.back(), packets = columns.back(),
                           kolB = columns.back(), macB = columns.back();
    if (columns.tooFew()) return kFewColumns;
    if (!readTime(start, out.start) || !readTime(intStart, out.intStart) || !readTime(intEnd, out.time))
        return kBadTime;
    out.ended = end != "-";
    if (out.ended && end != intEnd) return "End is not the time of the line";
    if (!readNumber(packets, out.packets) || !readNumber(bytes, out.bytes)) return kBadNumber;
    if (macB != "-" || kolB != "-") return kUnclearNames;
    return splitNames(columns.rest(), out);
}

const char *readMonitoring(Columns &columns, RecordLine &out) {
    if (const char *const reason = readFlow(columns, out)) return reason;
    out.application = columns.front();
    const std::string_view time = columns.back();
    if (columns.tooFew()) return kFewColumns;
    out.group = columns.rest();
    return readTime(time, out.time) ? nullptr : kBadTime;
}

const char *readApplication(Columns &columns, RecordLine &out) {
    out.application = columns.front();
    const std::string_view total = columns.back(), average = columns.back(), most = columns.back(),
                           least = columns.back(), time = columns.back();
    if (columns.tooFew()) return kFewColumns;
    out.group = columns.rest();
    if (!readTime(time, out.time)) return kBadTime;
    if (least != "0" || most != "0" || average != "0" || !readNumber(total, out.flows)) return kBadNumber;
    return nullptr;
}

bool isControl(char character) {
    const auto byte = static_cast<unsigned char>(character);
    return byte < 0x20 || byte == 0x7f;
}

}  // namespace

const char *readRecordLine(RecordKind kind, std::string_view line, RecordLine &out) {
    out = {};
    if (line.size() >= kRecordLineSize) return "longer than any record";
    if (std::any_of(line.begin(), line.end(), isControl)) return "control characters";
    Columns columns(line);
    const char *reason = nullptr;
    switch (kind) {
        case RecordKind::Enforcement:
            reason = readEnforcement(columns, out);
            break;
        case RecordKind::Monitoring:
            reason = readMonitoring(columns, out);
            break;
        case RecordKind::Application:
            reason = readApplication(columns, out);
            break;
    }
    if (reason) return reason;
    if (out.application.empty() || out.group.empty()) return "a name is missing";
    const bool fits = out.application.size() <= kRecordAppSize && out.group.size() <= kRecordGroupSize &&
                      out.profile.size() <= kRecordProfileSize;
    return fits ? nullptr : "a name longer than names are";
}

std::string_view recordHeader(RecordKind kind) {
    return kKinds[static_cast<size_t>(kind)].header;
}

std::string_view recordName(RecordKind kind) {
    return kKinds[static_cast<size_t>(kind)].name;
}

}  // namespace am
