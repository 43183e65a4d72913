#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "appmodel/app_pool.h"
#include "show/flow_entry.h"
#include "show/methods.h"

namespace am {

namespace {

// Records that one request looks at: with a filter that few match, the caller goes on from the cursor.
constexpr uint32_t kLooksAtOnce = 20'000;

struct Question {
    const AmAppNode *app = nullptr;
    int family = 0;  // of the address; 0: any
    in6_addr address{};
    Page page;
};

struct V4 {
    using Key = AmEnfKey4;
    using Flow = AmEnfFlow4;
    static constexpr char kLetter = '4';
    static constexpr int kFamily = AF_INET;
};
struct V6 {
    using Key = AmEnfKey6;
    using Flow = AmEnfFlow6;
    static constexpr char kLetter = '6';
    static constexpr int kFamily = AF_INET6;
};

// Where a list goes on: behind this key, which need not be there any more.
struct Cursor {
    char letter = V4::kLetter;
    bool started = false;
    AmEnfKey4 key4{};
    AmEnfKey6 key6{};

    AmEnfKey4 &key(V4) { return key4; }
    AmEnfKey6 &key(V6) { return key6; }
};

// The cursor's text: the family's figure, then the key's bytes in hexadecimal; the figure alone is its begin.
struct CursorText {
    char text[2 + 2 * sizeof(AmEnfKey6)];
};

CursorText textOf(char letter, const void *key, size_t size) {
    CursorText out{};
    char *end = out.text;
    *end++ = letter;
    for (size_t i = 0; i < size; i++, end += 2)
        snprintf(end, 3, "%02x", static_cast<const uint8_t *>(key)[i]);
    return out;
}

int nibble(char digit) {
    if (digit >= '0' && digit <= '9') return digit - '0';
    return digit >= 'a' && digit <= 'f' ? digit - 'a' + 10 : -1;
}

bool readKey(const char *text, void *key, size_t size) {
    if (strlen(text) != 2 * size) return false;
    for (size_t i = 0; i < size; i++) {
        const int high = nibble(text[2 * i]), low = nibble(text[2 * i + 1]);
        if (high < 0 || low < 0) return false;
        static_cast<uint8_t *>(key)[i] = static_cast<uint8_t>(high << 4 | low);
    }
    return true;
}

bool readCursor(const char *text, Cursor &cursor) {
    if (!text) return true;
    cursor.letter = *text;
    if (*text != V4::kLetter && *text != V6::kLetter) return false;
    if (!text[1]) return true;
    cursor.started = true;
    return *text == V4::kLetter ? readKey(text + 1, &cursor.key4, sizeof cursor.key4)
                                : readKey(text + 1, &cursor.key6, sizeof cursor.key6);
}

bool sameAddress(uint32_t ours, const in6_addr &asked) {
    return memcmp(&ours, &asked, sizeof ours) == 0;
}
bool sameAddress(const in6_addr &ours, const in6_addr &asked) {
    return memcmp(&ours, &asked, sizeof ours) == 0;
}

template <class Ip>
bool isAskedFor(const typename Ip::Flow &flow, const Question &question) {
    if (flow.aged != 0) return false;  // it has ended, the next sweep takes it away
    if (question.app && question.app->appId != flow.appId) return false;
    return question.family == 0 || sameAddress(flow.key.fst_ip, question.address) ||
           sameAddress(flow.key.secnd_ip, question.address);
}

// Lists from the cursor on, which is left where a next request goes on.  True at the end of the family.
template <class Ip>
bool addFlows(Answer &answer, const Question &question, Cursor &cursor, uint32_t &added, uint32_t &looks) {
    if (question.family != 0 && question.family != Ip::kFamily) return true;
    typename Ip::Key &key = cursor.key(Ip{});
    typename Ip::Flow flow;
    for (; looks < kLooksAtOnce && added < question.page.limit && !answer.full(); looks++) {
        if (!nextEnfFlow(cursor.started ? &key : nullptr, flow)) return true;
        cursor.started = true;
        key = flow.key;
        if (!isAskedFor<Ip>(flow, question)) continue;
        answer.table(nullptr, [&] { addFlow(answer, flow); });
        added++;
    }
    return false;
}

void onToIpv6(Cursor &cursor) {
    cursor.letter = V6::kLetter;
    cursor.started = false;
}

// UBUS_STATUS_OK, or why the question is none.
int readQuestion(const blob_attr *message, Question &question, Cursor &cursor) {
    const char *application = nullptr, *address = nullptr, *cursorText = nullptr;
    const Argument arguments[] = {
        {.name = "application", .text = &application},
        {.name = "address", .text = &address},
        {.name = "limit", .number = &question.page.limit, .most = Page::kMost},
        {.name = "cursor", .text = &cursorText},
    };
    if (!takeArguments(message, arguments) || !readCursor(cursorText, cursor))
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (address) {
        question.family = strchr(address, ':') ? AF_INET6 : AF_INET;
        if (inet_pton(question.family, address, &question.address) != 1) return UBUS_STATUS_INVALID_ARGUMENT;
    }
    if (application && !(question.app = amIsAppNameValid(application))) return UBUS_STATUS_NOT_FOUND;
    return UBUS_STATUS_OK;
}

template <class Flow>
void addMembers(Answer &answer, const Flow &flow) {
    amModelLock.soleWriterReads();
    const char *const protocol = flow.key.proto == IPPROTO_TCP   ? "tcp"
                                 : flow.key.proto == IPPROTO_UDP ? "udp"
                                                                 : nullptr;
    char number[8];
    snprintf(number, sizeof number, "%u", flow.key.proto);
    answer.text("protocol", protocol ? protocol : number);
    answer.text("source", addressText(flow.key.fst_ip).text);
    answer.number("source_port", flow.key.fstPort);
    answer.text("destination", addressText(flow.key.secnd_ip).text);
    answer.number("destination_port", flow.key.scndPort);
    answer.text("application", appNameText(amActiveApp(flow.appId)).text);
    answer.number("since", static_cast<uint64_t>(flow.startTime));
    answer.text("state", flow.aged ? "ended" : flow.untold ? "not taken by the kernel" : "live");
}

}  // namespace

void addFlow(Answer &answer, const AmEnfFlow4 &flow) {
    addMembers(answer, flow);
}

void addFlow(Answer &answer, const AmEnfFlow6 &flow) {
    addMembers(answer, flow);
}

int protocolNumber(const char *text) {
    if (strcasecmp(text, "tcp") == 0) return IPPROTO_TCP;
    if (strcasecmp(text, "udp") == 0) return IPPROTO_UDP;
    char *end = nullptr;
    const long number = strtol(text, &end, 10);
    return end != text && *end == '\0' && *text >= '0' && *text <= '9' && number <= UINT8_MAX
               ? static_cast<int>(number)
               : -1;
}

int answerFlows(Answer &answer, const blob_attr *message) {
    Question question;
    Cursor cursor;
    if (const int status = readQuestion(message, question, cursor); status != UBUS_STATUS_OK) return status;
    const EnfFlowsHeld held = enfFlowsHeld();
    answer.number("held", uint64_t{held.ipv4} + held.ipv6);
    bool end = false;
    answer.array("flows", [&] {
        uint32_t added = 0, looks = 0;
        if (cursor.letter == V4::kLetter && addFlows<V4>(answer, question, cursor, added, looks))
            onToIpv6(cursor);
        if (cursor.letter == V6::kLetter) end = addFlows<V6>(answer, question, cursor, added, looks);
    });
    if (end) return UBUS_STATUS_OK;
    const bool ipv4 = cursor.letter == V4::kLetter;
    const size_t size = !cursor.started ? 0 : ipv4 ? sizeof cursor.key4 : sizeof cursor.key6;
    const void *const key = ipv4 ? static_cast<const void *>(&cursor.key4) : &cursor.key6;
    answer.text("cursor", textOf(cursor.letter, key, size).text);
    return UBUS_STATUS_OK;
}

}  // namespace am
