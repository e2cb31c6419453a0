// Fuzz target: one forwarding-plane message, as the channel hands it to the
// daemon, through the intake (direct and deferred), the layer-2 snooping path
// under a configuration the input chooses, the frame parser and the DHCPv4
// option codec. The binding table carries over from input to input.
//
// Input: a whole channel message (16-byte header, then the payload). The
// receiver ignores nlmsg_pid and nlmsg_seq on packets, so they steer the run:
//   nlmsg_pid bit 0  all debugging categories on (dump and trace paths)
//   nlmsg_pid bit 1  also deliver through the deferred packet queue
//   nlmsg_pid bits 8-31  the snooping configuration (apply_config)
//   nlmsg_seq        the codes and values the option builder appends
// Set FUZZ_INTAKE_LOG in the environment to see the daemon's log lines.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "devlib/ifindex.h"
#include "devlib/uif.h"
#include "devlib/uvlan.h"
#include "dhcp/dhcp_client.h"
#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_intake.h"
#include "dhcp/dhcp_ipsg.h"
#include "dhcp/dhcp_option82.h"
#include "dhcp/dhcp_snoop.h"
#include "dhcp/dhcp_opt.h"
#include "dhcp/dhcp_pkt.h"
#include "lib/log.h"
#include "platform/hal_msg.h"
#include "platform/st_packet.h"

