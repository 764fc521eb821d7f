// The address of the master server. A separate link unit, so that tests can link another.
#pragma once

extern const char* const MASTER_HOST;     // each request names it, too
extern const char* const MASTER_SERVICE;  // TCP port, as text
