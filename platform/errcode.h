// Result codes of the device library, and their texts.
#pragma once

enum {
    TAVO_OK = 0,
    TAVO_ERR = 101001,
    TAVO_MEMORY = 101002,
    TAVO_UNAVAIL = 101003,
    TAVO_PARAM = 101004,
    TAVO_TIMEOUT = 101005,
    TAVO_FULL = 101006,
    TAVO_NOT_FOUND = 101007,
    TAVO_EXISTS = 101008,
    TAVO_PORT = 101012,
    TAVO_VLAN = 101013,
    TAVO_SYSTEM = 101015,
    TAVO_IP_ERR = 101024,
};

// Text for a result code; never null (unknown codes get a generic text).
const char *st_errcode_get_str(int code);
