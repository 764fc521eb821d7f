// The address of the master server. A separate translation unit, so that tests can link another.
#pragma once

extern const char* const MASTER_HOST;     // host name; also sent in each request
extern const char* const MASTER_SERVICE;  // TCP port, as text
