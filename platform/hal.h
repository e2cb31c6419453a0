// Forwarding-plane message channel (AF_UNIX SOCK_SEQPACKET).
//
// A module connects to the forwarding plane's socket and registers its module
// number; after that every message in either direction is one datagram: the
// 16-byte header (hal_msg.h) followed by the payload, integers in host order.
// Received messages are delivered on the event loop in arrival order; one read
// run handles messages until the socket is empty or 50 ms have passed (checked
// after every tenth message), then re-arms. A lost peer is logged and
// reconnected with back-off; sends while disconnected fail with TAVO_UNAVAIL.
#pragma once

#include <cstddef>
#include <cstdint>

struct thread_master;

enum { HAL_DHCP = 1027 };

// Receive callback: header type, payload (message + 16), header nlmsg_len. The
// payload is writable until the callback returns, so frames are edited in place.
using hal_recv_fn = std::uint32_t (*)(int type, std::uint8_t *buf, std::uint32_t len);

// Default socket path; overridable before hal_init.
#define HAL_DEFAULT_PATH "/var/run/olt_fp.sock"
void hal_set_path(const char *path);
const char *hal_get_path();

// Opens the channel for `module`, registering with the peer, and keeps it open
// (reconnecting when needed). Returns 0 even when the peer is not up yet.
int hal_init(int module, thread_master *master, hal_recv_fn fn);
void hal_close();
bool hal_is_connected();

// Reads and delivers what is waiting (bounded by the 50 ms budget); returns 0,
// or non-zero when the channel failed.
int hal_recv(hal_recv_fn fn);

// Sends one whole message (header and payload) without waiting. 0 or a TAVO_ code.
int hal_send_async(const std::uint8_t *msg, std::size_t len);
// Sends one whole message and waits (bounded) for the reply carrying the same
// nlmsg_seq; the reply (whole message) is copied into reply. 0 or a TAVO_ code.
// A zero nlmsg_seq is replaced by a fresh one (written back into msg). Other
// messages arriving meanwhile are delivered afterwards, in order. A reply
// larger than reply_cap is cut and TAVO_FULL returned; no reply in time gives
// TAVO_TIMEOUT.
int hal_send(std::uint8_t *msg, std::size_t len, std::uint8_t *reply, std::size_t reply_cap,
             std::size_t *reply_len);

// A request answered with a u32 result (DHCP traps, source-guard rules ...):
// sends it with hal_send and returns the peer's result, the channel's failure,
// or TAVO_ERR for an answer without a result.
int hal_send_request(std::uint8_t *msg, std::size_t len);

struct hal_stats_t {
    std::uint64_t rx_msgs, rx_bytes, rx_bad, tx_msgs, tx_fail, connects, disconnects;
    std::uint64_t rx_queue_drops;  // held back during hal_send and over the bound
};
const hal_stats_t &hal_get_stats();
