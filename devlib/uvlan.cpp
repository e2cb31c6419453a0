#include "devlib/uvlan.h"

#include <map>
#include <memory>

#include "platform/errcode.h"

namespace {

std::map<std::uint16_t, std::unique_ptr<uvlan_entry_t>> g_vlans;

bool vid_ok(unsigned vid) { return vid >= 1 && vid <= 4094; }

} // namespace

// The default VLAN exists from the start, as on any switch; the device
// manager's replay only adds to it.
void uvlan_init()
{
    uvlan_clear();
    uvlan_create(1);
}

void uvlan_clear() { g_vlans.clear(); }

int uvlan_create(std::uint16_t vid)
{
    if (!vid_ok(vid)) return TAVO_PARAM;
    auto &slot = g_vlans[vid];
    if (slot) return TAVO_EXISTS;
    slot = std::make_unique<uvlan_entry_t>();
    slot->vid = vid;
    return 0;
}

int uvlan_del(std::uint16_t vid)
{
    auto it = g_vlans.find(vid);
    if (it == g_vlans.end()) return TAVO_NOT_FOUND;
    g_vlans.erase(it);
    // A deleted VLAN has no members; a re-created one starts empty.
    for (uif_t *p = uif_first(); p; p = uif_next(p)) {
        if (!p->vlan_info) continue;
        uvlan_bitmap_clear(p->vlan_info->tagged, vid);
        uvlan_bitmap_clear(p->vlan_info->untagged, vid);
    }
    return 0;
}

bool uvlan_is_exist(std::uint16_t vid) { return g_vlans.count(vid) != 0; }

uvlan_entry_t *vlan_get_entry(std::uint16_t vid)
{
    auto it = g_vlans.find(vid);
    return it == g_vlans.end() ? nullptr : it->second.get();
}

std::size_t uvlan_count() { return g_vlans.size(); }

int uvlan_port_link(uif_t *port, const std::uint8_t *bitmap, int tag)
{
    if (!port || !bitmap) return TAVO_PARAM;
    if (!port->vlan_info) return TAVO_NOT_FOUND;
    vlan_info_t *vi = port->vlan_info;
    // A VLAN is either tagged or untagged on a port, never both.
    std::uint8_t *set = tag ? vi->untagged : vi->tagged;
    std::uint8_t *other = tag ? vi->tagged : vi->untagged;
    for (int vid = st_get_min_vlan_in_bitmap(bitmap); vid >= 0;
         vid = st_get_next_vlan_in_bitmap(bitmap, vid)) {
        if (!vid_ok(static_cast<unsigned>(vid))) continue;
        uvlan_bitmap_set(set, static_cast<unsigned>(vid));
        uvlan_bitmap_clear(other, static_cast<unsigned>(vid));
    }
    return 0;
}

int uvlan_port_unlink(uif_t *port, const std::uint8_t *bitmap, int tag)
{
    if (!port || !bitmap) return TAVO_PARAM;
    if (!port->vlan_info) return TAVO_NOT_FOUND;
    std::uint8_t *set = tag ? port->vlan_info->untagged : port->vlan_info->tagged;
    for (int vid = st_get_min_vlan_in_bitmap(bitmap); vid >= 0;
         vid = st_get_next_vlan_in_bitmap(bitmap, vid))
        uvlan_bitmap_clear(set, static_cast<unsigned>(vid));
    return 0;
}

bool uvlan_is_in_port(const uif_t *port, std::uint16_t vid, int tag)
{
    if (!port || !port->vlan_info) return false;
    return uvlan_bitmap_test(tag ? port->vlan_info->untagged : port->vlan_info->tagged, vid);
}
