// What an exchange of kits means beyond this process: numbers of applications get other meanings.  Called by
// the installation of a kit; defined by the kernel's side (flows/kernel_side.h), which may have numbers in
// its keeping. Event-loop thread.
#pragma once

namespace am {

// The pool is the new kit's; the active array and the engine that runs are still the old one's.
void beforeRenumbering();

// The array is gone, so that no verdict comes to be until the new one is there.
void whileRenumbering();

// The new kit's array is there, on no list, and its engine runs, if it has one that can.
void afterRenumbering();

// Whether an application that two kits name keeps the number that the first of them gave it, whatever the
// second says.
extern const bool applicationsKeepNumbers;

}  // namespace am
