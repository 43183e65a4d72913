// What the numbers in connections' marks mean.  Marks outlive the daemon; so does a list of the names that
// they stand for, beside the system's other run-time files.  A kit that numbers applications differently has
// the marks translated, name by name, before its verdicts come: a connection goes on being what it was found
// to be, one whose application the new kit does not know counts as unclassified, and a number of one kit
// never meets another's rules.
//
//   settled --another numbering--> sets empty, list gone --every mark translated--> settled
//                                          '--the kernel refuses, or the end of the process--> marks are
//                                          cleared,
//                                              now and then again until none is left --> settled
//
// Threads: the event-loop thread.
#pragma once

namespace am {

int openNumbering();  // 0, or a negative error number
void closeNumbering();
void abandonNumbering();  // the descriptor only, for a process that ends at once

// False while marks of another numbering may be left: then no set may hold a mark.
bool marksAreValid();

// Goes on clearing where that has failed.
void retryClearing();

}  // namespace am
