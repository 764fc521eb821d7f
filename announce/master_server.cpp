#include "announce/master_server.h"

constinit const char* const master_host = ZOL_MASTER_HOST;
constinit const char* const master_service = "80";
