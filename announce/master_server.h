// Where the master server is. A link unit of its own, so that tests can link another.
#pragma once

extern const char* const MASTER_HOST;     // connected to, and named in each request
extern const char* const MASTER_SERVICE;  // TCP port, as text
