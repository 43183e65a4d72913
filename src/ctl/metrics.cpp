// The numbers as text for a monitoring system, in the exposition format of Prometheus that OpenMetrics grew
// out of: a family's HELP and TYPE, then its samples.
#include <bitset>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "ctl/commands.h"
#include "ctl/pages.h"

namespace ctl {

namespace {

void family(const char *name, const char *type, const char *help) {
    printf("# HELP %s %s\n# TYPE %s %s\n", name, help, name, type);
}

void gauge(const char *name, const char *help, uint64_t value) {
    family(name, "gauge", help);
    printf("%s %" PRIu64 "\n", name, value);
}

// A label's value: a backslash, a quote and a line end are escaped; bytes that are no UTF-8 would end the
// scrape.
void label(const char *text) {
    for (; *text; text++) {
        const auto byte = static_cast<unsigned char>(*text);
        if (byte == '\\' || byte == '"')
            printf("\\%c", byte);
        else
            putchar(byte < ' ' || byte >= 0x7f ? '?' : byte);
    }
}

bool endsWith(const char *name, const char *end) {
    const size_t length = strlen(name), tail = strlen(end);
    return length >= tail && strcmp(name + length - tail, end) == 0;
}

// packets.received becomes korvid_packets_received_total.
void counterFamily(const char *name, uint64_t value, bool loss) {
    char text[128];
    const bool now = strstr(name, ".held_") || endsWith(name, ".waiting");
    snprintf(text, sizeof text, "korvid_%s%s", name, now ? "" : "_total");
    for (char *at = text; *at; at++)
        if (*at == '.') *at = '_';
    char help[160];
    snprintf(help, sizeof help, "%s %s, as counted by the daemon.", loss ? "Loss:" : "Counter", name);
    family(text, now ? "gauge" : "counter", help);
    printf("%s %" PRIu64 "\n", text, value);
}

void printStatus() {
    Reply reply;
    ask("status", nullptr, reply);
    const Fields status = reply.fields(), kit = status.table("kit"), kernel = status.table("kernel");
    family("korvid_info", "gauge", "What runs: always 1.");
    printf("korvid_info{version=\"");
    label(status.text("version"));
    printf("\",side=\"");
    label(kernel.text("side"));
    printf("\",kit=\"");
    label(kit.text("version"));
    printf("\",digest=\"");
    label(kit.text("digest"));
    printf("\"} 1\n");
    uint64_t problems = 0;
    status.each("problems", [&](const am::Member &) { problems++; });
    gauge("korvid_healthy", "1 without problems, else 0.", strcmp(status.text("health"), "ok") == 0);
    gauge("korvid_problems", "Problems that korvidctl status names.", problems);
    gauge("korvid_uptime_seconds", "Since the daemon's start.", status.number("uptime"));
    gauge("korvid_mirroring", "1 while packets are mirrored.", kernel.flag("mirroring"));
    gauge("korvid_engine", "1 while an engine takes packets.", kit.flag("engine"));
    gauge("korvid_kit_applications", "Applications that the kit knows.", kit.number("applications"));
    gauge("korvid_kit_loaded_timestamp_seconds", "When the kit was installed.", kit.number("loaded_at"));
    gauge("korvid_configuration_unsaved", "1 while changes are not saved.",
          status.table("configuration").flag("unsaved_changes"));
}

void printCounters() {
    Reply reply;
    ask("counters", nullptr, reply);
    const Fields fields = reply.fields();
    am::Member counter;
    for (am::Members all = am::Members::of(fields.member("counters")); all.next(counter);)
        counterFamily(counter.name, fields.table("counters").number(counter.name), false);
}

struct AppFamily {
    const char *name, *field, *type, *help;
};
constexpr AppFamily kAppFamilies[] = {
    {"korvid_application_flows_total", "flows", "counter", "Classified flows since the kit was installed."},
    {"korvid_application_packets_total", "packets", "counter", "Packets of enforced flows that have ended."},
    {"korvid_application_bytes_total", "bytes", "counter", "Bytes of enforced flows that have ended."},
};

// Of the applications with the most flows: a series for each of a kit's thousands would be the monitoring
// system's load.
void printApplications(const CommandLine &line) {
    constexpr size_t kNumbers = 65536;
    const uint32_t most = line.all ? UINT32_MAX : line.limit;
    for (const AppFamily &app : kAppFamilies) {
        bool first = true;
        // Flows that come between two pages move applications from one to the next; a scrape with two samples
        // of one series is refused as a whole.
        std::bitset<kNumbers> told;
        (void)forEachEntry(
            kApps, most, [](am::Answer &arguments) { arguments.text("list", "seen"); },
            [&](const am::Member &entry) {
                const Fields fields(entry);
                const uint64_t id = fields.number("id");
                if (id >= kNumbers || told[id]) return;
                told[id] = true;
                if (first) family(app.name, app.type, app.help);
                first = false;
                printf("%s{id=\"%" PRIu64 "\",application=\"", app.name, id);
                label(fields.text("name"));
                printf("\"} %" PRIu64 "\n", fields.number(app.field));
            });
    }
}

}  // namespace

int metricsCommand(const CommandLine &line) {
    printStatus();
    printCounters();
    printApplications(line);
    return fflush(stdout) == 0 ? kDone : kFailed;
}

}  // namespace ctl
