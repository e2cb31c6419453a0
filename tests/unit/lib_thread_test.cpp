// Event loop: slot semantics, one-shot timers that re-arm, read tasks, cancel.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <unistd.h>

#include "lib/thread.h"

namespace {

struct recorder {
    std::string *seen;
    char tag;
    int rearm = 0;
    thread *slot = nullptr;
};

int record_event(thread *t)
{
    auto *r = static_cast<recorder *>(THREAD_ARG(t));
    EXPECT_EQ(r->slot, nullptr) << "the loop clears the owner's slot before the call";
    *r->seen += r->tag;
    if (r->rearm-- > 0) thread_add_timer_msec(t->master, record_event, r, 0, &r->slot);
    return 0;
}

class Thread : public ::testing::Test {
protected:
    void TearDown() override { thread_master_free(m); }
    void run_until_idle()
    {
        thread fetch;
        for (int i = 0; i < 100 && thread_fetch(m, &fetch); ++i) thread_call(&fetch);
    }
    thread_master *m = thread_master_create("t");
    std::string seen;
};

TEST_F(Thread, AnArmedSlotIsNotAddedTwiceAndAHandlerReArmsItself)
{
    recorder r{&seen, 'a', 3};
    thread *first = thread_add_timer_msec(m, record_event, &r, 1, &r.slot);
    EXPECT_EQ(thread_add_timer_msec(m, record_event, &r, 1, &r.slot), first);
    EXPECT_EQ(thread_master_count(m), 1u);
    run_until_idle();
    EXPECT_EQ(seen, "aaaa");  // the call and three re-arms
    EXPECT_EQ(r.slot, nullptr);
}

TEST_F(Thread, CancelClearsTheSlotCancelByArgumentTakesEveryTaskOfTheOwnerTimersFireByDeadline)
{
    recorder a{&seen, 'a'}, late{&seen, 'b'}, c{&seen, 'c'}, early{&seen, 'd'};
    thread *extra = nullptr;
    thread_add_timer_msec(m, record_event, &a, 0, &a.slot);
    thread_add_timer_msec(m, record_event, &a, 0, &extra);
    thread_add_timer_msec(m, record_event, &late, 30, &late.slot);
    thread_add_timer_msec(m, record_event, &c, 0, &c.slot);
    thread_add_timer_msec(m, record_event, &early, 5, &early.slot);
    thread_cancel(&c.slot);
    EXPECT_EQ(c.slot, nullptr);
    thread_cancel_arg(m, &a);
    EXPECT_EQ(a.slot, nullptr);
    EXPECT_EQ(extra, nullptr);
    EXPECT_EQ(thread_master_count(m), 2u);
    auto start = std::chrono::steady_clock::now();
    run_until_idle();
    EXPECT_EQ(seen, "db");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(25));
}

struct reader {
    thread *slot = nullptr;
    std::string got;
};

int read_event(thread *t)
{
    auto *r = static_cast<reader *>(THREAD_ARG(t));
    char buf[2];
    ssize_t n = read(THREAD_FD(t), buf, sizeof buf);
    if (n > 0) {
        r->got.append(buf, std::size_t(n));
        thread_add_read(t->master, read_event, r, THREAD_FD(t), &r->slot);
    }
    return 0;
}

TEST_F(Thread, ReadTaskFiresOncePerArmAndStopsAtEof)
{
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    reader r;
    thread_add_read(m, read_event, &r, p[0], &r.slot);
    ASSERT_EQ(write(p[1], "abc", 3), 3);
    close(p[1]);
    run_until_idle();
    EXPECT_EQ(r.got, "abc");     // two reads of at most two bytes
    EXPECT_EQ(r.slot, nullptr);  // EOF: not re-armed, nothing left to wait for
    close(p[0]);
}

} // namespace
