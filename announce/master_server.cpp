#include "announce/master_server.h"

constinit const char* const MASTER_HOST = ZOL_MASTER_HOST;
constinit const char* const MASTER_SERVICE = "80";
