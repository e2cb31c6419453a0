// Event loop: slot semantics, one-shot timers that re-arm, read tasks, cancel.
#include <gtest/gtest.h>

#include <chrono>
#include <unistd.h>
#include <vector>

#include "lib/thread.h"

namespace {

struct recorder {
    std::vector<int> calls;
    thread *slot = nullptr;
    int rearm = 0;
};

int record_event(thread *t)
{
    auto *r = static_cast<recorder *>(THREAD_ARG(t));
    // The loop clears the owner's slot before the call.
    EXPECT_EQ(r->slot, nullptr);
    r->calls.push_back(static_cast<int>(r->calls.size()));
    if (r->rearm-- > 0) thread_add_timer_msec(t->master, record_event, r, 0, &r->slot);
    return 0;
}

void run_until_idle(thread_master *m, int max_calls = 100)
{
    thread fetch;
    for (int i = 0; i < max_calls && thread_fetch(m, &fetch); ++i) thread_call(&fetch);
}

TEST(Thread, AddingIntoAnArmedSlotDoesNothing)
{
    thread_master *m = thread_master_create("t");
    recorder r;
    thread *first = thread_add_timer_msec(m, record_event, &r, 1, &r.slot);
    thread *second = thread_add_timer_msec(m, record_event, &r, 1, &r.slot);
    EXPECT_EQ(first, second);
    EXPECT_EQ(thread_master_count(m), 1u);
    run_until_idle(m);
    EXPECT_EQ(r.calls.size(), 1u);
    thread_master_free(m);
}

TEST(Thread, HandlerReArmsItselfIntoItsSlot)
{
    thread_master *m = thread_master_create("t");
    recorder r;
    r.rearm = 3;
    thread_add_timer_msec(m, record_event, &r, 0, &r.slot);
    run_until_idle(m);
    EXPECT_EQ(r.calls.size(), 4u);
    EXPECT_EQ(r.slot, nullptr);
    thread_master_free(m);
}

TEST(Thread, CancelClearsSlotAndTaskNeverRuns)
{
    thread_master *m = thread_master_create("t");
    recorder r;
    thread_add_timer_msec(m, record_event, &r, 0, &r.slot);
    ASSERT_NE(r.slot, nullptr);
    thread_cancel(&r.slot);
    EXPECT_EQ(r.slot, nullptr);
    EXPECT_EQ(thread_master_count(m), 0u);
    run_until_idle(m);
    EXPECT_TRUE(r.calls.empty());
    thread_master_free(m);
}


int tag_a(thread *t) { static_cast<std::vector<char> *>(THREAD_ARG(t))->push_back('a'); return 0; }
int tag_b(thread *t) { static_cast<std::vector<char> *>(THREAD_ARG(t))->push_back('b'); return 0; }

TEST(Thread, TimersFireInDeadlineOrder)
{
    thread_master *m = thread_master_create("t");
    std::vector<char> seen;
    thread *sa = nullptr, *sb = nullptr;
    thread_add_timer_msec(m, tag_a, &seen, 30, &sa);
    thread_add_timer_msec(m, tag_b, &seen, 5, &sb);
    auto start = std::chrono::steady_clock::now();
    run_until_idle(m);
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(seen, (std::vector<char>{'b', 'a'}));
    EXPECT_GE(ms, 25);
    thread_master_free(m);
}

struct reader {
    int fd;
    thread *slot = nullptr;
    std::string got;
};

int read_event(thread *t)
{
    auto *r = static_cast<reader *>(THREAD_ARG(t));
    char buf[16];
    ssize_t n = read(THREAD_FD(t), buf, sizeof buf);
    if (n > 0) {
        r->got.append(buf, static_cast<size_t>(n));
        thread_add_read(t->master, read_event, r, THREAD_FD(t), &r->slot);
    }
    return 0;
}

TEST(Thread, ReadTaskFiresOncePerArmAndStopsAtEof)
{
    thread_master *m = thread_master_create("t");
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    reader r{p[0]};
    thread_add_read(m, read_event, &r, p[0], &r.slot);
    ASSERT_EQ(write(p[1], "abc", 3), 3);
    close(p[1]);
    run_until_idle(m);
    EXPECT_EQ(r.got, "abc");
    EXPECT_EQ(r.slot, nullptr);  // EOF: not re-armed, nothing left to wait for
    close(p[0]);
    thread_master_free(m);
}

TEST(Thread, CancelByArgumentRemovesEveryTaskOfThatOwner)
{
    thread_master *m = thread_master_create("t");
    recorder a, b;
    thread *extra = nullptr;
    thread_add_timer_msec(m, record_event, &a, 0, &a.slot);
    thread_add_timer_msec(m, record_event, &a, 0, &extra);
    thread_add_timer_msec(m, record_event, &b, 0, &b.slot);
    thread_cancel_arg(m, &a);
    EXPECT_EQ(a.slot, nullptr);
    EXPECT_EQ(extra, nullptr);
    run_until_idle(m);
    EXPECT_TRUE(a.calls.empty());
    EXPECT_EQ(b.calls.size(), 1u);
    thread_master_free(m);
}

} // namespace
