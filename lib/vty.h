// Virtual terminal: one operator session, over the daemon's UNIX socket or a
// buffer (configuration files, tests).
#pragma once

#include <cstdarg>
#include <string>
#include "lib/command.h"

struct thread_master;

enum vty_type { VTY_TERM, VTY_FILE, VTY_SHELL };

struct vty {
    int fd = -1;
    vty_type type = VTY_SHELL;
    node_type node = CONFIG_NODE;
    void *index = nullptr;        // the object the node works on (interface, pool ...)
    long index_sub = 0;           // numeric context (VLAN id, profile id ...)
    std::string out;              // pending output
    bool close_requested = false; // "exit" from the top node: end the session
    const char *newline() const { return type == VTY_TERM ? "\r\n" : "\n"; }
};

#define VTY_NEWLINE (vty->newline())

int vty_out(vty *vty, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

void vty_init(thread_master *master, const char *daemon_name);
// Listens on a UNIX stream socket; mode 0660-or-tighter keeps other users out.
// Returns 0 or -1 (logged).
int vty_serv_sock(const char *path);
void vty_close_all();
// Number of open sessions (for caps and tests).
int vty_session_count();

// A vty that collects output into a string (config loading, tests).
vty *vty_new_buffer(node_type node);
void vty_free(vty *vty);
