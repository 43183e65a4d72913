// What is on the network now: drawn again and again, or once.
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "core/handle.h"
#include "ctl/commands.h"
#include "ctl/pages.h"
#include "ctl/table.h"
#include "ctl/terminal.h"

namespace ctl {

namespace {

constexpr uint32_t kApplications = 65536;

struct Picture {
    unsigned columns = 0, rows = 24;  // of the terminal; no columns: lines are not cut
};

Picture terminal() {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return {};
    return {size.ws_col, size.ws_row};
}

// How many flows each application had when it was last looked at.
class LastSeen {
  public:
    LastSeen() : flows_(static_cast<uint32_t *>(calloc(kApplications, sizeof(uint32_t)))) {}
    // Flows that came since; none at the first look.
    uint64_t since(uint64_t id, uint64_t flows) {
        if (!flows_ || id >= kApplications) return 0;
        const uint64_t before = std::exchange(flows_[id], static_cast<uint32_t>(flows));
        return before != 0 && flows > before ? flows - before : 0;
    }

  private:
    std::unique_ptr<uint32_t[], am::Closer<free>> flows_;
};

void printHead(const Picture &picture, uint64_t packetsBefore, uint64_t &packets, uint32_t seconds) {
    Reply status, counters;
    ask("status", nullptr, status);
    ask("counters", nullptr, counters);
    const Fields all = status.fields(), count = counters.fields().table("counters");
    packets = count.number("packets.received");
    const bool healthy = strcmp(all.text("health"), "ok") == 0;
    const uint64_t held = count.number("flows.held_ipv4") + count.number("flows.held_ipv6");
    char line[200];
    snprintf(line, sizeof line, "korvid %s up %s  %s packets", all.text("version"),
             spanText(all.number("uptime")).text, amountText(packets).text);
    fputs(line, stdout);
    if (packetsBefore != 0)
        printf(" (%s/s)",
               amountText((packets - std::min(packets, packetsBefore)) / (seconds ? seconds : 1)).text);
    printf("  %s flows held  %s%s%s\n", amountText(held).text, begin(healthy ? Colour::good : Colour::bad),
           healthy ? "ok" : "problems", end(healthy ? Colour::good : Colour::bad));
    all.each("problems", [&](const am::Member &element) {
        printf("%s%.*s%s\n", begin(Colour::bad), static_cast<int>(picture.columns ? picture.columns : 200U),
               Fields(element).text("what"), end(Colour::bad));
    });
}

void draw(const Picture &picture, LastSeen &last, uint64_t &packets, uint32_t seconds) {
    static constexpr Column kColumns[] = {{"APPLICATION"},   {"GROUP"},      {"LISTS"},
                                          {"FLOWS", true},   {"NEW", true},  {"LAST SEEN", true},
                                          {"PACKETS", true}, {"BYTES", true}};
    printHead(picture, packets, packets, seconds);
    auto *const table = new (std::nothrow) Table(kColumns);
    if (!table) return;
    const uint32_t most = picture.columns && picture.rows > 5 ? picture.rows - 5 : 20;
    (void)forEachEntry(
        kApps, most, [](am::Answer &arguments) { arguments.text("list", "seen"); },
        [&](const am::Member &entry) {
            const Fields app(entry);
            const uint64_t flows = app.number("flows"), fresh = last.since(app.number("id"), flows);
            const bool enforced = app.flag("enforced");
            table->add(app.text("name"), fresh ? Colour::strong : Colour::none);
            table->add(*app.text("group") ? app.text("group") : "-");
            table->add(enforced                ? "enforced"
                       : app.flag("monitored") ? "monitored"
                                               : "-",
                       enforced ? Colour::bad : Colour::none);
            table->add(amountText(flows).text);
            table->add(fresh ? amountText(fresh).text : "-");
            table->add(agoText(app.number("last_seen")).text);
            table->add(amountText(app.number("packets")).text);
            table->add(amountText(app.number("bytes")).text);
        });
    table->print(picture.columns);
    delete table;
}

void follow(const CommandLine &line) {
    LastSeen last;
    uint64_t packets = 0;
    takeTerminal();
    do {
        fputs("\033[H\033[2J", stdout);
        draw(terminal(), last, packets, line.delay);
        (void)fflush(stdout);
    } while (waitForKey(line.delay));
    giveTerminalBack();
}

}  // namespace

int topCommand(const CommandLine &line) {
    if (!line.once && isatty(STDOUT_FILENO) == 1) {
        follow(line);
        return kDone;
    }
    LastSeen last;
    uint64_t packets = 0;
    draw(terminal(), last, packets, 0);
    return kDone;
}

}  // namespace ctl
