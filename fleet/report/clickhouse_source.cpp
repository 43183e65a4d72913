#include <algorithm>
#include <charconv>
#include <ctime>

#include "report/sources.h"

namespace fleet {
namespace {

// The cells of a row of the answer, in ClickHouse's TabSeparated format.
class Row {
  public:
    explicit Row(std::string_view line) : rest_(line) {}

    std::string_view text() {
        const size_t tab = std::min(rest_.find('\t'), rest_.size());
        const std::string_view cell = rest_.substr(0, tab);
        rest_.remove_prefix(std::min(tab + 1, rest_.size()));
        // Names hold neither control characters nor quotes that would be escaped, but backslashes.
        if (cell.find('\\') == std::string_view::npos) return cell;
        plain_.clear();
        for (size_t i = 0; i < cell.size(); i++) {
            if (cell[i] == '\\' && i + 1 < cell.size()) i++;
            plain_ += cell[i];
        }
        return plain_;
    }
    template <class Number>
    Number number() {
        const std::string_view cell = text();
        Number out{};
        (void)std::from_chars(cell.data(), cell.data() + cell.size(), out);
        return out;
    }

  private:
    std::string_view rest_;
    std::string plain_;
};

class Questions {
  public:
    Questions(const Server &server, const Wanted &wanted, Facts &facts, std::string &error)
        : server_(server), facts_(facts), error_(error) {
        // A range, which the tables' order serves.  What follows "/" is "0".
        if (!wanted.site.empty())
            site_ = " AND Box >= " + quoted(wanted.site + '/') + " AND Box < " + quoted(wanted.site + '0');
    }

    [[nodiscard]] bool findPeriod(const Wanted &wanted);
    [[nodiscard]] bool countLines();
    [[nodiscard]] bool findBoxes();
    [[nodiscard]] bool readCells();
    [[nodiscard]] bool readTalkers();

  private:
    [[nodiscard]] bool findTimes(int64_t begin, int64_t end, int64_t &first, int64_t &last);
    template <class Take>
    [[nodiscard]] bool ask(const std::string &query, const Take &take);

    [[nodiscard]] std::string during(const char *column, int64_t begin) const;
    [[nodiscard]] std::string growing(const std::string &among) const;
    [[nodiscard]] std::string grown() const;
    [[nodiscard]] std::string bucketOf(const char *time) const;
    [[nodiscard]] bool rankTalkers(std::string &hosts);

