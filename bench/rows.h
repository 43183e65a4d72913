// The rows of the table, by the part of the daemon that they measure.
#pragma once
#include "bench.h"

namespace bench {

void addCaptureRows(Table &table);
void addVerdictRows(Table &table);
void addTreeRows(Table &table);
void addReportRows(Table &table);
void addRecordRows(Table &table);
void addLogRows(Table &table);
void addMemoryRows(Table &table);
void addWaitRows(Table &table);

Loop reportLoop(unsigned perMessage);  // the daemon's side of a report row

// Figures of the daemon's own growth, one "curve size nanoseconds" a line; 0.
int printCurves();

}  // namespace bench
