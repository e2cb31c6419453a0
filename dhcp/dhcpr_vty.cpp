#include "dhcp/dhcpr_vty.h"

#include <arpa/inet.h>
#include <cstring>
#include <string>

#include "devlib/mac.h"
#include "dhcp/dhcp_if.h"
#include "dhcp/dhcpr.h"
#include "lib/command.h"
#include "lib/vty.h"
#include "platform/errcode.h"

namespace {

// Roles of another DHCP service on the interface; relay cannot share it.
enum { DHCP_IF_TYPE_OTHER_A = 2, DHCP_IF_TYPE_OTHER_B = 4 };

struct addr_text {
    char s[INET6_ADDRSTRLEN];
    explicit addr_text(std::uint32_t nip) { inet_ntop(AF_INET, &nip, s, sizeof s); }
    explicit addr_text(const prefix &p) { dhcp_prefix_addr_str(&p, s, sizeof s); }
};

// The routed interface a session of INTERFACE_NODE works on.
interface *node_interface(vty *vty) { return static_cast<interface *>(vty->index); }

std::uint32_t if_v4_type(const interface *ifp)
{
    const dhcp_info_t *info = dhcp_if_info(ifp);
    return info ? info->v4_type : 0;
}

std::uint32_t if_v6_type(const interface *ifp)
{
    const dhcp_info_t *info = dhcp_if_info(ifp);
    return info ? info->v6_type : 0;
}

int no_relay_here(vty *vty)
{
    vty_out(vty, "%% No dhcp-relay be configured at this interface%s", VTY_NEWLINE);
    return CMD_ERR_REFUSED;
}

// Both agents share the refusals; only the role they look at differs.
int agent_enable(vty *vty, interface *ifp, std::uint32_t role, int (*enable)(interface *))
{
    if (role == DHCP_IF_TYPE_OTHER_A || role == DHCP_IF_TYPE_OTHER_B) {
        vty_out(vty, "%%The interface has configure dhcp, undo it first%s", VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    // The cap counts every relay agent in force; re-enabling one is not a new one.
    bool full = role != DHCP_IF_TYPE_RELAY && g_dhcpr_vlanif_count >= DHCPR_VLANIF_MAX;
    if (full || !ifp || enable(ifp) != 0) {
        vty_out(vty, "%%Can not enable, maximum dhcp relay interface count %d reach. %s", int(DHCPR_VLANIF_MAX),
                VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    return CMD_SUCCESS;
}

void server_lines(vty *vty, const dhcpr_t *dhcpr)
{
    for (const relay_server_info_t *s : dhcpr->server_list)
        vty_out(vty, " dhcp relay-server %s%s", addr_text(s->server_ip).s, VTY_NEWLINE);
}

// One interface of the brief view: name, address and switch on the first
// line with the first server, further servers one per line below it.
void brief_rows(vty *vty, const interface *ifp)
{
    std::uint32_t nip = dhcp_if_primary_ipv4(ifp);
    std::string ip = nip ? addr_text(nip).s : "  N/A";
    const char *state = dhcpr_relay_is_enable_on_interface(ifp) ? "enable" : "disable";
    const dhcpr_t *dhcpr = dhcpr_info_get_by_interface(ifp);
    if (!dhcpr || dhcpr->server_list.empty()) {
        vty_out(vty, " %-10s    %-16s      %-7s          %-16s %s", ifp->name, ip.c_str(), state, "N/A", VTY_NEWLINE);
        return;
    }
    std::size_t left = dhcpr->server_list.size();
    bool first = true;
    for (const relay_server_info_t *s : dhcpr->server_list) {
        const char *name = first ? ifp->name : "";
        const char *addr = first ? ip.c_str() : "";
        const char *on = first ? state : "";
        if (--left) {
            vty_out(vty, " %-10s    %-16s      %-7s          %-16s ", name, addr, on, addr_text(s->server_ip).s);
            vty_out(vty, "  %s", VTY_NEWLINE);
        } else {
            vty_out(vty, " %-10s    %-16s      %-7s          %-16s %s", name, addr, on, addr_text(s->server_ip).s,
                    VTY_NEWLINE);
        }
        first = false;
    }
}

void detail_lines(vty *vty, const interface *ifp)
{
    vty_out(vty, " interface    :  %s %s", ifp->name, VTY_NEWLINE);
    if (dhcpr_relay_is_enable_on_interface(ifp))
        vty_out(vty, " dhcp-relay   :  enable %s", VTY_NEWLINE);
    else
        vty_out(vty, " dhcp-relay   :  disable %s", VTY_NEWLINE);

    vty_out(vty, " interface ipv4 address : %s", VTY_NEWLINE);
    int n = 0;
    for (const prefix &p : ifp->connected) {
        if (p.family != AF_INET) continue;
        vty_out(vty, "   [%2d] %16s/%2d %s", ++n, addr_text(p).s, p.prefixlen, VTY_NEWLINE);
    }
    std::uint32_t primary = dhcp_if_primary_ipv4(ifp);
    vty_out(vty, " ipv4 address : %s %s", primary ? addr_text(primary).s : "N/A", VTY_NEWLINE);

    const dhcpr_t *dhcpr = dhcpr_info_get_by_interface(ifp);
    if (dhcpr) {
        // The address the server socket listens on, then the giaddr candidates.
        vty_out(vty, " relay ipv4 address : %s %s", dhcpr->local_ipaddr ? addr_text(dhcpr->local_ipaddr).s : "N/A",
                VTY_NEWLINE);
        vty_out(vty, " relay gateway ipv4 address : fd %2d %s", dhcpr->server_fd, VTY_NEWLINE);
        n = 0;
        for (const relay_ip_info_t *r : dhcpr->relay_ip_list) {
            if (r->relay_ip.family != AF_INET) continue;
            vty_out(vty, "   [%2d] %16s/%02d discovery[%d] offer[%d] request[%d] ack[%d]%s", ++n,
                    addr_text(r->relay_ip).s, r->relay_ip.prefixlen, int(r->tx_discovery), int(r->rx_offer),
                    int(r->tx_request), int(r->rx_ack), VTY_NEWLINE);
        }
    }
    if (!dhcpr || dhcpr->server_list.empty()) {
        vty_out(vty, " relay-server :  %16s%s", "N/A", VTY_NEWLINE);
        return;
    }
    vty_out(vty, " relay-server :%s", VTY_NEWLINE);
    n = 0;
    for (const relay_server_info_t *s : dhcpr->server_list)
        vty_out(vty, "   [%2d] %16s discovery[%d] offer[%d] request[%d] ack[%d] release[%d] %s", ++n,
                addr_text(s->server_ip).s, int(s->tx_discovery), int(s->rx_offer), int(s->tx_request), int(s->rx_ack),
                int(s->tx_release), VTY_NEWLINE);
}

}  // namespace

#define RELAY_STR "DHCP relay\n"
#define DHCP_STR "DHCP information\n"
#define DHCPV6_STR "DHCPv6 information\n"
#define AGENT_STR "Relay agent on this interface\n"
#define SERVER_STR "Address of a DHCP server to relay to\n"

// ------------------------------------------------------------- global ----

DEFUN(dhcpr_enable_cli, dhcpr_enable_cmd, "ip dhcp-relay", IP_STR RELAY_STR)
{
    dhcp_relay_enable_set(1);
    return CMD_SUCCESS;
}

DEFUN(dhcpr_disable_cli, dhcpr_disable_cmd, "no ip dhcp-relay", NO_STR IP_STR RELAY_STR)
{
    dhcp_relay_enable_set(0);
    return CMD_SUCCESS;
}

// ---------------------------------------------------------- interface ----

DEFUN(dhcpr_l3if_agent_enable_cli, dhcpr_l3if_agent_enable_cmd, "ip dhcp relay-agent", IP_STR DHCP_STR AGENT_STR)
{
    interface *ifp = node_interface(vty);
    return agent_enable(vty, ifp, ifp ? if_v4_type(ifp) : 0, dhcpr_interface_enable);
}

DEFUN(dhcpr_l3if_agent_disable_cli, dhcpr_l3if_agent_disable_cmd, "no ip dhcp relay-agent",
      NO_STR IP_STR DHCP_STR AGENT_STR)
{
    interface *ifp = node_interface(vty);
    if (!ifp || !dhcpr_relay_is_enable_on_interface(ifp)) return no_relay_here(vty);
    dhcpr_interface_disable(ifp);
    return CMD_SUCCESS;
}

DEFUN(ipv6_dhcpr_l3if_agent_enable_cli, ipv6_dhcpr_l3if_agent_enable_cmd, "ip dhcpv6 relay-agent",
      IP_STR DHCPV6_STR AGENT_STR)
{
    interface *ifp = node_interface(vty);
    return agent_enable(vty, ifp, ifp ? if_v6_type(ifp) : 0, ipv6_dhcpr_interface_enable);
}

DEFUN(ipv6_dhcpr_l3if_agent_disable_cli, ipv6_dhcpr_l3if_agent_disable_cmd, "no ip dhcpv6 relay-agent",
      NO_STR IP_STR DHCPV6_STR AGENT_STR)
{
    interface *ifp = node_interface(vty);
    if (!ifp || !dhcpv6r_relay_is_enable_on_interface(ifp)) return no_relay_here(vty);
    ipv6_dhcpr_interface_disable(ifp);
    return CMD_SUCCESS;
}

DEFUN(dhcpr_l3if_add_server_cli, dhcpr_l3if_add_server_cmd, "ip dhcp relay-server-address A.B.C.D",
      IP_STR DHCP_STR SERVER_STR "IPv4 address of the server\n")
{
    in_addr server{};
    if (inet_pton(AF_INET, argv[0], &server) != 1) {
        vty_out(vty, "Malformed address: %s%s", argv[0], VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    interface *ifp = node_interface(vty);
    if (!ifp || !dhcpr_relay_is_enable_on_interface(ifp)) return no_relay_here(vty);
    int ret = dhcpr_add_helper(ifp, server.s_addr);
    if (ret == TAVO_IP_ERR) {
        vty_out(vty, "%% Not find interface can reach relay server %s %s", argv[0], VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    if (ret != 0) return no_relay_here(vty);
    return CMD_SUCCESS;
}

DEFUN(dhcpr_l3if_del_server_cli, dhcpr_l3if_del_server_cmd, "no ip dhcp relay-server-address A.B.C.D",
      NO_STR IP_STR DHCP_STR SERVER_STR "IPv4 address of the server\n")
{
    in_addr server{};
    if (inet_pton(AF_INET, argv[0], &server) != 1) {
        vty_out(vty, "Malformed address: %s%s", argv[0], VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    interface *ifp = node_interface(vty);
    if (!ifp || !dhcpr_relay_is_enable_on_interface(ifp)) return no_relay_here(vty);
    dhcpr_del_helper(ifp, server.s_addr);
    return CMD_SUCCESS;
}

DEFUN(ipv6_dhcpr_l3if_add_server_cli, ipv6_dhcpr_l3if_add_server_cmd, "ip dhcpv6 relay-server-address X:X::X:X",
      IP_STR DHCPV6_STR SERVER_STR "IPv6 address of the server\n")
{
    in6_addr server{};
    if (inet_pton(AF_INET6, argv[0], &server) != 1) {
        vty_out(vty, "Malformed address: %s%s", argv[0], VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    interface *ifp = node_interface(vty);
    if (!ifp || !dhcpv6r_relay_is_enable_on_interface(ifp)) return no_relay_here(vty);
    // Told, not refused: these are answered with success.
    if (IN6_IS_ADDR_UNSPECIFIED(&server)) {
        vty_out(vty, "the address  %s is unspecified ,can not be a dhcpv6 server ip %s", argv[0], VTY_NEWLINE);
        return CMD_SUCCESS;
    }
    if (IN6_IS_ADDR_LOOPBACK(&server)) {
        vty_out(vty, "the address  %s is loopback,can not be a dhcpv6 server ip %s", argv[0], VTY_NEWLINE);
        return CMD_SUCCESS;
    }
    if (server.s6_addr[0] == 255) {
        vty_out(vty, "the address %s is multicast ,can not be a dhcpv6 server ip%s", argv[0], VTY_NEWLINE);
        return CMD_SUCCESS;
    }
    int ret = ipv6_dhcpr_add_helper(ifp, server);
    if (ret == TAVO_IP_ERR) {
        vty_out(vty, "%% Not find interface can reach relay server %s %s", argv[0], VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    if (ret != 0) return no_relay_here(vty);
    return CMD_SUCCESS;
}

DEFUN(ipv6_dhcpr_l3if_del_server_cli, ipv6_dhcpr_l3if_del_server_cmd, "no ip dhcpv6 relay-server-address X:X::X:X",
      NO_STR IP_STR DHCPV6_STR SERVER_STR "IPv6 address of the server\n")
{
    in6_addr server{};
    int parsed = inet_pton(AF_INET6, argv[0], &server);
    if (parsed != 1) {
        vty_out(vty, "Malformed address: %d %s%s", parsed, argv[0], VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    interface *ifp = node_interface(vty);
    if (!ifp || !dhcpv6r_relay_is_enable_on_interface(ifp)) return no_relay_here(vty);
    ipv6_dhcpr_del_helper(ifp, server);
    return CMD_SUCCESS;
}

// -------------------------------------------------------------- shows ----

DEFUN(show_dhcpr_cli, show_dhcpr_cmd, "show ip dhcp-relay", SHOW_STR IP_STR RELAY_STR)
{
    if (dhcp_relay_is_enable())
        vty_out(vty, " dhcp-relay is enable %s", VTY_NEWLINE);
    else
        vty_out(vty, " dhcp-relay is disable %s", VTY_NEWLINE);
    return CMD_SUCCESS;
}

DEFUN(show_dhcpr_server_cli, show_dhcpr_server_cmd, "show ip dhcp-relay server-address",
      SHOW_STR IP_STR RELAY_STR "Servers of every relay interface\n")
{
    vty_out(vty, " current dhcp relay interface %d %s", int(g_dhcpr_vlanif_count), VTY_NEWLINE);
    for (interface *ifp = if_first(); ifp; ifp = if_next(ifp)) {
        const dhcpr_t *dhcpr = dhcpr_info_get_by_interface(ifp);
        if (!dhcpr) continue;
        char mac[16];
        vty_out(vty, "interface %s ip %s mac %s %s", ifp->name, addr_text(dhcpr->local_ipaddr).s,
                tavo_mac2str(dhcpr->local_mac, mac), VTY_NEWLINE);
        server_lines(vty, dhcpr);
    }
    return CMD_SUCCESS;
}

DEFUN(show_dhcpr_interface_brief_cli, show_dhcpr_interface_brief_cmd, "show ip dhcp-relay interface",
      SHOW_STR IP_STR RELAY_STR INTERFACE_STR)
{
    if (!dhcp_relay_is_enable()) {
        vty_out(vty, " dhcp-relay is disable %s", VTY_NEWLINE);
        return CMD_SUCCESS;
    }
    vty_out(vty, " Interface     Major IP           Relay Enable        Relay Server %s", VTY_NEWLINE);
    vty_out(vty, "%s%s", std::string(87, '=').c_str(), VTY_NEWLINE);
    for (interface *ifp = if_first(); ifp; ifp = if_next(ifp))
        if (std::strncmp(ifp->name, "vlanif", 6) == 0) brief_rows(vty, ifp);
    return CMD_SUCCESS;
}

DEFUN(show_dhcpr_interface_detail_cli, show_dhcpr_interface_detail_cmd, "show ip dhcp-relay interface IFNAME",
      SHOW_STR IP_STR RELAY_STR INTERFACE_STR "Interface name\n")
{
    interface *ifp = if_lookup_by_name(argv[0]);
    if (!ifp) {
        vty_out(vty, "%% interface %s not existed. %s", argv[0], VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    detail_lines(vty, ifp);
    return CMD_SUCCESS;
}

// ------------------------------------------------------------ writers ----

int dhcpr_global_config_write(vty *vty)
{
    if (!dhcp_relay_is_enable()) return 0;
    vty_out(vty, "!%s", VTY_NEWLINE);
    vty_out(vty, "ip dhcp-relay %s", VTY_NEWLINE);
    vty_out(vty, "!%s", VTY_NEWLINE);
    return 0;
}

int dhcpr_if_config_write(vty *vty, interface *ifp)
{
    if (!ifp) return 0;
    // The agents first: a server line is refused until its agent is on.
    if (if_v4_type(ifp) == DHCP_IF_TYPE_RELAY) vty_out(vty, " ip dhcp relay-agent %s", VTY_NEWLINE);
    if (if_v6_type(ifp) == DHCP_IF_TYPE_RELAY) vty_out(vty, " ip dhcpv6 relay-agent %s", VTY_NEWLINE);
    const dhcpr_t *dhcpr = dhcpr_info_get_by_interface(ifp);
    if (!dhcpr) return 0;
    for (const relay_server_info_t *s : dhcpr->server_list) {
        if (s->server_ip.family == AF_INET)
            vty_out(vty, " ip dhcp relay-server-address %s%s", addr_text(s->server_ip).s, VTY_NEWLINE);
        else if (s->server_ip.family == AF_INET6)
            vty_out(vty, " ip dhcpv6 relay-server-address %s%s", addr_text(s->server_ip).s, VTY_NEWLINE);
    }
    return 0;
}

// -------------------------------------------------------- registration ----

namespace {
cmd_node dhcpr_node = {DHCPR_NODE, "", 1};
}  // namespace

void dhcpr_vty_init()
{
    install_node(&dhcpr_node, dhcpr_global_config_write);
    install_default(DHCPR_NODE);

    install_element(CONFIG_NODE, &dhcpr_enable_cmd);
    install_element(CONFIG_NODE, &dhcpr_disable_cmd);

    static const cmd_element *const iface[] = {
        &dhcpr_l3if_agent_enable_cmd,      &dhcpr_l3if_agent_disable_cmd,   &ipv6_dhcpr_l3if_agent_enable_cmd,
        &ipv6_dhcpr_l3if_agent_disable_cmd, &dhcpr_l3if_add_server_cmd,     &dhcpr_l3if_del_server_cmd,
        &ipv6_dhcpr_l3if_add_server_cmd,   &ipv6_dhcpr_l3if_del_server_cmd,
    };
    for (const cmd_element *c : iface) install_element(INTERFACE_NODE, c);

    static const cmd_element *const shows[] = {
        &show_dhcpr_cmd, &show_dhcpr_server_cmd, &show_dhcpr_interface_brief_cmd, &show_dhcpr_interface_detail_cmd,
    };
    for (const cmd_element *c : shows) {
        install_element(ENABLE_NODE, c);
        install_element(CONFIG_NODE, c);
    }
}
