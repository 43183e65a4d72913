// Status, counters, and why something is as it is.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ctl/commands.h"
#include "ctl/json.h"
#include "ctl/table.h"
#include "show/answer.h"

namespace ctl {

namespace {

void row(const char *name, const char *text, Colour colour = Colour::none) {
    printf("%s%-14s%s%s%s%s\n", begin(Colour::dim), name, end(Colour::dim), begin(colour), shown(text).text,
           end(colour));
}

void printKit(const Fields &kit) {
    char text[300];
    if (kit.number("loaded_at") == 0)
        snprintf(text, sizeof text, "none");
    else
        snprintf(text, sizeof text, "%s, level %s, %s applications, engine %s, loaded %s",
                 *kit.text("version") ? kit.text("version") : "without a version",
                 numberText(kit.number("level")).text, numberText(kit.number("applications")).text,
                 kit.flag("engine") ? "running" : "not running", timeText(kit.number("loaded_at")).text);
    row("kit", text, kit.flag("engine") ? Colour::none : Colour::bad);
    if (*kit.text("digest")) row("", kit.text("digest"), Colour::dim);
    if (!*kit.text("refusal")) return;
    snprintf(text, sizeof text, "a kit was refused %s: %s", timeText(kit.number("refused_at")).text,
             kit.text("refusal"));
    row("", text, Colour::dim);
}

void printConfiguration(const Fields &configuration) {
    char text[300];
    const bool unsaved = configuration.flag("unsaved_changes");
    snprintf(text, sizeof text, "%s, saved %s%s", configuration.text("file"),
             timeText(configuration.number("saved_at")).text, unsaved ? ", changes not saved" : "");
    row("configuration", text, unsaved ? Colour::strong : Colour::none);
    if (*configuration.text("kept")) {
        const char *const dropped = configuration.text("dropped");
        snprintf(text, sizeof text, "the file of before %s is kept as %s%s%s",
                 timeText(configuration.number("kept_at")).text, configuration.text("kept"),
                 *dropped ? ": the save left out " : "", dropped);
        row("", text, Colour::strong);
    }
}

void printRecords(const Fields &status) {
    const char *name = "records";
    status.each("records", [&](const am::Member &element) {
        const Fields file(element);
        char text[200];
        snprintf(text, sizeof text, "%s, %s bytes, %s lines written, %s waiting%s", file.text("file"),
                 amountText(file.number("size")).text, numberText(file.number("lines_written")).text,
                 numberText(file.number("lines_waiting")).text,
                 file.flag("failing") ? ", CANNOT BE WRITTEN" : "");
        row(name, text, file.flag("failing") ? Colour::bad : Colour::none);
        name = "";
    });
}

bool isNumber(const char *text) {
    char *end = nullptr;
    const unsigned long number = strtoul(text, &end, 10);
    return end != text && *end == '\0' && number <= UINT16_MAX;
}

}  // namespace

int statusCommand(const CommandLine &line) {
    Reply reply;
    ask("status", nullptr, reply);
    const Fields status = reply.fields();
    const bool healthy = strcmp(status.text("health"), "ok") == 0;
    if (line.json) {
        printJson(reply);
        return healthy ? kDone : kFailed;
    }
    char text[200];
    snprintf(text, sizeof text, "%s, up %s, kernel side %s", status.text("version"),
             spanText(status.number("uptime")).text, status.table("kernel").text("side"));
    row("korvid", text);
    row("health", status.text("health"), healthy ? Colour::good : Colour::bad);
    status.each("problems", [](const am::Member &element) {
        row("", Fields(element).text("what"), Colour::bad);
        row("  cure", Fields(element).text("cure"));
    });
    const Fields kernel = status.table("kernel");
    snprintf(text, sizeof text, "%s since %s", kernel.flag("mirroring") ? "on" : "off",
             kernel.number("since") ? timeText(kernel.number("since")).text : "the start");
    row("mirroring", text, kernel.flag("mirroring") ? Colour::good : Colour::strong);
    printKit(status.table("kit"));
    printConfiguration(status.table("configuration"));
    printRecords(status);
    return healthy ? kDone : kFailed;
}

int countersCommand(const CommandLine &line) {
    Reply reply;
    ask("counters", nullptr, reply);
    if (line.json) {
        printJson(reply);
        return kDone;
    }
    static constexpr Column kColumns[] = {{"COUNTER"}, {"VALUE", true}};
    static Table table(kColumns);
    am::Member counter;
    const Fields fields = reply.fields();
    for (am::Members all = am::Members::of(fields.member("counters")); all.next(counter);) {
        table.add(counter.name);
        table.add(numberText(fields.table("counters").number(counter.name)).text);
    }
    table.print();
    fields.each("losses", [](const am::Member &element) {
        const Fields loss(element);
        printf("\n%s%s: %s%s\n  %s\n", begin(Colour::bad), loss.text("name"),
               numberText(loss.number("value")).text, end(Colour::bad), loss.text("cure"));
    });
    return kDone;
}

// explain APPLICATION, or explain PROTOCOL SOURCE PORT DESTINATION PORT
int explainCommand(const CommandLine &line) {
    static blob_buf buffer;
    am::Answer arguments(buffer);
    if (line.wordCount == 2) {
        arguments.text("application", line.word(1));
    } else if (line.wordCount == 6 && isNumber(line.word(3)) && isNumber(line.word(5))) {
        arguments.text("protocol", line.word(1));
        arguments.text("source", line.word(2));
        (void)blobmsg_add_u32(&buffer, "source_port",
                              static_cast<uint32_t>(strtoul(line.word(3), nullptr, 10)));
        arguments.text("destination", line.word(4));
        (void)blobmsg_add_u32(&buffer, "destination_port",
                              static_cast<uint32_t>(strtoul(line.word(5), nullptr, 10)));
    } else {
        fprintf(stderr,
                "korvidctl: explain takes an application, or a flow: tcp|udp|NUMBER SOURCE PORT DESTINATION "
                "PORT\n");
        return kUsage;
    }
    Reply reply;
    if (look("explain", arguments.message(), reply) != Found::yes) {
        fprintf(stderr, "korvidctl: that is no flow: addresses of one family, ports from 0 to 65535\n");
        return kUsage;
    }
    const Fields fields = reply.fields();
    const bool unknown = fields.member("known").type != am::Member::kNoType && !fields.flag("known");
    if (line.json) {
        printJson(reply);
        return unknown ? kFailed : kDone;
    }
    fields.each("steps", [](const am::Member &element) {
        const Fields step(element);
        const Colour colour = step.flag("good") ? Colour::good : Colour::bad;
        printf("%s%-12s%s %s\n", begin(colour), step.text("step"), end(colour),
               shown(step.text("text")).text);
    });
    printf("%s%s%s\n", begin(Colour::strong), shown(fields.text("conclusion")).text, end(Colour::strong));
    return unknown ? kFailed : kDone;
}

}  // namespace ctl
