// Binding table at full capacity: clients learnt (DISCOVER), bound (ACK),
// looked up, aged and deleted per second, and bytes per binding, each beside
// a plain hash map of the same keys and record size measured in the same run.
// Bytes per binding are what the heap holds for the table once every client
// is bound (malloc's own headers and the table's reserved room included),
// and, finer, what the memory types count (usable sizes, no headers).
//
//   bench_bindings [clients]     (default: the table's capacity, 114688)
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <random>
#include <unordered_map>
#include <vector>

#include "devlib/ifindex.h"
#include "dhcp/dhcp_client.h"
#include "dhcp/dhcp_memory.h"
#include "dhcp/dhcp_opt.h"
#include "dhcp/dhcp_snoop.h"

namespace {

using bench_clock = std::chrono::steady_clock;

std::uint32_t g_now = 1000;
std::uint32_t bench_uptime() { return g_now; }

struct client_id {
    std::uint8_t mac[6];
    std::uint16_t vid;
    std::uint32_t onu;
    std::uint64_t key() const
    {
        std::uint64_t k = vid;
        for (std::uint8_t b : mac) k = (k << 8) | b;
        return k;
    }
};

// Clients spread over 16 VLANs, MACs random as a flood of real ones would be.
std::vector<client_id> make_clients(std::size_t n)
{
    std::mt19937_64 rng(7);
    std::unordered_map<std::uint64_t, bool> seen;
    std::vector<client_id> out;
    while (out.size() < n) {
        client_id c{};
        std::uint64_t r = rng();
        for (int i = 0; i < 6; ++i) c.mac[i] = std::uint8_t(r >> (8 * i));
        c.mac[0] &= 0xfe;
        c.vid = std::uint16_t(100 + (r >> 48) % 16);
        // 16 PON ports of 128 ONUs, about 56 clients behind each ONU.
        unsigned onu = unsigned(out.size() % 2048);
        c.onu = st_ifindex_gen_by_phyinfo(PORT_TYPE_GONU, 1, 2 + int(onu / 1024), 0, 1 + int(onu / 128 % 8),
                                          1 + int(onu % 128));
        if (seen.emplace(c.key(), true).second) out.push_back(c);
    }
    return out;
}

// A parsed DHCPv4 message of one client (BOOTP header, cookie, options).
struct message {
    std::vector<std::uint8_t> bytes;
    dhcp_l2_pkt_t pkt{};
    message(int op, int type, std::uint32_t lease)
    {
        bytes.assign(DHCP_FIXED_HDR_LEN, 0);
        bytes[DHCP_OFF_OP] = std::uint8_t(op);
        put_be32_at(bytes, DHCP_OFF_COOKIE, DHCP_MAGIC);
        bytes.insert(bytes.end(), {DHCP_MESSAGE_TYPE, 1, std::uint8_t(type)});
        bytes.insert(bytes.end(), {DHCP_LEASE_TIME, 4, std::uint8_t(lease >> 24), std::uint8_t(lease >> 16),
                                   std::uint8_t(lease >> 8), std::uint8_t(lease)});
        bytes.push_back(DHCP_END);
        pkt.dhcp_op_code = std::uint16_t(op);
        pkt.dhcp_msg_type = std::uint16_t(type);
        pkt.op51_lease_time = lease;
        pkt.l2fwd_info.rx_ifindex = 0x52201001;
        pkt.raw_packet = bytes.data();
        pkt.raw_packet_len = pkt.dhcp_msg_len = std::uint16_t(bytes.size());
    }
    const dhcp_l2_pkt_t *for_client(const client_id &c, std::uint32_t xid)
    {
        std::memcpy(pkt.dhcp_client_addr, c.mac, 6);
        std::memcpy(pkt.eth_src_mac, c.mac, 6);
        pkt.l2fwd_info.rx_vlanid = pkt.l2fwd_info.relay_vid = c.vid;
        pkt.l2fwd_info.rx_ifindex = c.onu;
        pkt.dhcp_curr_xid = xid;
        return &pkt;
    }
};

template <class F> double per_second(std::size_t n, F &&f)
{
    auto t0 = bench_clock::now();
    f();
    double s = std::chrono::duration<double>(bench_clock::now() - t0).count();
    return s > 0 ? double(n) / s : 0;
}

template <class F> double millis(F &&f)
{
    auto t0 = bench_clock::now();
    f();
    return std::chrono::duration<double, std::milli>(bench_clock::now() - t0).count();
}

void row(const char *what, double table, double reference, const char *unit)
{
    std::printf("%-34s %14.0f %14.0f  %s   (%.2fx)\n", what, table, reference, unit,
                reference > 0 ? table / reference : 0.0);
}

std::uint64_t tracked_bytes() { return MTYPE_DHCP_CLIENT.bytes + MTYPE_LINK_NODE.bytes; }

// Bytes the heap holds for the program: small chunks with their headers,
// and the large blocks malloc maps on its own (hash buckets, scan array).
std::uint64_t heap_bytes()
{
    struct mallinfo2 mi = mallinfo2();
    return mi.uordblks + mi.hblkhd;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

} // namespace

int main(int argc, char **argv)
{
    std::size_t n = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : std::size_t(DHCP_CLIENT_TREE_MAX);
    if (n == 0 || n > DHCP_CLIENT_TREE_MAX) n = DHCP_CLIENT_TREE_MAX;
    std::vector<client_id> clients = make_clients(n);
    std::vector<client_id> shuffled = clients;
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(11));
    message discover(BOOTREQUEST, DHCPDISCOVER, 0), ackmsg(BOOTREPLY, DHCPACK, 86400);
    std::unordered_map<std::uint64_t, dhcp_client_info_t *> ref;

