// The methods of the bus object "korvid"; messages are untrusted.  Event-loop thread.
#pragma once
#include "show/answer.h"
#include "show/arguments.h"

namespace am {

void startUptime();  // once, at start-up

// Each fills the answer or returns the status that the request ends with.
int answerStatus(Answer &answer, const blob_attr *message);
int answerCounters(Answer &answer, const blob_attr *message);
int answerApps(Answer &answer, const blob_attr *message);
int answerGroups(Answer &answer, const blob_attr *message);
int answerFlows(Answer &answer, const blob_attr *message);
int answerExplain(Answer &answer, const blob_attr *message);

}  // namespace am
