// The daemon snooping for real: configured through its shell, a client's
// exchange through the scripted forwarding plane, the binding it leaves, and
// the configuration surviving "write memory" and a restart.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "devlib/ifindex.h"
#include "platform/hal_msg.h"
#include "tests/support/daemon_proc.h"
#include "tests/support/fake_devmgr.h"
#include "tests/support/fake_fp.h"

namespace {

using bytes = std::vector<std::uint8_t>;

const std::uint32_t GE1 = st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 1, 1, 0, 1, 0);
const std::uint32_t ONU = st_ifindex_gen_by_phyinfo(PORT_TYPE_GONU, 1, 1, 0, 1, 5);
const std::uint8_t CLIENT[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const std::uint8_t SERVER[6] = {0x00, 0x99, 0x88, 0x77, 0x66, 0x55};
enum { IP = 18, UDP = 38, BOOTP = 46, OPTIONS = BOOTP + 240 };  // offsets in a frame tagged once

// The ones'-complement sum of 16-bit words, folded.
std::uint16_t sum16(bytes_view b, std::uint32_t sum = 0)
{
    for (std::size_t i = 0; i < b.size(); i += 2) sum += std::uint32_t(b[i] << 8 | (i + 1 < b.size() ? b[i + 1] : 0));
    while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
    return std::uint16_t(sum);
}

// A DHCP frame in VLAN 100: from the client (op 1, 68 -> 67) or the server
// (op 2, 67 -> 68, yiaddr 10.0.0.9, server id 10.0.0.1, lease 3600 s).
bytes dhcp_frame(int op, int type)
{
    bytes opts = {53, 1, std::uint8_t(type)};
    if (op == 2) opts.insert(opts.end(), {54, 4, 10, 0, 0, 1, 51, 4, 0x00, 0x00, 0x0e, 0x10});
    opts.push_back(255);
    bytes f(OPTIONS + opts.size(), 0);
    std::memset(f.data(), 0xff, 6);
    std::memcpy(&f[6], op == 1 ? CLIENT : SERVER, 6);
    put_be16_at(f, 12, 0x8100);
    put_be16_at(f, 14, 100);
    put_be16_at(f, 16, 0x0800);
    f[IP] = 0x45;
    put_be16_at(f, IP + 2, std::uint16_t(f.size() - IP));
    f[IP + 8] = 64;
    f[IP + 9] = 17;
    if (op == 2) std::memcpy(&f[IP + 12], "\x0a\x00\x00\x01", 4);
    std::memset(&f[IP + 16], 0xff, 4);
    put_be16_at(f, IP + 10, std::uint16_t(~sum16(bytes_view(f).subspan(IP, 20))));
    put_be16_at(f, UDP, op == 1 ? 68 : 67);
    put_be16_at(f, UDP + 2, op == 1 ? 67 : 68);
    put_be16_at(f, UDP + 4, std::uint16_t(f.size() - UDP));
    f[BOOTP] = std::uint8_t(op);
    f[BOOTP + 1] = 1;
    f[BOOTP + 2] = 6;
    put_be32_at(f, BOOTP + 4, 0x12345678);
    if (op == 2) std::memcpy(&f[BOOTP + 16], "\x0a\x00\x00\x09", 4);
    std::memcpy(&f[BOOTP + 28], CLIENT, 6);
    put_be32_at(f, BOOTP + 236, 0x63825363);
    std::copy(opts.begin(), opts.end(), f.begin() + OPTIONS);
    return f;
}

struct row {
    std::string line;
    int result;
    std::string output;
};

class DaemonSnoop : public ::testing::Test {
protected:
    void SetUp() override
    {
        dm.set_hostname("olt");
        dm.add_vlan(100);
        dm.add_port(GE1, st_ifname(GE1));
        dm.add_port(ONU, st_ifname(ONU));
        dm.port_add_vlan(GE1, 100);
        dm.set_onu_status(ONU, 1, "ABCD0005");
        ASSERT_TRUE(dm.start());
        fp.set_auto_reply(true);
        ASSERT_TRUE(fp.start(d.hal_path()));
        conf = d.dir() + "/dhcp.conf";
        ASSERT_TRUE(d.start(dm, {"-f", conf}));
        ASSERT_TRUE(fp.wait_registered(5000));
        ASSERT_TRUE(d.wait_replayed(1));
    }

    void transcript(const std::vector<row> &rows)
    {
        std::vector<std::string> lines;
        for (const row &r : rows) lines.push_back(r.line);
        std::vector<vty_reply> got = d.vty_session(lines);
        ASSERT_EQ(got.size(), rows.size());
        for (std::size_t i = 0; i < rows.size(); ++i) {
            EXPECT_EQ(got[i].output, rows[i].output) << rows[i].line;
            EXPECT_EQ(got[i].result, rows[i].result) << rows[i].line;
        }
    }

    std::string show(const std::string &cmd) { return d.vty('X', cmd).output; }

    // Packet messages the forwarding plane got since the last call, once n are there.
    std::vector<bytes> frames_out(std::size_t n, std::uint32_t *ifindex = nullptr)
    {
        std::vector<bytes> out;
        for (int waited = 0; waited < 3000 && out.size() < n; waited += 20) {
            out.clear();
            for (const fake_fp_msg &m : fp.received()) {
                hal_msg_pkt_t p{};
                if (m.hdr.nlmsg_type != 1 || !hal_msg_pkt_decode(m.payload(), p)) continue;
                out.emplace_back(p.data, p.data + p.len);
                if (ifindex) *ifindex = p.ifindex;
            }
            if (out.size() < n) std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        fp.clear_received();
        return out;
    }

    // Sends a frame and waits for the daemon's last packet line about it.
    void send(std::uint32_t port, const bytes &f, const std::string &logged)
    {
        std::size_t before = d.log_lines(logged).size();
        ASSERT_TRUE(fp.send_pkt(port, 100, f));
        ASSERT_TRUE(d.wait_log(logged, 5000, -1, before + 1)) << logged;
    }

    // "write memory", a restart with the saved file, the same configuration.
    void survives_restart()
    {
        std::string before = show("show running-config");
        EXPECT_EQ(d.vty('X', "write memory").result, 0);
        fp.clear_received();
        ASSERT_TRUE(d.start(dm, {"-f", conf}));
        ASSERT_TRUE(d.wait_replayed(2));
        EXPECT_EQ(show("show running-config"), before);
        EXPECT_TRUE(d.log_lines(conf + ":").empty()) << "a saved line failed: " << d.log_lines(conf + ":")[0];
    }

    fake_devmgr dm;
    fake_fp fp;
    daemon_proc d{DHCP_BIN, DHCPSH_BIN};
    std::string conf;
};

TEST_F(DaemonSnoop, CommandsRefusalsAndShows)
{
    const std::string profile = "% Profile name can't include space or character: &;/\\\"\n";
    transcript({
        {"configure terminal", 0, ""},
        {"ip dhcp information access-node-id string OLT-7", 104006, "dhcp-snooping is not enable\n"},
        {"ip dhcp-snooping", 0, ""},
        {"ip dhcp information access-node-id string " + std::string(64, 'x'), 104006,
         "Length of string should less than 63 \n"},
        {"no ip dhcp information access-node-id", 0, ""},
        {"ip dhcp information client-info k", 0, ""},
        {"ip dhcp information profile " + std::string(32, 'p'), 104006, "% Max proifle name is 31\n"},
        {"ip dhcp information profile a&b", 104006, profile},
        {"no ip dhcp information profile nope", 104006, "% Profile nope doesn't exist \n"},
        {"ip dhcp information profile P1", 0, ""},
        {"circuit-id index 3 variable p", 0, ""},
        {"circuit-id index 1 variable sl", 0, ""},
        {"circuit-id index 2 delimiter dot", 0, ""},
        {"circuit-id index 4 string a;b", 104006, "% String can't include space or character: &;/\\\"\n"},
        {"no circuit-id index 9", 104006, "% Index 9 not exist \n"},
        {"show ip dhcp information profile", 0,
         "ip dhcp information profile P1 \n circuit-id index 1 variable slot \n circuit-id index 2 delimiter dot \n"
         " circuit-id index 3 variable port \n circuit-id option format: {slot}.{port} \n"},
        {"vlan 300", 104006, "% Vlan 300 does not exist\n"},
        {"vlan 100", 0, ""},
        {"ip dhcp information circuit-id string ab", 104006, "% String length is between 3 and 63\n"},
        {"ip dhcp information circuit-id profile nope", 104006, "% Profile nope Not existed.\n"},
        {"ip dhcp information circuit-id profile P1", 0, ""},
        {"ip dhcpv6 option18 interface-id onu-auth", 104006,
         "please config [ip dhcpv6 option18] to enable option18 first \n"},
        {"ip verify source ip-address dynamic", 0, "You should enable ip dhcp-snooping first\n"},
        {"no ip dhcp information profile P1", 104006, "% Profile P1 is in use, can not delete. \n"},
        // Kept out of every node on purpose.
        {"ip dhcp-snooping vlan 100", 2, "% Unknown command.\n"},
        {"show ip dhcp-snooping statistics", 2, "% Unknown command.\n"},
        {"show ip dhcp-snooping ", 0,
         " DHCP V4 snooping : enable \n Option82         : disable \n Access-Node-ID   : GPON-OLT \n"
         " Remote id        :  \n"},
        {"show ip dhcp port", 0,
         "  interface        dhcp      trust        \n---------------------------------------------\n"
         "  ge1/1/1          support    un-trust    \n"},
        {"show ip dhcp vlan 100", 0,
         "  vlan     dhcp-snoop     ip verify       option82    circuit-id    dhcpv6-snoop     option18    option37\n"
         " 100       disable         dynamic          disable      profile P1      disable        disable         disable\n"},
        {"show ip dhcp vlan 300", 104006, "% Vlan not exist!\n"},
    });
    // The client policy and the access-node id are written only with option 82 on.
    EXPECT_EQ(show("show running-config"),
              "Current configuration:\n!\n"
              "ip dhcp-snooping \n!\nip dhcp max-session 4000 \n"
              "ip dhcp information profile P1 \n circuit-id index 1 variable slot \n"
              " circuit-id index 2 delimiter dot \n circuit-id index 3 variable port \n!\n"
              "vlan 100\n ip dhcp information circuit-id profile P1 \n ip verify source ip-address dynamic\n!\n"
              "interface ge1/1/1\n!\nend\n");
    survives_restart();
}

TEST_F(DaemonSnoop, ExchangeIsSnoopedAndForwarded)
{
    transcript({{"configure terminal", 0, ""}, {"debug dhcp packet", 0, ""},   {"ip dhcp-snooping", 0, ""},
                {"ip dhcp information", 0, ""}, {"vlan 100", 0, ""},          {"ip dhcp-snooping", 0, ""},
                {"ip dhcp information", 0, ""}, {"interface ge1/1/1", 0, ""}, {"ip dhcp trust", 0, ""}});
    frames_out(0);

    // DISCOVER from the ONU: to the uplink with our option 82 before the end.
    const bytes discover = dhcp_frame(1, 1);
    send(ONU, discover, "client 0011-2233-4455 message discovery to server");
    std::uint32_t out_if = 0;
    std::vector<bytes> out = frames_out(1, &out_if);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out_if, GE1);
    const std::string circuit = "PON " + std::string(st_ifname(ONU)) + ":100", remote = "OLT system:000a-0b0c-0d00";
    bytes op82 = {82, std::uint8_t(4 + circuit.size() + remote.size()), 1, std::uint8_t(circuit.size())};
    op82.insert(op82.end(), circuit.begin(), circuit.end());
    op82.insert(op82.end(), {2, std::uint8_t(remote.size())});
    op82.insert(op82.end(), remote.begin(), remote.end());
    bytes expect(discover.begin(), discover.end() - 1);  // without the end option
    expect.insert(expect.end(), op82.begin(), op82.end());
    expect.push_back(255);
    const bytes &f = out[0];
    ASSERT_EQ(f.size(), expect.size());
    EXPECT_TRUE(std::equal(f.begin() + BOOTP, f.end(), expect.begin() + BOOTP)) << "DHCP message";
    std::uint16_t ip_len = 0, udp_len = 0;
    be16_at(f, IP + 2, ip_len);
    be16_at(f, UDP + 4, udp_len);
    EXPECT_EQ(ip_len, f.size() - IP);
    EXPECT_EQ(udp_len, f.size() - UDP);
    EXPECT_EQ(sum16(bytes_view(f).subspan(IP, 20)), 0xffff) << "IP header checksum";
    bytes pseudo(f.begin() + IP + 12, f.begin() + IP + 20);
    pseudo.insert(pseudo.end(), {0, 17, std::uint8_t(udp_len >> 8), std::uint8_t(udp_len)});
    EXPECT_EQ(sum16(bytes_view(f).subspan(UDP), sum16(pseudo)), 0xffff) << "UDP checksum";

    // A rogue server behind the ONU is not heard; the real OFFER reaches the client.
    send(ONU, dhcp_frame(2, 2), "=====>drop the offer packet from un-trust port " + std::string(st_ifname(ONU)));
    send(GE1, dhcp_frame(2, 2), "send server message offer from");
    out = frames_out(1, &out_if);
    ASSERT_EQ(out.size(), 1u) << "the rogue OFFER went on";
    EXPECT_EQ(out_if, ONU);
    EXPECT_TRUE(std::equal(CLIENT, CLIENT + 6, out[0].begin())) << "made unicast to the client";

    send(ONU, dhcp_frame(1, 3), "client 0011-2233-4455 message request to server");
    send(GE1, dhcp_frame(2, 5), "send server message ack from");
    EXPECT_EQ(frames_out(2).size(), 2u);
    std::string binding = show("show ip dhcp-snooping binding");
    EXPECT_EQ(binding.substr(0, binding.find('\n') + 1), "Total binding entries: 1\n");
    char line[128];
    std::snprintf(line, sizeof line, "0011-2233-4455  100   snoop   %-20s  10.0.0.9         3600", st_ifname(ONU));
    EXPECT_NE(binding.find(line), std::string::npos) << binding;

    // Every frame the layer-2 path took in was counted, the rogue one was not.
    for (const char *type : {"discovery", "offer", "request", "ack"})
        EXPECT_EQ(d.log_lines(std::string("Recieve dhcp ") + type + " packet").size(), 1u) << type;

    send(ONU, dhcp_frame(1, 7), "client 0011-2233-4455 message release to server");
    EXPECT_EQ(show("show ip dhcp-snooping binding vlan 100"), "Total binding entries: 0\n");

    EXPECT_EQ(show("show running-config"),
              "Current configuration:\n!\n"
              "ip dhcp-snooping \n!\nip dhcp max-session 4000 \nip dhcp information \n"
              "ip dhcp information access-node-id string PON\n"
              "vlan 100\n ip dhcp-snooping \n ip dhcp information \n!\n"
              "interface ge1/1/1\n ip dhcp trust\n!\nend\n");
    survives_restart();
    // Back from the file, the forwarding plane is asked again to trap VLAN 100.
    bool trapped = false;
    for (const fake_fp_msg &m : fp.received()) {
        std::uint16_t vid = 0;
        trapped |= m.hdr.nlmsg_type == 321 && wire_reader(m.payload(), 4).host(vid) && vid == 100;
    }
    EXPECT_TRUE(trapped);
}

}  // namespace
