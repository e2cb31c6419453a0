#include "platform/errcode.h"

const char *st_errcode_get_str(int code)
{
    switch (code) {
    case TAVO_OK: return "Success";
    case TAVO_ERR: return "General error";
    case TAVO_MEMORY: return "Out of memory";
    case TAVO_UNAVAIL: return "Service unavailable";
    case TAVO_PARAM: return "Invalid parameter";
    case TAVO_TIMEOUT: return "Timed out";
    case TAVO_FULL: return "Table full";
    case TAVO_NOT_FOUND: return "Not found";
    case TAVO_EXISTS: return "Already exists";
    case TAVO_PORT: return "Invalid port";
    case TAVO_VLAN: return "Invalid VLAN";
    case TAVO_SYSTEM: return "System error";
    case TAVO_IP_ERR: return "Invalid IP address";
    default: return "Unknown error";
    }
}
