// Which kit's numbers the connections' marks carry.  The marks outlive the daemon; so does a digest of the
// numbering, beside the process's other run-time files.  Where a kit numbers applications differently from
// the marks, those are cleared before its engine runs: connections count as unclassified then, and a number
// of another kit never meets this one's rules.
//
//   valid --another numbering--> being forgotten --all marks cleared--> valid
//                                     |  ^
//                                     '--'  tried again while the kernel refuses
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
void retryForgetting();

}  // namespace am
