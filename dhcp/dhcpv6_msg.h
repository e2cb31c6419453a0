// DHCPv6 message-type names used in logs and shows.
#pragma once

extern const char *const dhcpv6_type_names[22];
// "invalid" for type 0 or above 21.
const char *dhcpv6_msg_type_str(int type);
