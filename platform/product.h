// Product information (INI file): system MAC, enterprise number, this card's
// slot, default host name.
#pragma once

#include <cstdint>

#define PRODUCT_DEFAULT_FILE "/etc/olt/product.ini"

// Loads the file; on any error logs it (file, key) and keeps the defaults.
// Returns 0 or TAVO_PARAM / TAVO_NOT_FOUND.
int st_product_load(const char *path);
int st_product_slot_id_get();
std::uint32_t st_product_enterprise_id_get();
const std::uint8_t *st_product_sys_mac_get();
void st_product_mac_get(std::uint8_t mac[6]);  // copy of the system MAC
const char *st_product_default_hostname();
std::uint32_t st_product_get_system_uptime();  // centiseconds since the system started
// File format ([product] section; every key optional):
//   sys_mac = 00:11:22:33:44:55   (also 00-11-.. or 0011-2233-4455)
//   enterprise = 99999            (SNMP enterprise number, non-zero)
//   slot = 1                      (0..31)
//   hostname = OLT                (1..63 printable characters, no blanks)
