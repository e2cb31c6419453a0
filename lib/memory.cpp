#include "lib/memory.h"

#include <cstdlib>
#include <cstring>
#include <malloc.h>

#include "lib/command.h"
#include "lib/log.h"
#include "lib/vty.h"

static memtype *g_mt_head;
static memtype *g_mt_tail;

memtype::memtype(const char *g, const char *n) : group(g), name(n)
{
    // Registered at load time, so the table lists types in definition order.
    if (g_mt_tail) g_mt_tail->next = this; else g_mt_head = this;
    g_mt_tail = this;
}

memtype *memtype_first() { return g_mt_head; }

DEFINE_MTYPE(LIB, TMP)

static void account(memtype &mt, void *p, std::size_t old_size)
{
    if (!p) return;
    mt.bytes -= old_size;
    mt.bytes += malloc_usable_size(p);
}

void *qmalloc(memtype &mt, std::size_t size)
{
    void *p = std::malloc(size ? size : 1);
    if (!p) {
        zlog_err("out of memory: %zu bytes for %s", size, mt.name);
        return nullptr;
    }
    mt.n_alloc++;
    mt.n_total++;
    account(mt, p, 0);
    return p;
}

void *qcalloc(memtype &mt, std::size_t size)
{
    void *p = qmalloc(mt, size);
    if (p) std::memset(p, 0, size);
    return p;
}

void *qrealloc(memtype &mt, void *ptr, std::size_t size)
{
    if (!ptr) return qmalloc(mt, size);
    std::size_t old = malloc_usable_size(ptr);
    void *p = std::realloc(ptr, size ? size : 1);
    if (!p) {
        zlog_err("out of memory: %zu bytes for %s", size, mt.name);
        return nullptr;
    }
    account(mt, p, old);
    return p;
}

void qfree(memtype &mt, void *ptr)
{
    if (!ptr) return;
    dhcp_assert(mt.n_alloc > 0);
    if (mt.n_alloc) mt.n_alloc--;
    std::size_t sz = malloc_usable_size(ptr);
    mt.bytes = mt.bytes >= sz ? mt.bytes - sz : 0;
    std::free(ptr);
}

void memory_show(vty *vty)
{
    vty_out(vty, "%-8s %-20s %12s %12s %12s%s", "Group", "Type", "Live", "Total", "Bytes", VTY_NEWLINE);
    vty_out(vty, "-----------------------------------------------------------------------%s", VTY_NEWLINE);
    std::uint64_t live = 0, bytes = 0;
    for (memtype *mt = memtype_first(); mt; mt = mt->next) {
        vty_out(vty, "%-8s %-20s %12llu %12llu %12llu%s", mt->group, mt->name,
                (unsigned long long)mt->n_alloc, (unsigned long long)mt->n_total,
                (unsigned long long)mt->bytes, VTY_NEWLINE);
        live += mt->n_alloc;
        bytes += mt->bytes;
    }
    vty_out(vty, "%-29s %12llu %12s %12llu%s", "Total", (unsigned long long)live, "",
            (unsigned long long)bytes, VTY_NEWLINE);
}

DEFUN(show_memory, show_memory_cmd, "show memory", "Show running system information\nMemory statistics\n")
{
    memory_show(vty);
    return CMD_SUCCESS;
}

void memory_init()
{
    install_element(ENABLE_NODE, &show_memory_cmd);
    install_element(CONFIG_NODE, &show_memory_cmd);
}
