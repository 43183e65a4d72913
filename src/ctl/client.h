// Calls of the daemon's two bus objects, and what they answer.
#pragma once
extern "C" {
#include <libubox/blobmsg.h>
}

#include <cstdint>

#include "ubus/members.h"

namespace ctl {

// The members of a table of a reply; what is absent is empty, 0 or false.
class Fields {
  public:
    Fields() = default;
    explicit Fields(const blob_attr *message) : members_(am::Members::ofMessage(message)) {}
    explicit Fields(const am::Member &table) : members_(am::Members::of(table)) {}

    const char *text(const char *name) const;  // lives as long as the reply
    uint64_t number(const char *name) const;
    bool flag(const char *name) const { return number(name) != 0; }
    Fields table(const char *name) const { return Fields(member(name)); }
    am::Member member(const char *name) const;  // no type: absent

    // Calls visit(member) for each element of an array.
    template <class Visit>
    void each(const char *name, Visit visit) const {
        am::Member element;
        for (am::Members elements = am::Members::of(member(name)); elements.next(element);) visit(element);
    }

  private:
    am::Members members_;
};

// The reply of one call, which it owns.
class Reply {
  public:
    Reply() = default;
    ~Reply() { blob_buf_free(&copy_); }
    Reply(const Reply &) = delete;
    Reply &operator=(const Reply &) = delete;

    Fields fields() const { return Fields(copy_.head); }
    const blob_attr *message() const { return copy_.head; }
    void take(const blob_attr *message);

  private:
    blob_buf copy_{};
};

// Ends the process with kNoDaemon, and says so, when the bus or the daemon is not there.
void connectBus(const char *socket);
void disconnectBus();

// Calls of the read-only object.  These end the process, and say so, when the daemon does not answer.
enum class Found {
    yes,
    no,          // nothing has that name
    noQuestion,  // an argument that cannot be
};
[[nodiscard]] Found look(const char *method, blob_attr *arguments, Reply &reply);
// The same where anything but an answer is a failure, which ends the process, too.
void ask(const char *method, blob_attr *arguments, Reply &reply);

// A method of the object dpi.  False when it answers a failure, whose text has been told.
[[nodiscard]] bool change(const char *method, blob_attr *arguments);

}  // namespace ctl
