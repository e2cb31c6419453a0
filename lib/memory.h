// Typed allocation: every dynamic record is counted under its memory type so
// that "show memory" tells where the daemon's memory goes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

struct memtype {
    const char *group;
    const char *name;
    std::uint64_t n_alloc = 0;    // live allocations
    std::uint64_t n_total = 0;    // allocations ever made
    std::uint64_t bytes = 0;      // live bytes
    memtype *next = nullptr;
    memtype(const char *g, const char *n);
};

#define DECLARE_MTYPE(name) extern memtype MTYPE_##name;
#define DEFINE_MTYPE(group, name) memtype MTYPE_##name(#group, #name);

// Walk all registered types, in registration order.
memtype *memtype_first();

void *qmalloc(memtype &mt, std::size_t size);
void *qcalloc(memtype &mt, std::size_t size);
void *qrealloc(memtype &mt, void *ptr, std::size_t size);
void qfree(memtype &mt, void *ptr);

#define XMALLOC(mt, sz) qmalloc(MTYPE_##mt, sz)
#define XCALLOC(mt, sz) qcalloc(MTYPE_##mt, sz)
#define XREALLOC(mt, p, sz) qrealloc(MTYPE_##mt, p, sz)
#define XFREE(mt, p) do { qfree(MTYPE_##mt, p); (p) = nullptr; } while (0)

// Object helpers: construct/destroy a C++ object counted under a type.
template <class T, class... A>
T *qnew(memtype &mt, A &&...a) {
    void *p = qmalloc(mt, sizeof(T));
    if (!p) return nullptr;
    return new (p) T(std::forward<A>(a)...);
}
template <class T>
void qdelete(memtype &mt, T *p) {
    if (!p) return;
    p->~T();
    qfree(mt, p);
}

void memory_init();

struct vty;
// Renders the per-type table into the vty (the "show memory" command).
void memory_show(vty *vty);

DECLARE_MTYPE(TMP)
