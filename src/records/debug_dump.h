// Dumps of the flow tables and counters to the log, at INFO, on an administrator's request.  Event-loop
// thread; each copies what it prints and formats outside the locks.
#pragma once

void debugPrintAmEnfFlowDb();
void debugPrintFt4Queue();
void debugPrintFt6Queue();
void debugPrintFt6MonQueue();
void debugPrintCounter();
