#include "ubus/request_log.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

extern "C" {
#include <libubox/blobmsg_json.h>
}

#include "core/handle.h"
#include "core/log.h"
#include "core/log_time.h"
#include "core/paths.h"
#include "core/sized_log.h"
#include "core/write_fully.h"
#include "ubus/members.h"

namespace {

using am::Member;
using am::Members;

constinit am::SizedLog ubus_log_file{kRequestLogPath, "Error opening ubus log file: "};

constinit am::LogClock clockOfEntries;

constexpr std::string_view kPassword = "password";

// The library's formatter calls itself for each level, and a message of a mebibyte has room for more levels
// than the stack has.  No method takes more than five.
constexpr int kDeepest = 64;

bool isTooDeep(const blob_attr *msg) {
    Members levels[kDeepest];
    int depth = 0;
    levels[0] = Members::ofMessage(msg);
    Member member;
    while (depth >= 0) {
        if (!levels[depth].next(member)) {
            depth--;
        } else if (member.isContainer()) {
            if (++depth == kDeepest) return true;
            levels[depth] = Members::of(member);
        }
    }
    return false;
}

}  // namespace

void mask_pass(char *text, int length) {
    const std::string_view all(text, length > 0 ? static_cast<size_t>(length) : 0);
    // Counted from the word on: the first quote closes the key, the second opens the value, the third ends
    // it. A value that the end of the text cut off keeps the count for the next word.
    int quotes = 0;
    for (size_t word = all.find(kPassword); word != all.npos;) {
        const bool fresh = quotes == 0;
        const size_t firstQuote = all.find('"', word);
        size_t at = word;
        for (; at < all.size(); at++) {
            if (text[at] != '"') {
                if (quotes == 2) text[at] = '*';
            } else if (++quotes > 2) {
                quotes = 0;
                break;
            }
        }
        // Without a quote behind it a word changes nothing any more, nor does a later one.
        if (firstQuote == all.npos) return;
        // Words before the first of three quotes would only find the same three: a long text of them must not
        // cost the square of its length.
        const bool whole = fresh && at < all.size();
        word = all.find(kPassword, whole ? firstQuote + 1 : word + kPassword.size() + 1);
    }
}

void log_ubus_msg(const blob_attr *msg) {
    if (!msg || (blob_is_extended(msg) && !blobmsg_check_attr(msg, false))) return;
    if (isTooDeep(msg)) {
        amLog(AM_LOG_ERROR, "%s:%d message of more than %d levels\n", __func__, __LINE__, kDeepest);
        return;
    }
    if (am::restartAtLimit(ubus_log_file) || ubus_log_file.fd < 0)
        am::openSizedLog(ubus_log_file, kRequestLogPath);

    const am::CText json(
        blobmsg_format_json_with_cb(const_cast<blob_attr *>(msg), true, nullptr, nullptr, 0));
    if (!json) {
        amLog(AM_LOG_ERROR, "%s:%d no memory for the text of a message\n", __func__, __LINE__);
        return;
    }
    mask_pass(json.get(), static_cast<int>(std::string_view(json.get()).size()));
    char entry[4096];
    const int length =
        snprintf(entry, sizeof entry, "%s : ubus msg :\n%s\n", clockOfEntries.text(), json.get());
    if (length > 0)
        (void)am::writeFully(ubus_log_file.fd,
                             {entry, std::min(static_cast<size_t>(length), sizeof entry - 1)});
}
