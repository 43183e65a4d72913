// What lies behind the handlers, replaced by a record of the calls: netlink, configuration, kit, uploads,
// flow dumps and the reply.  The application model is the real one.
#pragma once
#include <string>
#include <vector>

#include "ubus/methods.h"
#include "unit/appmodel/model_fixture.h"

struct Fakes {
    std::vector<std::string> calls;  // in order, with arguments: "mirror 1", "write config", "reply ok", ...
    int validateResult = 1;
    int checkResult = 1;
    int downloadResult = 0;
    int stopResult[4] = {};
    int startResult[4] = {};
};
extern Fakes fakes;

using Handler = int (*)(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *);

// A message of the bus, from JSON text; of null, none at all.
class Message {
  public:
    explicit Message(const char *json);
    ~Message() { blob_buf_free(&buf_); }
    Message(const Message &) = delete;
    Message &operator=(const Message &) = delete;
    blob_attr *get() { return absent_ ? nullptr : buf_.head; }
    blob_buf &buffer() { return buf_; }

  private:
    blob_buf buf_{};
    bool absent_ = false;
};

class MethodTest : public ModelTest {
  protected:
    void SetUp() override;

    // The calls that the request made, joined by ", "; "reply ok" or "reply <text>" is one of them.
    static std::string call(Handler handler, const char *json);
    static std::string call(Handler handler, blob_attr *message);
};
