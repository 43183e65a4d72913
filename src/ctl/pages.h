// Lists of the daemon, fetched page by page, so that neither side holds a long one as a whole.
#pragma once
#include "ctl/client.h"
#include "show/answer.h"
#include "show/arguments.h"

namespace ctl {

struct PagedList {
    const char *method;
    const char *array;  // of the reply: the entries
    bool byCursor;      // goes on at a "cursor", not at a "next" offset
};
inline constexpr PagedList kApps{"apps", "apps", false}, kGroups{"groups", "groups", false},
    kMembers{"groups", "members", false}, kFlows{"flows", "flows", true};

// What a walk calls, with the context of each.
struct PageCalls {
    void (*fill)(am::Answer &arguments, const void *context);
    void (*visit)(const am::Member &entry, const void *context);
    const void *fillContext, *visitContext;
};
uint32_t walkPages(const PagedList &list, uint32_t most, const PageCalls &calls);

// Calls visit(entry) for at most `most` entries; fill(arguments) adds what is asked for.  The entries
// visited.
template <class Fill, class Visit>
uint32_t forEachEntry(const PagedList &list, uint32_t most, const Fill &fill, const Visit &visit) {
    return walkPages(
        list, most,
        {[](am::Answer &arguments, const void *context) { (*static_cast<const Fill *>(context))(arguments); },
         [](const am::Member &entry, const void *context) { (*static_cast<const Visit *>(context))(entry); },
         &fill, &visit});
}

}  // namespace ctl
