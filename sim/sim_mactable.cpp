#include "sim/sim_mactable.h"

#include <algorithm>
#include <iterator>

std::uint64_t sim_mactable::key(std::uint16_t vid, const std::uint8_t mac[6])
{
    std::uint64_t k = vid & 0x0fff;
    for (int i = 0; i < 6; ++i) k = (k << 8) | mac[i];
    return k;
}

mac_learn_result sim_mactable::learn(std::uint16_t vid, const std::uint8_t mac[6],
                                     std::uint32_t bport, std::uint32_t rx_ifindex,
                                     std::uint64_t now_ms)
{
    static const std::uint8_t zero[6] = {};
    if ((mac[0] & 1) || std::equal(mac, mac + 6, zero)) return MAC_LEARN_IGNORED;
    auto it = table_.find(key(vid, mac));
    if (it != table_.end()) {
        bool moved = it->second.bport != bport || it->second.rx_ifindex != rx_ifindex;
        it->second = {bport, rx_ifindex, now_ms};
        return moved ? MAC_LEARN_MOVED : MAC_LEARN_REFRESH;
    }
    if (table_.size() >= cap_) return MAC_LEARN_FULL;
    table_.emplace(key(vid, mac), sim_mac_entry{bport, rx_ifindex, now_ms});
    return MAC_LEARN_NEW;
}

const sim_mac_entry *sim_mactable::lookup(std::uint16_t vid, const std::uint8_t mac[6]) const
{
    auto it = table_.find(key(vid, mac));
    return it == table_.end() ? nullptr : &it->second;
}

const sim_mac_entry *sim_mactable::lookup_any(const std::uint8_t mac[6], std::uint16_t *vid) const
{
    // Rare (address lookups by the module): a walk is enough.
    const std::uint64_t want = key(0, mac);
    for (auto &[k, e] : table_) {
        if ((k & 0xffffffffffffull) != want) continue;
        if (vid) *vid = static_cast<std::uint16_t>(k >> 48);
        return &e;
    }
    return nullptr;
}

std::size_t sim_mactable::age(std::uint64_t now_ms)
{
    std::size_t n = 0;
    for (auto it = table_.begin(); it != table_.end();) {
        if (now_ms >= it->second.seen_ms && now_ms - it->second.seen_ms >= age_ms_) {
            it = table_.erase(it);
            ++n;
        } else {
            ++it;
        }
    }
    return n;
}

std::size_t sim_mactable::flush_vlan(std::uint16_t vid)
{
    auto lo = table_.lower_bound(std::uint64_t(vid & 0x0fff) << 48);
    auto hi = table_.lower_bound(std::uint64_t((vid & 0x0fff) + 1) << 48);
    std::size_t n = static_cast<std::size_t>(std::distance(lo, hi));
    table_.erase(lo, hi);
    return n;
}

std::size_t sim_mactable::flush_port(std::uint32_t ifindex)
{
    std::size_t n = 0;
    for (auto it = table_.begin(); it != table_.end();) {
        if (it->second.bport == ifindex || it->second.rx_ifindex == ifindex) {
            it = table_.erase(it);
            ++n;
        } else {
            ++it;
        }
    }
    return n;
}

void sim_mactable::walk(const std::function<void(std::uint16_t, const std::uint8_t[6],
                                                 const sim_mac_entry &)> &fn) const
{
    for (auto &[k, e] : table_) {
        std::uint8_t mac[6];
        for (int i = 0; i < 6; ++i) mac[i] = static_cast<std::uint8_t>(k >> (8 * (5 - i)));
        fn(static_cast<std::uint16_t>(k >> 48), mac, e);
    }
}
