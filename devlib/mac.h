// MAC address texts in the device's "MMMM-MMMM-MMMM" form.
#pragma once

#include <cstdint>

// 0 on success, TAVO_PARAM when the text is not three groups of four hex digits.
int tavo_str2mac(const char *str, std::uint8_t mac[6]);
// Writes "0011-2233-4455" into buf (at least 15 bytes); returns buf.
char *tavo_mac2str(const std::uint8_t mac[6], char *buf);