namespace {

enum : std::uint8_t { CTL_DEBUG = 1, CTL_QUEUE = 2 };

// The client the "debug dhcp client" switch watches; one seed uses this MAC.
constexpr std::uint8_t MONITORED_MAC[6] = {0x00, 0x0e, 0xc6, 0x00, 0x00, 0x02};

// An invariant of the codec broke: let the fuzzer record the input.
#define FUZZ_CHECK(cond) \
    do {                 \
        if (!(cond)) std::abort(); \
    } while (0)

// Exact-size heap copy, so that a read one byte past the end is reported.
std::unique_ptr<std::uint8_t[]> heap_copy(const std::uint8_t *data, std::size_t n)
{
    std::unique_ptr<std::uint8_t[]> p(new std::uint8_t[n ? n : 1]);
    if (n) std::memcpy(p.get(), data, n);
    return p;
}

std::uint32_t g_now = 1000;
std::uint32_t fuzz_clock() { return g_now; }

uif_t *add_port(int type, int slot, int port, int subport)
{
    std::uint32_t ifindex = st_ifindex_gen_by_phyinfo(type, 1, slot, 0, port, subport);
    if (!ifindex) return nullptr;
    uif_t *ifp = uif_get_or_create(ifindex, true);
    char name[32];
    if (st_get_ifname_by_ifindex(ifindex, name, sizeof name) == 0) uif_set_name(ifp, name);
    ifp->status = 1;
    ifp->admin = 1;
    dhcp_port_init(ifp);
    return ifp;
}

uif_t *g_uplink;
uif_t *g_onu;
const std::uint16_t FUZZ_VLANS[] = {1, 100, 200};

// The configuration bits of nlmsg_pid, from bit 8 up:
//   0 global snooping   1 VLAN snooping    2 option 82 (global and VLAN)
//   3-5 circuit-id form (normal, sysname, user, profile, onu auth)
//   6 remote-id text    7-8 client policy (replace, keep, drop)
//   9 IP source guard   10 uplink trusted  11 ONU port trusted
//   12 session limit 5  13 age out everything after the message
void apply_config(std::uint32_t bits)
{
    auto on = [bits](int bit) { return int(bits >> bit & 1); };
    dhcp_snoop_enable_set(on(0));
    dhcp_op82_enable(on(2));
    dhcp_snoop_set_client_op82_policy(int(bits >> 7 & 3) % 3);
    dhcp_set_max_session_id(on(12) ? 5 : DHCP_MAX_SESSION_DEFAULT);
    static const char *const circuit_text[] = {nullptr, nullptr, "fuzz-circuit", "P1", nullptr};
    int circuit = int(bits >> 3 & 7) % 5;
    for (std::uint16_t vid : FUZZ_VLANS) {
        uvlan_entry_t *vlan = vlan_get_entry(vid);
        dhcp_vlan_snoop_set(vlan, on(1));
        dhcp_vlan_op82_set(vlan, on(2));
        dhcp_vlan_op82_circuitid_set(vlan, circuit, circuit_text[circuit]);
        dhcp_vlan_op82_remoteid_set(vlan, on(6) ? DHCP_OPTION_USER : DHCP_OPTION_NORMAL, on(6) ? "fuzz-remote" : nullptr);
        dhcp_vlan_ipverify_set(vlan, on(9));
    }
    dhcp_port_trust_set(g_uplink, on(10));
    dhcp_port_trust_set(g_onu, on(11));
}

// Every lookup the daemon makes on a received message, with the answers
// cross-checked: values lie inside the message, the length variant agrees.
void check_lookup(bytes_view msg, int code)
{
    const std::uint8_t *p = dhcp_get_option(msg, code);
    int len = dhcp_get_option_lengh(msg, code);
    if (p) {
        FUZZ_CHECK(p >= msg.data() && p + len <= msg.data() + msg.size());
    } else {
        FUZZ_CHECK(len == 0);
    }
}

void exercise_getters(bytes_view msg, bool all_codes)
{
    if (all_codes)
        for (int code = 0; code < 256; ++code) check_lookup(msg, code);
    static const int codes[] = {DHCP_SUBNET,     DHCP_ROUTER,     DHCP_HOST_NAME, DHCP_REQUESTED_IP,
                                DHCP_LEASE_TIME, DHCP_SERVER_ID,  DHCP_T1,        DHCP_T2,
                                DHCP_VENDOR,     DHCP_CLIENT_ID,  DHCP_AGENT_OPTIONS};
    for (int code : codes) {
        if (!all_codes) check_lookup(msg, code);
        (void)dhcp_pkt_get_option_integer(msg, code);
        (void)dhcp_pkt_get_option_ip(msg, code);
        (void)dhcp_pkt_get_option_mac(msg, code);
        const char *s = dhcp_pkt_get_option_string(msg, code);
        FUZZ_CHECK(std::strlen(s) < 128);
    }
    (void)dhcp_get_op1_subnet(msg);
    (void)dhcp_get_op3_route_ip(msg);
    (void)dhcp_get_op50_request_ip(msg);
    (void)dhcp_get_op54_dhcp_server(msg);
    (void)dhcp_get_op51_lease_time(msg);
    (void)dhcp_get_op58_renewal_time(msg);
    (void)dhcp_get_op59_rebind_time(msg);
    (void)dhcp_get_op12_host_name(msg);
    (void)dhcp_get_op60_vendor(msg);
    (void)dhcp_get_op61_client_id(msg);
    int type = dhcp_get_msg_type(msg);
    (void)dhcp_msg_type_str(type);
    (void)dhcp_check_msg_type(type, 0);
    if (msg.size() > DHCP_OFF_OPTIONS) (void)dhcp_end_option(msg.subspan(DHCP_OFF_OPTIONS));
    dhcp_dump_packet(0, msg, static_cast<int>(msg.size()));
    dhcp_dump_option(0, msg);
}

// One append on `buf`; on success only the option area up to the build
// limit may change, and the area then ends right after the new option.
void try_add(bytes_span buf, bool simple, std::uint8_t code, std::uint32_t value, bytes_view tlv)
{
    auto before = heap_copy(buf.data(), buf.size());
    bytes_view opts_before =
        buf.size() > DHCP_OFF_OPTIONS
            ? bytes_view(before.get() + DHCP_OFF_OPTIONS,
                         std::min<std::size_t>(DHCP_OPTIONS_BUILD_MAX, buf.size() - DHCP_OFF_OPTIONS))
            : bytes_view();
    int end = dhcp_end_option(opts_before);
    int rc = simple ? dhcp_add_simple_option(buf, code, value) : dhcp_add_binary_option(buf, tlv);
    if (rc != 0) {
        FUZZ_CHECK(std::memcmp(before.get(), buf.data(), buf.size()) == 0);
        return;
    }
    FUZZ_CHECK(end >= 0);
    std::size_t first = DHCP_OFF_OPTIONS + std::size_t(end);
    std::size_t limit = std::min<std::size_t>(buf.size(), DHCP_OFF_OPTIONS + DHCP_OPTIONS_BUILD_MAX);
    FUZZ_CHECK(std::memcmp(before.get(), buf.data(), first) == 0);
    if (buf.size() > limit) FUZZ_CHECK(std::memcmp(before.get() + limit, buf.data() + limit, buf.size() - limit) == 0);
    std::uint8_t added = buf[first];
    if (added != DHCP_PADDING && added != DHCP_END) {
        bytes_span opts = buf.subspan(DHCP_OFF_OPTIONS, limit - DHCP_OFF_OPTIONS);
        std::size_t optlen = std::size_t(buf[first + 1]) + 2;
        FUZZ_CHECK(dhcp_end_option(opts) == end + static_cast<int>(optlen));
    }
}

// The builder's appends, on the message at its received size and in a whole
// message buffer as the daemon builds them.
void exercise_builders(bytes_view msg, const std::uint8_t knobs[4])
{
    static const std::uint8_t simple_codes[] = {DHCP_SUBNET, DHCP_ROUTER, DHCP_LEASE_TIME, DHCP_SERVER_ID,
                                                DHCP_REQUESTED_IP, DHCP_MESSAGE_TYPE, DHCP_MAX_SIZE, 0x02, 0x0d};
    std::uint32_t value = (std::uint32_t(knobs[0]) << 24) | (std::uint32_t(knobs[1]) << 16) |
                          (std::uint32_t(knobs[2]) << 8) | knobs[3];
    std::uint8_t code = simple_codes[knobs[1] % sizeof simple_codes];
    // A TLV taken from the tail of the message: code, length, value.
    std::size_t tlv_len = std::min<std::size_t>(msg.size(), std::size_t(knobs[2]) + 2);
    auto tlv = heap_copy(msg.data() + msg.size() - tlv_len, tlv_len);
    bytes_view tlv_view(tlv.get(), tlv_len);

    auto exact = heap_copy(msg.data(), msg.size());
    bytes_span exact_span(exact.get(), msg.size());
    try_add(exact_span, true, code, value, {});
    try_add(exact_span, false, 0, 0, tlv_view);

    auto whole = std::make_unique<std::uint8_t[]>(DHCP_PACKET_SIZE);
    std::memcpy(whole.get(), msg.data(), std::min<std::size_t>(msg.size(), DHCP_PACKET_SIZE));
    bytes_span whole_span(whole.get(), DHCP_PACKET_SIZE);
    try_add(whole_span, true, code, value, {});
    try_add(whole_span, true, knobs[3], value, {});
    try_add(whole_span, false, 0, 0, tlv_view);
    exercise_getters(whole_span, false);
}

// The DHCPv4 message of the frame when it parses, else the payload itself.
void exercise_codec(const std::uint8_t *payload, std::size_t payload_len, const std::uint8_t knobs[4])
{
    hal_msg_pkt_t m{};
    if (hal_msg_pkt_decode(bytes_view(payload, payload_len), m)) {
        auto frame = heap_copy(m.data, m.len);
        dhcp_l2_pkt_t pkt{};
        pkt.l2fwd_info.rx_ifindex = m.ifindex;
        pkt.l2fwd_info.rx_vlanid = m.fwd_info.vid;
        pkt.raw_packet = frame.get();
        pkt.raw_packet_len = m.len;
        pkt.raw_buf_len = m.len;
        if (dhcp_parse_l2_pkt(&pkt) == 0) {
            dhcp_check_client_debug_end();
            FUZZ_CHECK(pkt.raw_packet_len <= m.len);
            if (pkt.eth_ip_proto == ST_ETH_P_IPV4) {
                bytes_view msg = dhcp_l2_message(&pkt);
                FUZZ_CHECK(msg.data() >= frame.get() && msg.data() + msg.size() <= frame.get() + m.len);
                auto copy = heap_copy(msg.data(), msg.size());
                bytes_view exact(copy.get(), msg.size());
                exercise_getters(exact, true);
                exercise_builders(exact, knobs);
                return;
            }
        }
        dhcp_check_client_debug_end();
    }
    auto copy = heap_copy(payload, payload_len);
    bytes_view exact(copy.get(), payload_len);
    exercise_getters(exact, true);
    exercise_builders(exact, knobs);
}

}  // namespace

