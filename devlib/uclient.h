// Client of the device manager (TCP on 127.0.0.1): a synchronous connection,
// an asynchronous notification connection, and a listening socket on which a
// restarted manager reconnects. Wire format: docs/devmgr-protocol.md.
#pragma once

#include <cstdint>
#include "devlib/uif.h"
#include "devlib/umsg.h"

struct uclient_s {
    char progname[32];
    int fd_sync;
    int fd_async;
    int async_server_sock;
    std::uint16_t listen_port;

    int (*if_new)(umsg_if_t *msg);
    int (*if_del)(umsg_if_t *msg);
    int (*if_admin)(umsg_if_t *msg);
    int (*if_status)(umsg_if_t *msg);
    int (*trunk_set)(umsg_trunk_t *msg);
    int (*vlan_create)(umsg_vlan_t *msg);
    int (*vlan_destroy)(umsg_vlan_t *msg);
    int (*vlan_port)(umsg_vlan_port_t *msg);
    int (*host)(const char *hostname);
    int (*onu_status_notify)(umsg_onu_op_t *msg);
    int (*slot_switch_2_active_start)(int slot);
    int (*slot_switch_2_active_end)(int slot);
    int (*slot_cfg_sync_start)(umsg_cfg_sync_t *msg);
    int (*slot_cfg_sync_end)(umsg_cfg_sync_t *msg);
    // The manager finished replaying its state on a new async connection.
    int (*replay_end)();
    // Kept empty by the daemon.
    void *ip_add, *ip_del, *ip_update, *gpon_redistribute, *protect_group_add,
        *protect_group_del, *slot_add, *slot_remove, *slot_active, *slot_deactive;
};

// Port to listen on for asynchronous (re)connections of the manager; 0 lets
// the kernel choose. Must be set before uclient_connect.
void uclient_set_listen_port(std::uint16_t port);
// Connects both channels and opens the listening socket; announces the
// listening port in the hello. Null when the manager cannot be reached.
uclient_s *uclient_connect(const char *progname, std::uint32_t addr, std::uint16_t port,
                           std::uint16_t async_port);
void uclient_free(uclient_s *uc);

// Reads what is waiting on an asynchronous descriptor and dispatches every
// complete notification to the callbacks. Negative when the peer closed or
// sent something that cannot be framed (the caller closes the descriptor).
int uclient_handle_async(uclient_s *uc, int fd);

// Device-library effects of the notifications (called by the handlers).
uif_t *uclient_new_if(const umsg_if_t *msg);
int uclient_del_if(const umsg_if_t *msg);
uif_t *uclient_if_status(const umsg_if_t *msg);
int uclient_trunk_set(const umsg_trunk_t *msg);

// Synchronous requests on the sync connection.
int mono_api_get_hostname(char *buf, std::size_t len);
int mono_api_cfg_sync_prio_set(int appid, const char *name, int prio);
int mono_api_cfg_recovery_notify_result(const char *name, int slotid, int cfg_prio, int result);
