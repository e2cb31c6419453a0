// Socket utilities used by the relay and the server.
#pragma once

#include <cstddef>
#include <cstdint>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>

int xsocket(int domain, int type, int protocol);
void xbind(int sockfd, const sockaddr *addr, socklen_t addrlen);
int setsockopt_reuseaddr(int fd);
int setsockopt_broadcast(int fd);
int setsockopt_bindtodevice(int fd, const char *ifname);
// ip and port in network order.
int dhcp_init_socket(std::uint32_t ip, std::uint16_t port, const char *ifname);
int dhcpv6_init_socket(const in6_addr &addr, int prefixlen, std::uint16_t port, const char *ifname);
int dhcp_read_interface(const char *ifname, int *ifindex, std::uint32_t *ip, std::uint8_t *mac);
ssize_t dhcp_safe_read(int fd, void *buf, std::size_t len);
ssize_t dhcp_safe_write(int fd, const void *buf, std::size_t len);
