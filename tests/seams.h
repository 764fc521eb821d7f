// The function that a test runs at the server's test hooks.
#pragma once

#include "server/seams.h"

extern void (*on_seam)(Seam seam);  // called at each seam, unless it is null
