// Layout of the forwarding-plane messages (shared by the daemon and the
// forwarding plane). All integers in host order; the frame in network order.
#pragma once

#include <cstdint>
#include "lib/wire.h"

enum {
    HAL_MSG_HDR_LEN = 16,
    HAL_MSG_PKT_LEN = 1664,          // hal_msg_pkt_t
    HAL_PKT_MSG_LEN = 1680,          // header + hal_msg_pkt_t
    HAL_PKT_DATA_MAX = 1600,
    HAL_MSG_TYPE_PKT = 1,
    // Module registration: sent by a module right after it connects, payload
    // one u32 module number; the forwarding plane answers with the same type
    // and seq, payload one u32 result (0 accepted).
    HAL_MSG_TYPE_REGISTER = 0x100,
    HAL_MSG_REG_LEN = 20,
    HAL_MSG_FLAG_REQUEST = 1,        // set on messages the daemon sends
};

// Offsets inside hal_msg_pkt_t.
enum {
    HAL_PKT_OFF_IFINDEX = 0,
    HAL_PKT_OFF_FLAGS = 4,
    HAL_PKT_OFF_FWD_IFINDEX = 8,
    HAL_PKT_OFF_FWD_TID = 12,
    HAL_PKT_OFF_FWD_SRV_IF = 16,
    HAL_PKT_OFF_FWD_VID = 20,
    HAL_PKT_OFF_LLTAG = 24,
    HAL_PKT_OFF_USERVLAN = 26,
    HAL_PKT_OFF_VLAN_ACTION = 28,
    HAL_PKT_OFF_VLAN_DEPTH = 32,
    HAL_PKT_OFF_VLAN_STACK = 34,
    HAL_PKT_OFF_ETHTYPE = 46,
    HAL_PKT_OFF_IP_PROTO = 48,
    HAL_PKT_OFF_SRC_IF = 52,
    HAL_PKT_OFF_SRC_TID = 56,
    HAL_PKT_OFF_LEN = 60,
    HAL_PKT_OFF_DATA = 62,
};

struct hal_msg_hdr_t {
    std::uint32_t nlmsg_len;
    std::uint16_t nlmsg_type;
    std::uint16_t nlmsg_flags;
    std::uint32_t nlmsg_seq;
    std::uint32_t nlmsg_pid;
};

struct hal_srv_info_t {
    std::uint16_t lltag;
    std::uint16_t uservlan;
    std::int32_t vlan_action;
};

struct hal_fwd_info_t {
    std::uint32_t ifindex;
    std::uint32_t tid;
    std::uint32_t srv_if;
    std::uint16_t vid;
    hal_srv_info_t srv_info;
};

// Decoded view of a hal_msg_pkt_t; `data` points into the received buffer.
struct hal_msg_pkt_t {
    std::uint32_t ifindex;
    std::uint32_t flags;
    hal_fwd_info_t fwd_info;
    std::uint32_t src_if;
    std::int32_t src_tid;
    std::uint16_t len;
    const std::uint8_t *data;  // not owned; `len` bytes are readable (clamped to 1600)
};

bool hal_msg_hdr_decode(bytes_view msg, hal_msg_hdr_t &h);
bool hal_msg_hdr_encode(bytes_span msg, const hal_msg_hdr_t &h);
// Decodes a packet payload; false when the payload is shorter than the fixed
// part. A `len` larger than what the payload holds is clamped.
bool hal_msg_pkt_decode(bytes_view payload, hal_msg_pkt_t &p);
// Encodes a packet payload (frame copied into data); false if it does not fit.
bool hal_msg_pkt_encode(bytes_span payload, const hal_msg_pkt_t &p);
// Builds a whole packet message (header and payload, HAL_PKT_MSG_LEN bytes).
bool hal_msg_pkt_build(bytes_span msg, const hal_msg_pkt_t &p, std::uint16_t flags,
                       std::uint32_t seq, std::uint32_t pid);
// Builds a message of `type` whose payload is one u32 (registration and its
// answer, simple results); HAL_MSG_REG_LEN bytes.
bool hal_msg_u32_build(bytes_span msg, std::uint16_t type, std::uint16_t flags,
                       std::uint32_t seq, std::uint32_t value);
// Reads the u32 payload of such a message.
bool hal_msg_u32_decode(bytes_view msg, std::uint32_t &value);
