// Applications by the names that people type.
#pragma once
#include "ctl/client.h"

namespace ctl {

// What the daemon explains of an application.
void askAbout(const char *application, Reply &reply);

// Whether the kit has an application of that name; if not, that and the nearest ones are told.
[[nodiscard]] bool isApplication(const char *name);

}  // namespace ctl
