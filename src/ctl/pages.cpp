#include "ctl/pages.h"

#include <algorithm>
#include <cstdio>

namespace ctl {

uint32_t walkPages(const PagedList &list, uint32_t most, const PageCalls &calls) {
    blob_buf buffer{};
    char cursor[128] = {};
    uint32_t next = 0, visited = 0;
    for (bool more = true; more && visited < most;) {
        am::Answer arguments(buffer);
        calls.fill(arguments, calls.fillContext);
        (void)blobmsg_add_u32(&buffer, "limit", std::min(most - visited, am::Page::kMost));
        if (list.byCursor && *cursor) arguments.text("cursor", cursor);
        if (!list.byCursor) (void)blobmsg_add_u32(&buffer, "offset", next);
        Reply reply;
        ask(list.method, arguments.message(), reply);
        const Fields fields = reply.fields();
        am::Member entry;
        for (am::Members entries = am::Members::of(fields.member(list.array)); entries.next(entry); visited++)
            calls.visit(entry, calls.visitContext);
        const char *const go = fields.text("cursor");
        const auto offset = static_cast<uint32_t>(fields.number("next"));
        more = list.byCursor ? *go != '\0' : offset > next;
        next = offset;
        snprintf(cursor, sizeof cursor, "%s", go);
    }
    blob_buf_free(&buffer);
    return visited;
}

}  // namespace ctl
