// Walks over the members of a bus message whose contents nobody has checked, and the named text arguments of
// the methods that take no containers.  Event-loop thread.
#pragma once
extern "C" {
#include <libubox/blobmsg.h>
}

#include <cstddef>

namespace am {

// One member.  One that fails its check (its name or its data does not fit its length, a text without end, an
// unknown type) has the empty name and no type, so that it is nothing that a method looks for.
struct Member {
    const char *name;
    int type;               // BLOBMSG_TYPE_*, kNoType
    const blob_attr *attr;  // itself a container for arrays and tables

    static constexpr int kNoType = -1;

    bool isContainer() const { return type == BLOBMSG_TYPE_ARRAY || type == BLOBMSG_TYPE_TABLE; }

    // The value of a text, null for any other type; lives as long as the message.
    const char *text() const;
};

// The members of the request itself, or of a container that was found by a walk.  A walk ends at the first
// member that does not lie within its container, as if the container ended there.
class Members {
  public:
    Members() = default;                                 // none
    static Members ofMessage(const blob_attr *message);  // none for null
    static Members of(const Member &container);          // none for anything but an array or a table

    // Puts the next member into `member`; false at the end.
    bool next(Member &member);

  private:
    Members(const void *data, size_t length) : at_(static_cast<const char *>(data)), left_(length) {}

    const char *at_ = nullptr;
    size_t left_ = 0;
};

// The arguments of a request, in the order of the policy: null for one that is absent or of another type; of
// one given twice the first.
template <size_t N>
struct TextArguments {
    const char *text[N];
    const char *operator[](size_t index) const { return text[index]; }
};

void parseTexts(const blobmsg_policy *policy, const char **texts, size_t count, const blob_attr *message);

template <size_t N>
TextArguments<N> textArguments(const blobmsg_policy (&policy)[N], const blob_attr *message) {
    TextArguments<N> arguments;
    parseTexts(policy, arguments.text, N, message);
    return arguments;
}

}  // namespace am
