// The mirrored packets: an NFLOG group that is bound while mirroring is on, and read by the capture thread.
//
// Threads: opened, bound and unbound by the event-loop thread, which holds the engine gate to bind; read by
// the capture thread, which holds the gate, too.  The same socket for the life of the process.
#pragma once
#include "flows/kernel_side.h"

namespace am {

int openMirror();  // 0, or a negative error number
void closeMirror();
void abandonMirror();  // the descriptor only, for a process that ends at once

// Binds the group.  One that somebody else listens to is tried again until it is free, or mirroring is
// stopped. Event-loop thread.
void startMirror() EXCLUDES(amEngineGate);

// Lets go of the group and waits for nobody.  Event-loop thread.
void stopMirror();

// The same as the last word to the kernel.  Any thread, while the socket is open.
void withdrawMirror();

}  // namespace am