    ClickHouse server_;
    Facts &facts_;
    std::string &error_;
    std::string site_;         // a condition that goes on with AND
    std::string box_ = "Box";  // what stands for a box's name
};

template <class Take>
bool Questions::ask(const std::string &query, const Take &take) {
    if (!server_.query(query)) {
        error_ = server_.error();
        return false;
    }
    const std::string &answer = server_.answer();
    for (size_t begin = 0, end = 0; (end = answer.find('\n', begin)) != std::string::npos; begin = end + 1) {
        Row row(std::string_view(answer).substr(begin, end - begin));
        take(row);
    }
    return true;
}

// Sums over more flows than memory holds go through files.  A box's lines are on one shard, so that each
// shard may finish its flows alone: what comes of them need not be merged.
constexpr char kByFlow[] =
    " SETTINGS max_bytes_before_external_group_by = 3000000000, distributed_group_by_no_merge = 1";

// growth() of facts.h, of two columns.
std::string growth(const std::string &now, const std::string &before) {
    const std::string turned = "(" + now + " + 4294967296)";
    return "if(" + now + " >= " + before + ", toUInt64(" + now + " - " + before + "), if(" + turned +
           " >= " + before + ", toUInt64(" + turned + " - " + before + "), toUInt64(0)))";
}

std::string timeText(int64_t time) {
    return "toDateTime(" + std::to_string(std::max<int64_t>(time, 0)) + ", 'UTC')";
}

std::string Questions::during(const char *column, int64_t begin) const {
    return std::string(column) + " >= " + timeText(begin) + " AND " + column + " < " +
           timeText(facts_.period.to) + site_;
}

std::string Questions::bucketOf(const char *time) const {
    const std::string from = std::to_string(facts_.period.from);
    const std::string seconds = std::string("toInt64(toUInt32(") + time + "))";
    return "if(" + seconds + " < " + from + ", -1, intDiv(" + seconds + " - " + from + ", " +
           std::to_string(facts_.period.bucket) + "))";
}

// What each line of each flow adds to the flow's line before it, with its time; `among` may choose lines by
// their hosts. Equal lines add nothing, so no FINAL is needed.
std::string Questions::growing(const std::string &among) const {
    const std::string flows =
        "SELECT Box, Flow, max(Application) AS App, max(AppGroup) AS Grp, any(IpA) AS A, any(IpB) AS B,"
        " any(Start) >= " +
        timeText(facts_.period.lookBack()) +
        " AS Begins,"
        " groupArray(IntEnd) AS T, groupArray(Bytes) AS Y, groupArray(Packets) AS P"
        " FROM enforcement WHERE " +
        during("IntEnd", facts_.period.lookBack()) + among + " GROUP BY Box, Flow";
    const std::string ordered =
        "SELECT *, arraySort(T) AS Ts, arraySort((y, t) -> (t, y), Y, T) AS Ys,"
        " arraySort((p, t) -> (t, p), P, T) AS Ps FROM (" +
        flows + ")";
    const auto steps = [](const std::string &counts) {
        return "arrayMap((now, before) -> " + growth("now", "before") + ", " + counts +
               ", arrayPushFront(arrayPopBack(" + counts + "), if(Begins, toUInt64(0), " + counts + "[1])))";
    };
    return "(SELECT Box, App AS Application, Grp AS AppGroup, A, B, Time, toUInt64(i = 1 AND Begins) AS "
           "Begun, Bytes,"
           " Packets FROM (" +
           ordered + ") ARRAY JOIN Ts AS Time, arrayEnumerate(Ts) AS i, " + steps("Ys") + " AS Bytes, " +
           steps("Ps") + " AS Packets WHERE Time >= " + timeText(facts_.period.before) + ")";
}

// What each flow adds in the period itself: less work, for the order of talkers.
std::string Questions::grown() const {
    const std::string from = timeText(facts_.period.from);
    return "SELECT any(IpA) AS A, any(IpB) AS B, any(Start) >= " + timeText(facts_.period.lookBack()) +
           " AS Begins, argMin(Bytes, IntEnd) AS First, argMaxIf(Bytes, IntEnd, IntEnd < " + from +
           ") AS Then, argMax(Bytes, IntEnd) AS Last, if(min(IntEnd) < " + from +
           ", Then, if(Begins, toUInt64(0), First)) AS Before, " + growth("Last", "Before") +
           " AS Grown, toUInt64(Begins AND min(IntEnd) >= " + from + ") AS Flows FROM enforcement WHERE " +
           during("IntEnd", facts_.period.lookBack()) + " GROUP BY Box, Flow HAVING max(IntEnd) >= " + from;
}

constexpr const char *kTables[][2] = {
    {"enforcement", "IntEnd"}, {"monitoring", "Time"}, {"applications", "Hour"}};

std::string timesQuery(const char *table, const std::string &time, int64_t begin, int64_t end) {
    return "SELECT count(), toInt64(toUInt32(min(" + time + "))), toInt64(toUInt32(max(" + time +
           "))) FROM " + table + " WHERE " + time + " >= " + timeText(begin) + " AND " + time +
           " <= " + timeText(end);
}

// The oldest and the newest time from `begin` to `end`; false without an error: there is none.
bool Questions::findTimes(int64_t begin, int64_t end, int64_t &first, int64_t &last) {
    bool any = false;
    for (const auto &[table, column] : kTables) {
        const bool asked = ask(timesQuery(table, column, begin, end) + site_, [&](Row &row) {
            if (row.number<uint64_t>() == 0) return;
            const auto oldest = row.number<int64_t>(), newest = row.number<int64_t>();
            first = any ? std::min(first, oldest) : oldest;
            last = any ? std::max(last, newest) : newest;
            any = true;
        });
        if (!asked) return false;
    }
    return any;
}

bool Questions::findPeriod(const Wanted &wanted) {
    constexpr int64_t kDay = 86400;
    int64_t first = 0, last = wanted.to - 1;
    if (wanted.to == 0) {
        // Mostly they are of today; a look at years of them takes long.
        const int64_t latest = time(nullptr) + kDay;
        bool found = false;
        for (const int64_t begin : {latest - 2 * kDay, latest - 35 * kDay, int64_t{0}}) {
            found = findTimes(begin, latest, first, last);
            if (found || !error_.empty()) break;
        }
        if (!found) {
            if (error_.empty()) error_ = "no records";
            return false;
        }
    }
    int64_t newest = 0;
    if (!findTimes(last - wanted.seconds + 1, last, first, newest)) {
        if (error_.empty()) error_ = "no records";
        return false;
    }
    facts_.period = periodOf(first, last, wanted.seconds);
    return true;
}

bool Questions::countLines() {
    for (size_t i = 0; i < std::size(kTables); i++)
        if (!ask(std::string("SELECT count() FROM ") + kTables[i][0] + " FINAL WHERE " +
                     during(kTables[i][1], facts_.period.before),
                 [&](Row &row) { facts_.lines[i] = row.number<uint64_t>(); }))
            return false;
    return true;
}

// With more boxes than a page names, those with most lines keep their names.
bool Questions::findBoxes() {
    std::vector<std::string> names;
    const std::string lines = "SELECT Box FROM enforcement WHERE " + during("IntEnd", facts_.period.before) +
                              " UNION ALL SELECT Box FROM monitoring WHERE " +
                              during("Time", facts_.period.before);
    if (!ask("SELECT Box, count() AS n FROM (" + lines + ") GROUP BY Box ORDER BY n DESC, Box LIMIT " +
                 std::to_string(kMostBoxes + 1),
             [&](Row &row) { names.emplace_back(row.text()); }))
        return false;
    widen(facts_.period, names.size());
    if (names.size() <= kMostBoxes) return true;
    names.pop_back();
    std::string list;
    for (const std::string &name : names) list += (list.empty() ? "" : ", ") + quoted(name);
    box_ = "if(Box IN (" + list + "), Box, " + quoted(kOtherBoxes) + ")";
    return true;
}

bool Questions::readCells() {
    const auto take = [&](Row &row) {
        CellKey key{};
        key.bucket = row.number<int32_t>();
        key.box = facts_.boxes.of(row.text());
        key.application = facts_.applications.of(row.text());
        key.group = facts_.groups.of(row.text());
        Sums sums;
        sums.packets = row.number<uint64_t>();
        sums.bytes = row.number<uint64_t>();
        sums.enforced = row.number<uint64_t>();
        sums.monitored = row.number<uint64_t>();
        sums.counted = row.number<uint64_t>();
        facts_.cells[key].add(sums);
    };
    const auto query = [&](const std::string &from, const char *time, const char *sums,
                           const char *settings) {
        return ask("SELECT " + bucketOf(time) + " AS Bucket, " + box_ + " AS Name, Application, AppGroup, " +
                       sums + " FROM " + from + " GROUP BY Bucket, Name, Application, AppGroup" + settings,
                   take);
    };
    const int64_t before = facts_.period.before;
    return query(growing(""), "Time", "sum(Packets), sum(Bytes), sum(Begun), 0, 0", kByFlow) &&
           query("monitoring FINAL WHERE " + during("Time", before), "Time", "0, 0, 0, count(), 0", "") &&
           query("applications FINAL WHERE " + during("Hour", before), "Hour", "0, 0, 0, 0, sum(Flows)", "");
}

// Both hosts of a flow, one if it talks to itself.
constexpr char kHosts[] = "arrayJoin(if(A = B, [A], [A, B])) AS Host";
// As text, IPv4 in its own form.
constexpr char kHostText[] =
    R"(replaceRegexpOne(IPv6NumToString(Host), '^::ffff:(\\d+\\.\\d+\\.\\d+\\.\\d+)$', '\\1'))";

bool Questions::rankTalkers(std::string &hosts) {
    const std::string monitored =
        "SELECT IpA AS A, IpB AS B, toUInt64(0) AS Bytes, toUInt64(1) AS Flows FROM monitoring FINAL WHERE " +
        during("Time", facts_.period.from);
    const std::string contacts =
        "SELECT A, B, Grown AS Bytes, Flows FROM (" + grown() + ") UNION ALL " + monitored;
    return ask(
        std::string("SELECT hex(Host), ") + kHostText +
            " AS Text, sum(Bytes) AS b, sum(Flows) AS n FROM (SELECT " + kHosts + ", Bytes, Flows FROM (" +
            contacts + ")) GROUP BY Host ORDER BY b DESC, n DESC, Text LIMIT " +
            std::to_string(kMostTalkers) + kByFlow,
        [&](Row &row) {
            hosts += (hosts.empty() ? "" : ", ") + ("toFixedString(unhex(" + quoted(row.text()) + "), 16)");
            (void)facts_.talkers.of(row.text());
        });
}

bool Questions::readTalkers() {
    std::string hosts;
    if (!rankTalkers(hosts)) return false;
    if (hosts.empty()) return true;
    const std::string among = " AND (IpA IN (" + hosts + ") OR IpB IN (" + hosts + "))";
    const std::string monitored =
        "(SELECT Box, Application, Time, IpA AS A, IpB AS B FROM monitoring FINAL WHERE " +
        during("Time", facts_.period.before) + among + ")";
    const auto query = [&](const std::string &from, const char *columns, const char *settings) {
        return ask(std::string("SELECT ") + kHostText + " AS Text, " + bucketOf("Time") + " AS Bucket, " +
                       box_ + " AS Name, Application, " + columns + " FROM (SELECT *, " + kHosts + " FROM " +
                       from + ") WHERE Host IN (" + hosts + ") GROUP BY Text, Bucket, Name, Application" +
                       settings,
                   [&](Row &row) {
                       TalkerKey key{};
                       key.talker = facts_.talkers.of(row.text());
                       key.bucket = row.number<int32_t>();
                       key.box = facts_.boxes.of(row.text());
                       key.application = facts_.applications.of(row.text());
                       Sums sums;
                       sums.packets = row.number<uint64_t>();
                       sums.bytes = row.number<uint64_t>();
                       sums.enforced = row.number<uint64_t>();
                       sums.monitored = row.number<uint64_t>();
                       facts_.talkerCells[key].add(sums);
                   });
    };
    return query(growing(among), "sum(Packets), sum(Bytes), sum(Begun), 0", kByFlow) &&
           query(monitored, "0, 0, 0, count()", "");
}

}  // namespace

bool factsFromClickHouse(const Server &server, const Wanted &wanted, Facts &facts, std::string &error) {
    facts.source = "ClickHouse";
    Questions questions(server, wanted, facts, error);
    return questions.findPeriod(wanted) && questions.countLines() && questions.findBoxes() &&
           questions.readCells() && questions.readTalkers();
}

}  // namespace fleet
