// Device-manager protocol: message types, framing and the codec of every
// message, for both ends (uclient, the software OLT, test peers).
// Wire format: docs/devmgr-protocol.md. Network byte order throughout.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "devlib/umsg.h"
#include "lib/wire.h"

enum {
    DEVMGR_HDR_LEN = 12,
    DEVMGR_MAX_PAYLOAD = 65536,
    DEVMGR_NAME_LEN = 32,
    DEVMGR_HOSTNAME_LEN = 64,
    DEVMGR_DEFAULT_SYNC_PORT = 30000,
    DEVMGR_DEFAULT_ASYNC_PORT = 30008,
    DEVMGR_DEFAULT_LISTEN_PORT = 30027,
};

enum devmgr_type : std::uint16_t {
    // Synchronous connection: requests (client -> manager) and their answers.
    DEVMGR_HELLO = 0x0001,               // devmgr_hello_t
    DEVMGR_HELLO_ACK = 0x0002,           // u32 result
    DEVMGR_GET_HOSTNAME = 0x0003,        // empty
    DEVMGR_HOSTNAME = 0x0004,            // host name
    DEVMGR_CFG_SYNC_PRIO_SET = 0x0005,   // devmgr_prio_t
    DEVMGR_CFG_RECOVERY_RESULT = 0x0006, // devmgr_recovery_t
    DEVMGR_RESULT = 0x0007,              // u32 result (answer to 0x0005, 0x0006)
    // Asynchronous connection: notifications (manager -> client).
    DEVMGR_IF_NEW = 0x0101,              // umsg_if_t
    DEVMGR_IF_DEL = 0x0102,              // umsg_if_t
    DEVMGR_IF_STATUS = 0x0103,           // umsg_if_t
    DEVMGR_IF_ADMIN = 0x0104,            // umsg_if_t
    DEVMGR_TRUNK_SET = 0x0105,           // umsg_trunk_t
    DEVMGR_VLAN_CREATE = 0x0106,         // umsg_vlan_t
    DEVMGR_VLAN_DESTROY = 0x0107,        // umsg_vlan_t
    DEVMGR_VLAN_PORT = 0x0108,           // umsg_vlan_port_t
    DEVMGR_HOST = 0x0109,                // host name
    DEVMGR_ONU_STATUS = 0x010a,          // umsg_onu_op_t
    DEVMGR_SLOT_SWITCH_START = 0x010b,   // u32 slot
    DEVMGR_SLOT_SWITCH_END = 0x010c,     // u32 slot
    DEVMGR_SLOT_CFG_SYNC_START = 0x010d, // umsg_cfg_sync_t
    DEVMGR_SLOT_CFG_SYNC_END = 0x010e,   // umsg_cfg_sync_t
    DEVMGR_REPLAY_START = 0x010f,        // empty
    DEVMGR_REPLAY_END = 0x0110,          // empty
};

struct devmgr_hdr_t {
    std::uint16_t type;
    std::uint16_t flags;   // none defined; sent as 0, ignored
    std::uint32_t seq;     // requests: chosen by the client, echoed in the answer
    std::uint32_t length;  // payload bytes after the header
};

struct devmgr_hello_t {
    char progname[DEVMGR_NAME_LEN];
    std::uint16_t listen_port;  // where a restarted manager reconnects
    std::uint32_t pid;
};

struct devmgr_prio_t {
    std::uint32_t appid;
    char name[DEVMGR_NAME_LEN];
    std::uint32_t prio;
};

struct devmgr_recovery_t {
    char name[DEVMGR_NAME_LEN];
    std::uint32_t slotid;
    std::uint32_t cfg_prio;
    std::uint32_t result;
};

// One decoded message; only the member that belongs to `type` is meaningful.
// Value-initialise it (devmgr_msg_t m{}).
struct devmgr_msg_t {
    std::uint16_t type;
    std::uint16_t flags;
    std::uint32_t seq;
    devmgr_hello_t hello;
    std::uint32_t result;                   // HELLO_ACK, RESULT
    char hostname[DEVMGR_HOSTNAME_LEN];     // HOSTNAME, HOST
    devmgr_prio_t prio;
    devmgr_recovery_t recovery;
    umsg_if_t ifm;                          // IF_NEW, IF_DEL, IF_STATUS, IF_ADMIN
    umsg_trunk_t trunk;
    umsg_vlan_t vlan;                       // VLAN_CREATE, VLAN_DESTROY
    umsg_vlan_port_t vlan_port;
    umsg_onu_op_t onu;
    std::uint32_t slot;                     // SLOT_SWITCH_START, SLOT_SWITCH_END
    umsg_cfg_sync_t cfg;                    // SLOT_CFG_SYNC_START, SLOT_CFG_SYNC_END
};

// Payload size of a known type, -1 for an unknown one.
int devmgr_payload_len(std::uint16_t type);
const char *devmgr_type_name(std::uint16_t type);

bool devmgr_hdr_decode(bytes_view b, devmgr_hdr_t &h);
bool devmgr_hdr_encode(bytes_span b, const devmgr_hdr_t &h);

// Appends the whole message (header and payload) to out; false for an unknown type.
bool devmgr_encode(const devmgr_msg_t &m, std::vector<std::uint8_t> &out);

enum {
    DEVMGR_DEC_OK = 0,
    DEVMGR_DEC_UNKNOWN = 1,  // type not known here: skip it
    DEVMGR_DEC_SHORT = -1,   // payload shorter than the type's record: the peer is broken
};
// Decodes the payload of a framed message into m (header fields included).
// Bytes beyond a type's record are ignored; strings always come out terminated.
int devmgr_decode(const devmgr_hdr_t &h, bytes_view payload, devmgr_msg_t &m);

enum {
    DEVMGR_FRAME_MORE = 0,  // not a whole message yet
    DEVMGR_FRAME_OK = 1,
    DEVMGR_FRAME_BAD = -1,  // length beyond DEVMGR_MAX_PAYLOAD: the stream cannot be framed
};
// Looks at the start of a byte stream; on OK, h is the header and frame_len
// the whole message's size.
int devmgr_frame(bytes_view stream, devmgr_hdr_t &h, std::size_t &frame_len);
