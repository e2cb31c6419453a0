// Intake of trapped frames from the forwarding plane, and the deferred queue.
#pragma once

#include <cstdint>
#include <list>

struct thread;
struct thread_master;

enum { DHCP_HAL_PKT_BUF = 1664 };

// One queued payload (a copy of a hal_msg_pkt_t) for deferred handling.
struct dhcp_hal_pkt_t {
    int buffer_len;
    std::uint8_t buffer[DHCP_HAL_PKT_BUF];
};

struct dhcp_pkt_node {
    dhcp_hal_pkt_t *data;
};
extern std::list<dhcp_pkt_node> g_dhcp_pkt_list;
extern std::uint64_t g_dhcp_pkt_handled_total;

// buf: the payload (message + 16); len: the whole message length.
std::uint32_t dhcp_nl_msg(int type, std::uint8_t *buf, std::uint32_t len);
// 0 dispatched, TAVO_ERR not a DHCP frame, TAVO_PORT unknown receive port.
int dhcp_pkt_msg(std::uint8_t *tipcMsg, std::uint32_t msgLen);
int dhcp_pkt_process_timer(thread *t);
int dhcp_nl_receive(thread *t);

// Queues a copy of a packet payload for deferred handling; msg_len is the
// whole message length, as dhcp_pkt_msg takes it.
int dhcp_pkt_enqueue(const std::uint8_t *payload, std::uint32_t msg_len);
// Starts the drain timer on the master (first run after 1 s).
void dhcp_pkt_queue_start(thread_master *m);
