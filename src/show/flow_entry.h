// A flow as replies show it, and as requests name it.  Event-loop thread.
#pragma once
#include "flows/enf_flow_db.h"
#include "show/answer.h"

namespace am {

// Adds the members that tell of a record.
void addFlow(Answer &answer, const AmEnfFlow4 &flow);
void addFlow(Answer &answer, const AmEnfFlow6 &flow);

// "tcp", "udp" or a number from 0 to 255; -1 for anything else.
int protocolNumber(const char *text);

}  // namespace am
