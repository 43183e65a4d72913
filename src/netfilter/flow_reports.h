// Counters of enforced connections become the reports of the daemon's flows: at intervals from a dump of the
// kernel's connections, and when one ends.
//
//   marked as enforced --seen in a dump or at its end--> in the enforcement flow database, if it was not
//   counters changed since the last dump --> report          end, or missing in a dump --> last report
//
// An enforced connection belongs into the database also when another run of the daemon, or this one before
// mirroring was switched off, marked it: it is entered with the time at which the connection began, and so
// its lines go on where the earlier ones stopped; the counters are totals in both.
//
// Threads: the event-loop thread.
#pragma once

namespace am {

int openReports();  // 0, or a negative error number; with the loop set up
void closeReports();
void abandonReports();  // descriptors only, for a process that ends at once

// Enters the connections that the database lacks, and reports nothing.
void adoptConnections();

// Reports what has changed, and what has ended unseen.
void reportConnections();

// Throws away the ends that have not been read: their marks mean nothing any more.
void forgetEnds();

}  // namespace am
