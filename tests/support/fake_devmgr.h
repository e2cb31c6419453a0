// Scripted device manager for component tests. Listens on 127.0.0.1 (sync and
// async ports), answers the client's requests, holds a device state (ports,
// VLANs, memberships, trunks, ONU states, host name) that it replays to every
// new async connection, and pushes each state change to the connected
// clients. Runs its own thread; every method is safe to call from the test.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "devlib/devmgr_proto.h"

class fake_devmgr {
public:
    fake_devmgr() = default;
    ~fake_devmgr();
    fake_devmgr(const fake_devmgr &) = delete;
    fake_devmgr &operator=(const fake_devmgr &) = delete;

    // Listens on the ports (0 = a free port; see sync_port()/async_port()).
    // A start after a stop with both ports 0 reuses the previous ports, and
    // if a client said hello before, reconnects to its announced listen port
    // and replays the state there (a restarted manager).
    bool start(std::uint16_t sync_port = 0, std::uint16_t async_port = 0);
    void stop();  // closes every socket; the state is kept
    bool restart() { stop(); return start(); }
    std::uint16_t sync_port() const;
    std::uint16_t async_port() const;

    // Device state. Each call updates the state and pushes the notification.
    void set_hostname(const std::string &name);                          // HOST
    void add_port(std::uint32_t ifindex, const std::string &name = "",   // IF_NEW
                  bool up = true);
    void add_port(const umsg_if_t &m);
    void del_port(std::uint32_t ifindex);                                // IF_DEL
    void set_port_status(std::uint32_t ifindex, bool up);                // IF_STATUS
    void add_vlan(std::uint16_t vid);                                    // VLAN_CREATE
    void del_vlan(std::uint16_t vid);                                    // VLAN_DESTROY
    // VLAN_PORT op 1 / op 2 for one VLAN, tagged or untagged.
    void port_add_vlan(std::uint32_t ifindex, std::uint16_t vid, bool tagged = true);
    void port_del_vlan(std::uint32_t ifindex, std::uint16_t vid, bool tagged = true);
    void set_pvid(std::uint32_t ifindex, std::uint16_t pvid);           // VLAN_PORT op 3
    void set_trunk(std::uint32_t member, std::uint32_t trunk_id);       // TRUNK_SET
    void set_onu_status(std::uint32_t ifindex, int status,              // ONU_STATUS
                        const std::string &sn = "");

    // Events that are not state (slot switch-over, configuration sync ...).
    void push(const devmgr_msg_t &m);
    void push_raw(bytes_view bytes);  // exactly these bytes to every async client

    // What the clients did.
    bool wait_hello(int timeout_ms);
    devmgr_hello_t hello() const;                   // the last hello
    bool wait_async_clients(int n, int timeout_ms); // at least n async connections open
    int async_clients() const;
    int replays() const;                            // replays sent so far
    std::vector<devmgr_msg_t> requests() const;     // every sync request, in order
    bool wait_request(std::uint16_t type, int timeout_ms);

    // Answers: GET_HOSTNAME is left unanswered when off (default on);
    // CFG_SYNC_PRIO_SET and CFG_RECOVERY_RESULT get `result` (default 0).
    void set_answer_hostname(bool on);
    void set_result(std::uint32_t result);

private:
    struct port_state {
        umsg_if_t info{};
        std::uint16_t pvid = 0;
        std::uint8_t tagged[UVLAN_BITMAP_LEN] = {};
        std::uint8_t untagged[UVLAN_BITMAP_LEN] = {};
        std::uint32_t trunk = 0;
    };
    struct onu_state {
        std::int32_t status;
        std::string sn;
    };
    struct sync_conn {
        int fd;
        std::vector<std::uint8_t> in;
    };

    void run(int wake_fd);
    void serve_sync(sync_conn &c);
    void answer(int fd, const devmgr_msg_t &req);
    void replay_locked(int fd);
    void push_locked(const devmgr_msg_t &m);
    void send_all_locked(const std::vector<std::uint8_t> &bytes);

    mutable std::mutex mu_;
    std::condition_variable cv_;
    std::thread thread_;
    int wake_[2] = {-1, -1};
    int sync_listen_ = -1, async_listen_ = -1;
    std::uint16_t sync_port_ = 0, async_port_ = 0;
    std::vector<sync_conn> sync_conns_;
    std::vector<int> async_conns_;

    std::string hostname_ = "OLT";
    std::map<std::uint32_t, port_state> ports_;
    std::uint8_t vlans_[UVLAN_BITMAP_LEN] = {};
    std::map<std::uint32_t, onu_state> onus_;

    bool hello_seen_ = false;
    devmgr_hello_t hello_{};
    int replays_ = 0;
    std::vector<devmgr_msg_t> requests_;
    bool answer_hostname_ = true;
    std::uint32_t result_ = 0;
};
