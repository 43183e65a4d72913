// What became of the last kits, for people to ask for.  Event-loop thread.
#pragma once
#include <cstdint>

namespace am {

struct KitState {
    char version[50];    // of the installed kit; empty without one, or when it names none
    uint8_t digest[16];  // MD5 of its file
    int64_t loadedAt;    // seconds since the epoch; 0: no kit so far
    bool refused;        // the kit that was asked for last
    char refusal[96];    // why the last kit that was refused was; empty if none was
    int64_t refusedAt;   // seconds since the epoch
    bool tookMirroring;  // mirroring was switched off for a kit that was then refused
};
extern KitState kitState;

// A kit that was asked for is not used, or only in part.  The first reason of a kit counts: what follows from
// it fails, too.
void noteKitRequest();
void noteKitRefused(const char *reason);

// The kit that is still extracted has been installed; its engine, too, if that is so.
void noteKitInstalled();

}  // namespace am
