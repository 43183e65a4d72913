#include "kit/kit_state.h"

#include <cstring>
#include <ctime>

#include "core/text.h"
#include "kit/kit_folders.h"
#include "kit/kit_members.h"
#include "kit/kit_update.h"

constinit am::KitState am::kitState{};

void am::noteKitRequest() {
    kitState.refused = false;
}

void am::noteKitRefused(const char *reason) {
    if (kitState.refused) return;
    kitState.refused = true;
    copyText(kitState.refusal, reason);
    kitState.refusedAt = time(nullptr);
}

void am::noteKitInstalled() {
    copyText(kitState.version, readKitVersion(kKitInstallDir).text);
    memcpy(kitState.digest, CurMd5Sum, sizeof kitState.digest);
    kitState.loadedAt = time(nullptr);
}
