#include "devlib/uif.h"

#include <cstring>
#include <map>
#include <memory>
#include <string>

#include "platform/errcode.h"

namespace {

// The port record owns its VLAN membership.
struct uif_rec {
    uif_t ifp{};
    std::unique_ptr<vlan_info_t> vlan;
};

std::map<std::uint32_t, std::unique_ptr<uif_rec>> g_ports;
std::map<std::string, uif_t *, std::less<>> g_port_names;

void unlink_name(uif_t *ifp)
{
    auto it = g_port_names.find(std::string_view(ifp->name));
    if (it != g_port_names.end() && it->second == ifp) g_port_names.erase(it);
}

} // namespace

void uif_init() { uif_clear(); }

void uif_clear()
{
    g_port_names.clear();
    g_ports.clear();
}

uif_t *uif_lookup_by_index(std::uint32_t ifindex)
{
    auto it = g_ports.find(ifindex);
    return it == g_ports.end() ? nullptr : &it->second->ifp;
}

uif_t *uif_lookup_by_name(const char *name)
{
    if (!name) return nullptr;
    auto it = g_port_names.find(std::string_view(name));
    return it == g_port_names.end() ? nullptr : it->second;
}

uif_t *uif_first() { return g_ports.empty() ? nullptr : &g_ports.begin()->second->ifp; }

uif_t *uif_next(const uif_t *ifp)
{
    if (!ifp) return nullptr;
    auto it = g_ports.upper_bound(ifp->ifindex);
    return it == g_ports.end() ? nullptr : &it->second->ifp;
}

std::size_t uif_count() { return g_ports.size(); }

uif_t *uif_get_or_create(std::uint32_t ifindex, bool with_vlan_info)
{
    auto &slot = g_ports[ifindex];
    if (!slot) {
        slot = std::make_unique<uif_rec>();
        slot->ifp.ifindex = ifindex;
    }
    if (with_vlan_info && !slot->vlan) {
        slot->vlan = std::make_unique<vlan_info_t>();
        slot->ifp.vlan_info = slot->vlan.get();
    }
    return &slot->ifp;
}

void uif_set_name(uif_t *ifp, const char *name)
{
    if (!ifp || !name) return;
    unlink_name(ifp);
    std::size_t n = strnlen(name, sizeof ifp->name - 1);
    std::memcpy(ifp->name, name, n);
    ifp->name[n] = '\0';
    if (n) g_port_names[std::string(ifp->name)] = ifp;
}

int uif_delete(std::uint32_t ifindex)
{
    auto it = g_ports.find(ifindex);
    if (it == g_ports.end()) return TAVO_NOT_FOUND;
    unlink_name(&it->second->ifp);
    g_ports.erase(it);
    return 0;
}
