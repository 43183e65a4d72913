#include "ctl/names.h"

#include <cstdio>

#include "ctl/screen.h"
#include "show/answer.h"

namespace ctl {

void askAbout(const char *application, Reply &reply) {
    static blob_buf buffer;
    am::Answer arguments(buffer);
    arguments.text("application", application);
    ask("explain", arguments.message(), reply);
}

bool isApplication(const char *name) {
    Reply reply;
    askAbout(name, reply);
    if (reply.fields().flag("known")) return true;
    fprintf(stderr, "korvidctl: no application '%s'", name);
    const char *before = ": ";
    reply.fields().each("nearest", [&](const am::Member &near) {
        fprintf(stderr, "%s%s", before, near.text() ? shown(near.text()).text : "");
        before = " or ";
    });
    fprintf(stderr, "%s\n", *before == ':' ? "" : "?");
    return false;
}

}  // namespace ctl
