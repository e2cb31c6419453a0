#include "dhcp/dhcpv6_msg.h"

const char *const dhcpv6_type_names[22] = {
    "invalid",       "Solicit",          "Advertise",           "Request",           "Confirm",
    "Renew",         "Rebind",           "Reply",               "Release",           "Decline",
    "Reconfigure",   "Information-request", "Relay-forward",    "Relay-reply",       "Leasequery",
    "Leasequery-reply", "Leasequery-done", "Leasequery-data",   "Reconfigure-request", "Reconfigure-reply",
    "Dhcpv4-query",  "Dhcpv4-response",
};

const char *dhcpv6_msg_type_str(int type)
{
    if (type < 1 || type > 21) return "invalid";
    return dhcpv6_type_names[type];
}