// The records hung off the device tables are the daemon's to free; without
// this the tables' own destruction at exit would show them as leaks.
static void teardown()
{
    dhcp_client_tree_destroy();
    while (const dhcp_ip_souce_client_t *e = dhcp_ipSource_client_first()) {
        std::uint8_t mac[6];
        std::memcpy(mac, e->mac, 6);
        if (dhcp_ipSource_delete_client(mac, e->vid) != 0) break;
    }
    for (std::uint16_t vid : FUZZ_VLANS) dhcp_vlan_free(vlan_get_entry(vid));
    for (uif_t *pif = uif_first(); pif; pif = uif_next(pif)) dhcp_port_deinit(pif);
    for (int id = 1; id <= DHCP_OPTION_PROFILE_MAX; ++id) dhcp_option_free_profile(id);
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // No openzlog, no file: log lines are formatted and dropped, unless
    // FUZZ_INTAKE_LOG is set to follow a reproducer on stderr.
    zlog_set_file(nullptr);
    zlog_set_stderr(std::getenv("FUZZ_INTAKE_LOG") != nullptr);
    uif_init();
    uvlan_init();
    for (std::uint16_t vid : FUZZ_VLANS) {
        uvlan_create(vid);
        dhcp_vlan_init(vid);
    }
    dhcp_snoop_init();
    dhcp_client_set_clock(fuzz_clock);
    g_uplink = add_port(PORT_TYPE_GE, 1, 1, 0);  // ge1/1/1, the seeds' receive port
    add_port(PORT_TYPE_GE, 1, 2, 0);
    add_port(PORT_TYPE_XE, 9, 1, 0);
    add_port(PORT_TYPE_GPON, 2, 1, 0);
    g_onu = add_port(PORT_TYPE_GONU, 2, 1, 5);  // gonu1/2/1:5
    int profile = dhcp_option_get_free_profile_id();
    dhcp_option_initial_profile(profile, "P1");
    dhcp_option_profile_add_info(profile, 1, DHCP_OPTION_TAG_VARIABLE, "sn", DHCP_OPTION_VAR_SN);
    dhcp_option_profile_add_info(profile, 2, DHCP_OPTION_TAG_DELIMITER, "/", DHCP_OPTION_VAR_FIX_STRING);
    dhcp_option_profile_add_info(profile, 3, DHCP_OPTION_TAG_VARIABLE, "onu", DHCP_OPTION_VAR_ONU);
    std::atexit(teardown);
    std::uint32_t trunk = st_ifindex_gen_by_logicinfo(PORT_TYPE_TRUNK, 1);
    if (trunk) uif_set_name(uif_get_or_create(trunk, true), "trunk1");
    dhcp_set_client_debug(MONITORED_MAC);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    hal_msg_hdr_t h{};
    if (!hal_msg_hdr_decode(bytes_view(data, size), h)) return 0;
    // The channel drops a message shorter than its header; it never hands on
    // more bytes than it received, so a longer claim is cut to the input.
    if (h.nlmsg_len < HAL_MSG_HDR_LEN) return 0;
    std::uint32_t len = static_cast<std::uint32_t>(std::min<std::size_t>(h.nlmsg_len, size));
    std::uint8_t ctl = static_cast<std::uint8_t>(h.nlmsg_pid & 0xff);
    std::uint8_t knobs[4] = {static_cast<std::uint8_t>(h.nlmsg_seq), static_cast<std::uint8_t>(h.nlmsg_seq >> 8),
                             static_cast<std::uint8_t>(h.nlmsg_seq >> 16), static_cast<std::uint8_t>(h.nlmsg_seq >> 24)};

    g_dhcp_debug = (ctl & CTL_DEBUG) ? DHCP_DEBUG_ALL : 0;
    apply_config(h.nlmsg_pid >> 8);

    // As the channel delivers it: the payload starts after the header, the
    // length is the whole message's, and the payload is writable.
    auto msg = heap_copy(data, len);
    dhcp_nl_msg(h.nlmsg_type, msg.get() + HAL_MSG_HDR_LEN, len);

    if ((ctl & CTL_QUEUE) && h.nlmsg_type == HAL_MSG_TYPE_PKT) {
        auto again = heap_copy(data, len);
        // A drain run over its time budget keeps the record for the next run.
        if (dhcp_pkt_enqueue(again.get() + HAL_MSG_HDR_LEN, len) == 0)
            for (int run = 0; run < 16 && !g_dhcp_pkt_list.empty(); ++run) dhcp_pkt_process_timer(nullptr);
    }

    exercise_codec(data + HAL_MSG_HDR_LEN, len - HAL_MSG_HDR_LEN, knobs);

    FUZZ_CHECK(dhcp_snooping_get_client_count() <= DHCP_CLIENT_TREE_MAX);
    FUZZ_CHECK(dhcp_session_list_count() <= DHCP_MAX_SESSION_DEFAULT);
    FUZZ_CHECK(dhcp_ipSource_client_info_count() <= DHCP_IP_SOURCE_MAX);
    if (h.nlmsg_pid >> 21 & 1) {
        g_now += 100000;  // past every lease but the longest
        dhcp_snooping_aging_client_info();
        for (const dhcp_client_info_t *c = dhcp_client_info_top(); c; c = dhcp_client_info_next(c))
            FUZZ_CHECK(g_now - c->v4_last_update_time < c->v4_lease_time ||
                       g_now - c->v6_last_update_time < c->v6_lease_time);
    }

    g_dhcp_debug = 0;
    return 0;
}
