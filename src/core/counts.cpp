#include "core/counts.h"

constinit am::Counts am::counts{};
