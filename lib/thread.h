// Cooperative event loop: read tasks and one-shot timers on one thread.
//
// Slot semantics: every add takes the address of the owner's task pointer.
// Adding into a slot that already holds a task does nothing; the loop clears
// the slot before it calls the handler, so a handler re-arms itself by adding
// into the same slot at its end; cancelling clears the slot.
#pragma once

#include <cstdint>

struct event_base;
struct thread_master;
struct thread;

using thread_func = int (*)(struct thread *);

enum thread_type { THREAD_READ = 0, THREAD_TIMER = 1, THREAD_EVENT = 2 };

struct thread {
    thread_type type;
    thread_master *master;
    thread_func func;
    void *arg;
    int fd;            // read tasks
    thread **ref;      // the owner's slot, cleared before the call
    const char *funcname;
    struct event *ev;  // libevent handle
    bool ready;
};

#define THREAD_ARG(t) ((t)->arg)
#define THREAD_FD(t) ((t)->fd)

thread_master *thread_master_create(const char *name);
void thread_master_free(thread_master *m);
event_base *thread_master_base(thread_master *m);

thread *funcname_thread_add_read(thread_master *m, thread_func f, void *arg, int fd,
                                 thread **ref, const char *funcname);
thread *funcname_thread_add_timer_msec(thread_master *m, thread_func f, void *arg, long msec,
                                       thread **ref, const char *funcname);
thread *funcname_thread_add_event(thread_master *m, thread_func f, void *arg, thread **ref,
                                  const char *funcname);

#define thread_add_read(m, f, a, fd, ref) funcname_thread_add_read(m, f, a, fd, ref, #f)
#define thread_add_timer(m, f, a, sec, ref) \
    funcname_thread_add_timer_msec(m, f, a, (long)(sec) * 1000L, ref, #f)
#define thread_add_timer_msec(m, f, a, ms, ref) funcname_thread_add_timer_msec(m, f, a, ms, ref, #f)
#define thread_add_event(m, f, a, ref) funcname_thread_add_event(m, f, a, ref, #f)

// Cancel the task in *ref (if any) and clear the slot.
void thread_cancel(thread **ref);
// Cancel every task of the master whose argument is arg.
void thread_cancel_arg(thread_master *m, void *arg);

// Wait for the next ready task and move it into *fetch. Returns fetch, or
// nullptr when the master has nothing left to wait for or was stopped.
thread *thread_fetch(thread_master *m, thread *fetch);
void thread_call(thread *t);
// Make the next thread_fetch return nullptr (used by tests and shutdown).
void thread_master_stop(thread_master *m);
// Number of tasks currently scheduled (armed) on the master.
unsigned thread_master_count(thread_master *m);
