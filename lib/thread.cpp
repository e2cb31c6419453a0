#include "lib/thread.h"

#include <event2/event.h>

#include <deque>
#include <string>
#include <unordered_set>

struct thread_master {
    std::string name;
    event_base *base;
    std::deque<thread *> ready;          // fired, waiting for thread_fetch
    std::unordered_set<thread *> tasks;  // every live task (armed or ready)
    bool stopped = false;
};

static void thread_free(thread *t)
{
    if (t->ev) event_free(t->ev);
    delete t;
}

static void thread_fired(evutil_socket_t, short, void *arg)
{
    auto *t = static_cast<thread *>(arg);
    t->ready = true;
    t->master->ready.push_back(t);
}

thread_master *thread_master_create(const char *name)
{
    auto *m = new thread_master;
    m->name = name ? name : "";
    m->base = event_base_new();
    return m;
}

void thread_master_free(thread_master *m)
{
    if (!m) return;
    for (thread *t : m->tasks) {
        if (t->ref && *t->ref == t) *t->ref = nullptr;
        thread_free(t);
    }
    m->tasks.clear();
    m->ready.clear();
    event_base_free(m->base);
    delete m;
}

event_base *thread_master_base(thread_master *m) { return m->base; }

static thread *thread_new(thread_master *m, thread_type type, thread_func f, void *arg, int fd,
                          thread **ref, const char *funcname)
{
    auto *t = new thread{};
    t->type = type;
    t->master = m;
    t->func = f;
    t->arg = arg;
    t->fd = fd;
    t->ref = ref;
    t->funcname = funcname;
    m->tasks.insert(t);
    if (ref) *ref = t;
    return t;
}

thread *funcname_thread_add_read(thread_master *m, thread_func f, void *arg, int fd, thread **ref,
                                 const char *funcname)
{
    if (ref && *ref) return *ref;
    thread *t = thread_new(m, THREAD_READ, f, arg, fd, ref, funcname);
    t->ev = event_new(m->base, fd, EV_READ, thread_fired, t);
    event_add(t->ev, nullptr);
    return t;
}

thread *funcname_thread_add_timer_msec(thread_master *m, thread_func f, void *arg, long msec,
                                       thread **ref, const char *funcname)
{
    if (ref && *ref) return *ref;
    thread *t = thread_new(m, THREAD_TIMER, f, arg, -1, ref, funcname);
    t->ev = evtimer_new(m->base, thread_fired, t);
    timeval tv{msec / 1000, (msec % 1000) * 1000};
    evtimer_add(t->ev, &tv);
    return t;
}

thread *funcname_thread_add_event(thread_master *m, thread_func f, void *arg, thread **ref,
                                  const char *funcname)
{
    if (ref && *ref) return *ref;
    thread *t = thread_new(m, THREAD_EVENT, f, arg, -1, ref, funcname);
    t->ready = true;
    m->ready.push_back(t);
    return t;
}

static void thread_remove(thread *t)
{
    thread_master *m = t->master;
    if (t->ready) {
        for (auto it = m->ready.begin(); it != m->ready.end(); ++it)
            if (*it == t) { m->ready.erase(it); break; }
    }
    m->tasks.erase(t);
    if (t->ref && *t->ref == t) *t->ref = nullptr;
    thread_free(t);
}

void thread_cancel(thread **ref)
{
    if (!ref || !*ref) return;
    thread_remove(*ref);
    *ref = nullptr;
}

void thread_cancel_arg(thread_master *m, void *arg)
{
    std::deque<thread *> doomed;
    for (thread *t : m->tasks)
        if (t->arg == arg) doomed.push_back(t);
    for (thread *t : doomed) thread_remove(t);
}

thread *thread_fetch(thread_master *m, thread *fetch)
{
    while (!m->stopped) {
        if (!m->ready.empty()) {
            thread *t = m->ready.front();
            m->ready.pop_front();
            m->tasks.erase(t);
            // The slot is cleared before the call so the handler can re-arm.
            if (t->ref && *t->ref == t) *t->ref = nullptr;
            *fetch = *t;
            fetch->ev = nullptr;
            fetch->ref = nullptr;
            thread_free(t);
            return fetch;
        }
        if (m->tasks.empty()) return nullptr;
        if (event_base_loop(m->base, EVLOOP_ONCE) < 0) return nullptr;
    }
    return nullptr;
}

void thread_call(thread *t)
{
    if (t && t->func) t->func(t);
}

void thread_master_stop(thread_master *m)
{
    m->stopped = true;
    event_base_loopbreak(m->base);
}

unsigned thread_master_count(thread_master *m) { return static_cast<unsigned>(m->tasks.size()); }