    // The table is measured from before it exists: what it reserves for its
    // capacity is part of what the bindings cost.
    std::uint64_t heap0 = heap_bytes(), types0 = tracked_bytes();
    std::uint64_t client0 = MTYPE_DHCP_CLIENT.bytes, node0 = MTYPE_LINK_NODE.bytes;
    dhcp_client_set_clock(bench_uptime);
    if (!dhcp_client_tree_create(DHCP_CLIENT_TREE_MAX)) return 1;
    dhcp_set_max_session_id(std::uint32_t(n));  // every newcomer gets a session

    std::size_t created = 0;
    double add = per_second(n, [&] {
        for (const client_id &c : clients) created += dhcp_add_client_lease_info(1, discover.for_client(c, 1)) != nullptr;
    });
    std::size_t bound = 0;
    double upd = per_second(n, [&] {
        for (const client_id &c : shuffled) {
            ackmsg.pkt.dhcp_offer_ip = 0x0a000001;
            bound += dhcp_update_client_lease_info(c.vid, 1, ackmsg.for_client(c, 1)) != nullptr;
        }
    });
    // Bound clients hold no session: what is left is what the bindings cost.
    std::uint64_t heap_table = heap_bytes() - heap0, types_table = tracked_bytes() - types0;
    std::uint64_t client_bytes = MTYPE_DHCP_CLIENT.bytes - client0, node_bytes = MTYPE_LINK_NODE.bytes - node0;

    // The reference: the same keys and records in a hash map, nothing else.
    std::uint64_t heap1 = heap_bytes();
    ref.reserve(DHCP_CLIENT_TREE_MAX);
    double add_ref = per_second(n, [&] {
        for (const client_id &c : clients) {
            auto *r = static_cast<dhcp_client_info_t *>(std::calloc(1, sizeof(dhcp_client_info_t)));
            std::memcpy(r->mac, c.mac, 6);
            r->vid = c.vid;
            ref.emplace(c.key(), r);
        }
    });
    double upd_ref = per_second(n, [&] {
        for (const client_id &c : shuffled) {
            auto it = ref.find(c.key());
            if (it != ref.end()) {
                it->second->ip_addr = 0x0a000001;
                it->second->v4_lease_time = 86400;
            }
        }
    });
    std::uint64_t heap_ref = heap_bytes() - heap1;

    std::printf("binding table, %zu clients (capacity %d)\n", n, DHCP_CLIENT_TREE_MAX);
    std::printf("%-34s %14s %14s\n", "", "table", "unordered_map");
    row("add (DISCOVER, new client)", add, add_ref, "/s");
    row("update (ACK, bound)", upd, upd_ref, "/s");

