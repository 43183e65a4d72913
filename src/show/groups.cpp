#include <algorithm>

#include "appmodel/app_lists.h"
#include "show/methods.h"

namespace am {

namespace {

void addGroup(Answer &answer, const AmAppGrp &group) {
    answer.field("name", group.grpName);
    answer.number("members", rbtCount(&group.members));
    answer.flag("enforced", group.isEnforcement != 0);
    answer.flag("monitored", group.isMonitoring != 0);
}

// The elements of a tree that a page asks for.
template <class Element, class Add>
void addPage(Answer &answer, const char *name, const RbtTree &tree, const Page &page, Add add) {
    const uint32_t total = rbtCount(&tree);
    const uint32_t end = page.offset + std::min(page.limit, total - std::min(page.offset, total));
    answer.number("total", total);
    uint32_t next = page.offset;
    answer.array(name, [&] {
        const RbtNode *node = rbtFindNth(&tree, page.offset);
        for (; node && next < end && !answer.full(); node = rbtNext(&tree, node), next++)
            add(*reinterpret_cast<const Element *>(node));
    });
    if (next < total) answer.number("next", next);
}

}  // namespace

int answerGroups(Answer &answer, const blob_attr *message) {
    const char *name = nullptr;
    Page page;
    const Argument arguments[] = {
        {.name = "name", .text = &name},
        {.name = "limit", .number = &page.limit, .most = Page::kMost},
        {.name = "offset", .number = &page.offset},
    };
    if (!takeArguments(message, arguments)) return UBUS_STATUS_INVALID_ARGUMENT;
    if (!name) {
        addPage<AmAppGrp>(answer, "groups", amAppGrpTree, page, [&](const AmAppGrp &group) {
            answer.table(nullptr, [&] { addGroup(answer, group); });
        });
        return UBUS_STATUS_OK;
    }
    const AmAppGrp *const group = amFindGrpNode(&amAppGrpTree, name);
    if (!group) return UBUS_STATUS_NOT_FOUND;
    answer.table("group", [&] { addGroup(answer, *group); });
    addPage<GrpElement>(answer, "members", group->members, page,
                        [&](const GrpElement &member) { answer.field(nullptr, member.name); });
    return UBUS_STATUS_OK;
}

}  // namespace am
