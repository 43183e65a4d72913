// What is wrong with the daemon or its world, and what helps.  Event-loop thread.
#pragma once
#include <cstdint>

namespace am {

// From now on looks at the counters of losses once a minute: a loss that has grown within the last five
// minutes is a problem, one of last week is not.
void watchLosses();

// Calls visit(what, cure) for each problem there is.
using ProblemVisit = void (*)(const char *what, const char *cure, void *context);
void forEachProblem(ProblemVisit visit, void *context);

}  // namespace am