    std::size_t found = 0;
    double look = per_second(n, [&] {
        for (const client_id &c : shuffled) found += dhcp_lookup_client_lease_info(c.mac, c.vid) != nullptr;
    });
    std::size_t found_ref = 0;
    double look_ref = per_second(n, [&] {
        for (const client_id &c : shuffled) found_ref += ref.count(c.key());
    });
    row("lookup (vlan, mac)", look, look_ref, "/s");

    // The 5-second ageing sweep over the full table, nothing old yet (the
    // steady state): the median of five, each five seconds later.
    std::vector<double> sweeps, sweeps_ref;
    std::size_t young = 0;
    for (int k = 0; k < 5; ++k) {
        g_now += 5;
        sweeps.push_back(millis([] { dhcp_snooping_aging_client_info(); }));
        young = 0;
        sweeps_ref.push_back(millis([&] {
            for (auto &kv : ref) young += g_now - kv.second->v4_last_update_time < kv.second->v4_lease_time;
        }));
    }
    double age_ms = median(sweeps), age_ref_ms = median(sweeps_ref);
    row("ageing sweep, nothing old (us)", age_ms * 1000, age_ref_ms * 1000, "us");
    if (young != ref.size()) std::printf("reference saw %zu young of %zu\n", young, ref.size());
    std::size_t after_ageing = dhcp_snooping_get_client_count();

    // Clearing the clients of one ONU (about 56): the port index versus a
    // scan. The best of four ONUs, so that the allocator's one-off
    // consolidation after the mass of freed sessions is not what is measured.
    double port_ms = 1e9, port_ref_ms = 1e9;
    for (int k = 0; k < 4; ++k) {
        std::uint32_t onu = clients[std::size_t(k)].onu;
        for (const client_id &c : clients)
            if (c.onu == onu) ref[c.key()]->client_ifindex = onu;
        port_ms = std::min(port_ms, millis([&] { dhcp_snooping_delete_client_info_by_port(onu); }));
        port_ref_ms = std::min(port_ref_ms, millis([&] {
            for (auto it = ref.begin(); it != ref.end();) {
                if (it->second->client_ifindex == onu) {
                    std::free(it->second);
                    it = ref.erase(it);
                } else {
                    ++it;
                }
            }
        }));
    }
    row("delete one ONU's clients (us)", port_ms * 1000, port_ref_ms * 1000, "us");

    std::size_t left = dhcp_snooping_get_client_count();
    double del = per_second(left, [&] {
        for (const client_id &c : shuffled)
            if (dhcp_lookup_client_lease_info(c.mac, c.vid)) dhcp_snooping_delete_client_info_by_vlan_mac(c.mac, c.vid);
    });
    double del_ref = per_second(ref.size(), [&] {
        for (const client_id &c : shuffled) {
            auto it = ref.find(c.key());
            if (it == ref.end()) continue;
            std::free(it->second);
            ref.erase(it);
        }
    });
    row("delete (vlan, mac)", del, del_ref, "/s");

    double per_heap = created ? double(heap_table) / double(created) : 0;
    double per_ref = n ? double(heap_ref) / double(n) : 0;
    std::printf("%-34s %14.0f %14.0f  bytes (%.2fx)\n", "memory per binding (heap)", per_heap, per_ref,
                per_ref > 0 ? per_heap / per_ref : 0.0);
    std::printf("%-34s %14.0f %14s  bytes: records %.0f, index nodes %.0f (record %zu)\n",
                "memory per binding (type counters)", created ? double(types_table) / double(created) : 0, "",
                created ? double(client_bytes) / double(created) : 0, created ? double(node_bytes) / double(created) : 0,
                sizeof(dhcp_client_info_t));
    std::printf("\ntargets: ageing sweep %.2f ms (min %.2f, max %.2f) < 20 ms: %s; heap per binding %.0f <= 1024: %s\n",
                age_ms, *std::min_element(sweeps.begin(), sweeps.end()), *std::max_element(sweeps.begin(), sweeps.end()),
                age_ms < 20 ? "met" : "MISSED", per_heap, per_heap <= 1024 ? "met" : "MISSED");
    std::printf("created %zu, bound %zu, found %zu/%zu, left after ageing %zu, at the end %u, sessions %u\n", created,
                bound, found, found_ref, after_ageing, dhcp_snooping_get_client_count(), dhcp_session_list_count());
    dhcp_client_tree_destroy();
    return 0;
}
