#include "dhcp/dhcp.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <net/if.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "dhcp/dhcp_debug.h"

int xsocket(int domain, int type, int protocol)
{
    int fd = socket(domain, type, protocol);
    if (fd < 0) zlog_err("socket(%d,%d)", type, protocol);
    return fd;
}

void xbind(int sockfd, const sockaddr *addr, socklen_t addrlen)
{
    int ret = bind(sockfd, addr, addrlen);
    if (ret == 0) return;
    char text[INET6_ADDRSTRLEN] = "";
    int port = 0;
    if (addr->sa_family == AF_INET) {
        sockaddr_in sin;
        std::memcpy(&sin, addr, sizeof sin);
        inet_ntop(AF_INET, &sin.sin_addr, text, sizeof text);
        port = ntohs(sin.sin_port);
    } else if (addr->sa_family == AF_INET6) {
        sockaddr_in6 sin6;
        std::memcpy(&sin6, addr, sizeof sin6);
        inet_ntop(AF_INET6, &sin6.sin6_addr, text, sizeof text);
        port = ntohs(sin6.sin6_port);
    }
    zlog_err("bind socket fd %d, my addr %s:%d fail return %d.", sockfd, text, port, ret);
}

int setsockopt_reuseaddr(int fd)
{
    int on = 1;
    return setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
}

int setsockopt_broadcast(int fd)
{
    int on = 1;
    return setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
}

int setsockopt_bindtodevice(int fd, const char *ifname)
{
    char name[32] = {0};
    std::snprintf(name, sizeof name, "%.20s", ifname);
    int ret = setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, name, sizeof name);
    if (ret != 0) zlog_err("can't bind to interface %s", name);
    return ret;
}

// Shared by both families: the options and their failure texts are the same.
static int dhcp_prepare_socket(int fd, const char *ifname)
{
    setsockopt_reuseaddr(fd);
    if (setsockopt_broadcast(fd) == -1) {
        zlog_err("set socket fd %d SO_BROADCAST fail", fd);
        return -1;
    }
    if (ifname && *ifname && setsockopt_bindtodevice(fd, ifname) != 0) {
        zlog_err("socket %d bind to device %s fail", fd, ifname);
        return -1;
    }
    return 0;
}

int dhcp_init_socket(std::uint32_t ip, std::uint16_t port, const char *ifname)
{
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &ip, text, sizeof text);
    zlog_info("Opening listen socket on %s:%d %s", text, ntohs(port), ifname ? ifname : "");
    int fd = xsocket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (fd < 0) return -1;
    if (dhcp_prepare_socket(fd, ifname) != 0) return -1;
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_port = port;
    sin.sin_addr.s_addr = ip;
    // A failed bind is only logged: the caller still gets the descriptor.
    xbind(fd, reinterpret_cast<const sockaddr *>(&sin), sizeof sin);
    return fd;
}

int dhcpv6_init_socket(const in6_addr &addr, int prefixlen, std::uint16_t port, const char *ifname)
{
    char text[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, &addr, text, sizeof text);
    zlog_info("Opening listen socket on %s/%d", text, prefixlen);
    int fd = xsocket(AF_INET6, SOCK_DGRAM, IPPROTO_UDP);
    if (fd < 0) return -1;
    if (dhcp_prepare_socket(fd, ifname) != 0) return -1;
    sockaddr_in6 sin6{};
    sin6.sin6_family = AF_INET6;
    sin6.sin6_port = port;
    sin6.sin6_addr = addr;
    xbind(fd, reinterpret_cast<const sockaddr *>(&sin6), sizeof sin6);
    return fd;
}

int dhcp_read_interface(const char *ifname, int *ifindex, std::uint32_t *ip, std::uint8_t *mac)
{
    int fd = socket(AF_INET, SOCK_RAW, IPPROTO_RAW);
    ifreq ifr{};
    std::snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "%.*s", (int)sizeof ifr.ifr_name - 1, ifname);
    char idx_text[32] = "", ip_text[32] = "", mac_text[40] = "";
    if (ifindex) {
        *ifindex = (fd >= 0 && ioctl(fd, SIOCGIFINDEX, &ifr) == 0) ? ifr.ifr_ifindex : 0;
        std::snprintf(idx_text, sizeof idx_text, "adapter index %d", *ifindex);
    }
    if (ip) {
        *ip = 0;
        if (fd >= 0 && ioctl(fd, SIOCGIFADDR, &ifr) == 0 && ifr.ifr_addr.sa_family == AF_INET) {
            sockaddr_in sin;
            std::memcpy(&sin, &ifr.ifr_addr, sizeof sin);
            *ip = sin.sin_addr.s_addr;
        }
        char a[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, ip, a, sizeof a);
        std::snprintf(ip_text, sizeof ip_text, "ip: %s", a);
    }
    if (mac) {
        std::memset(mac, 0, 6);
        if (fd >= 0 && ioctl(fd, SIOCGIFHWADDR, &ifr) == 0) std::memcpy(mac, ifr.ifr_hwaddr.sa_data, 6);
        std::snprintf(mac_text, sizeof mac_text, "mac: %02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1],
                      mac[2], mac[3], mac[4], mac[5]);
    }
    DHCP_PKT_DEBUG("Get interface %s index:%s %s %s", ifr.ifr_name, idx_text, ip_text, mac_text);
    if (fd >= 0) close(fd);
    return 0;
}

ssize_t dhcp_safe_read(int fd, void *buf, std::size_t len)
{
    ssize_t n;
    do { n = read(fd, buf, len); } while (n < 0 && errno == EINTR);
    return n;
}

ssize_t dhcp_safe_write(int fd, const void *buf, std::size_t len)
{
    ssize_t n;
    do { n = write(fd, buf, len); } while (n < 0 && errno == EINTR);
    return n;
}
