// Record files of many boxes, the same for the same seed: a folder a box, as their uploads leave it on a file
// server.
//
// Each box has clients that talk to servers of everybody; applications are as unequal as they are in
// networks.  A flow of four is long: it has a line each quarter of an hour, with counts that grow.  Files
// have the length at which boxes rotate them, and one in `repeat` comes a second time, cut short as an export
// before the rotation would have been.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "records/record_format.h"

namespace {

constexpr const char *kApplications[] = {
    "TLS",        "DNS",      "QUIC",      "HTTP",     "YouTube", "Netflix", "WhatsApp",    "Microsoft",
    "Google",     "Facebook", "SSH",       "Zoom",     "Teams",   "Spotify", "AppleiTunes", "Steam",
    "BitTorrent", "SMTP",     "IMAPS",     "NTP",      "SIP",     "RTP",     "GitHub",      "Dropbox",
    "Wikipedia",  "TikTok",   "Instagram", "Telegram", "SMBv23",  "MQTT"};
constexpr size_t kApplicationCount = std::size(kApplications);
constexpr const char *kGroups[] = {"-", "web", "video", "-", "work"};
constexpr int kInterval = 900;  // seconds between the lines of a long flow
constexpr size_t kLinesOfFile = 1200;

struct Settings {
    uint64_t seed = 1;
    int boxes = 10, lines = 10'000, repeat = 5;  // lines of a box in all
    int64_t end = 0, seconds = 86400;
    std::string folder;
};

struct Line {
    int64_t time;
    std::string text;
};

class Box {
  public:
    Box(const Settings &settings, int number)
        : settings_(settings),
          number_(number),
          random_(settings.seed * 1'000'003 + static_cast<uint64_t>(number)) {}

    bool write();

  private:
    uint64_t below(uint64_t limit) { return random_() % limit; }
    size_t application() {
        const double chance = static_cast<double>(random_() >> 11) * 0x1p-53;
        return std::min(static_cast<size_t>(std::pow(chance, 3) * kApplicationCount), kApplicationCount - 1);
    }
    std::string addresses();
    void enforced(std::vector<Line> &lines);
    void monitored(std::vector<Line> &lines);
    bool writeFiles(const char *name, const char *header, std::vector<Line> &lines);
    bool writeFile(const std::string &path, const char *header, const Line *first, size_t count);

    const Settings &settings_;
    int number_;
    std::mt19937_64 random_;
};

std::string utc(int64_t time) {
    const time_t seconds = time;
    tm parts{};
    gmtime_r(&seconds, &parts);
    char text[32];
    (void)strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    return text;
}

std::string Box::addresses() {
    char text[200];
    const auto client = static_cast<unsigned>(below(below(4) == 0 ? 200 : 20));
    const auto server = static_cast<unsigned>(below(below(2) == 0 ? 5000 : 50));
    const unsigned network = static_cast<unsigned>(number_) & 0xffffU,
                   port = 1024 + static_cast<unsigned>(below(60000));
    if (below(5) == 0)
        (void)snprintf(text, sizeof text, "IPv6,2001:db8:%x::%x,2001:db8:ffff::%x,%u,443,TCP,", network + 1,
                       client + 1, server + 1, port);
    else
        (void)snprintf(text, sizeof text, "IPv4,10.%u.%u.%u,198.18.%u.%u,%u,%s,", network >> 8, network & 255,
                       client + 1, server >> 8, server & 255, port, below(3) == 0 ? "53,UDP" : "443,TCP");
    return text;
}

void Box::enforced(std::vector<Line> &lines) {
    const size_t number = application();
    const std::string flow =
        addresses() + kApplications[number] + ',' + kGroups[number % std::size(kGroups)] + ",-,staff,-,-,";
    const int64_t start = settings_.end - settings_.seconds +
                          static_cast<int64_t>(below(static_cast<uint64_t>(settings_.seconds)));
    const int more = below(4) == 0 ? static_cast<int>(below(8)) : 0;
    uint64_t packets = 0, bytes = 0;
    for (int i = 0; i <= more; i++) {
        const int64_t time = start + (i + 1) * kInterval - static_cast<int64_t>(below(kInterval));
        if (time >= settings_.end) return;
        packets += 1 + below(200);
        bytes += packets * (60 + below(1200));
        const std::string began = utc(start), now = utc(time);
        lines.push_back({time, flow + std::to_string(packets) + ',' + std::to_string(bytes) + ',' + began +
                                   ',' + (i == more ? now : "-") + ',' + began + ',' + now + '\n'});
    }
}

void Box::monitored(std::vector<Line> &lines) {
    const size_t number = application();
    const int64_t time =
        settings_.end - 1 - static_cast<int64_t>(below(static_cast<uint64_t>(settings_.seconds)));
    lines.push_back({time, addresses() + kApplications[number] + ',' + kGroups[number % std::size(kGroups)] +
                               ',' + utc(time) + '\n'});
}

bool Box::writeFile(const std::string &path, const char *header, const Line *first, size_t count) {
    FILE *const file = fopen(path.c_str(), "we");
    if (!file) return false;
    (void)fprintf(file, "%s\n", header);
    for (size_t i = 0; i < count; i++) (void)fputs(first[i].text.c_str(), file);
    return fclose(file) == 0;
}

bool Box::writeFiles(const char *name, const char *header, std::vector<Line> &lines) {
    std::stable_sort(lines.begin(), lines.end(),
                     [](const Line &one, const Line &other) { return one.time < other.time; });
    char folder[16];
    (void)snprintf(folder, sizeof folder, "box-%05d", number_);
    const std::string path = settings_.folder + '/' + folder;
    if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) return false;
    int files = 0;
    for (size_t at = 0; at < lines.size(); at += kLinesOfFile) {
        const size_t count = std::min(kLinesOfFile, lines.size() - at);
        const auto put = [&](size_t length) {
            char end[16];
            (void)snprintf(end, sizeof end, ".csv.%04d", files++);
            return writeFile(path + '/' + name + end, header, &lines[at], length);
        };
        if (settings_.repeat != 0 && below(static_cast<uint64_t>(settings_.repeat)) == 0 &&
            !put(below(count + 1)))
            return false;
        if (!put(count)) return false;
    }
    return true;
}

bool Box::write() {
    std::vector<Line> enforcement, monitoring;
    const auto wanted = static_cast<size_t>(settings_.lines);
    while (enforcement.size() < wanted * 7 / 10) enforced(enforcement);
    while (enforcement.size() + monitoring.size() < wanted) monitored(monitoring);
    return writeFiles(kEnfRecordsName, kEnfRecordsHeader, enforcement) &&
           writeFiles(kMonRecordsName, kMonRecordsHeader, monitoring);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 8) {
        (void)fputs("usage: generate FOLDER SEED BOXES LINES REPEAT END SECONDS\n", stderr);
        return 2;
    }
    Settings settings;
    settings.folder = argv[1];
    settings.seed = strtoull(argv[2], nullptr, 10);
    settings.boxes = atoi(argv[3]);
    settings.lines = atoi(argv[4]);
    settings.repeat = atoi(argv[5]);
    settings.end = strtoll(argv[6], nullptr, 10);
    settings.seconds = strtoll(argv[7], nullptr, 10);
    for (int number = 0; number < settings.boxes; number++) {
        if (Box(settings, number).write()) continue;
        perror("generate");
        return 1;
    }
    return 0;
}
