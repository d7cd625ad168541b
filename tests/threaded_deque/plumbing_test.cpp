#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "common/lx_assert.h"
#include "threaded_deque/event.h"
#include "threaded_deque/threaded_deque.h"
#include "threaded_deque/worker.h"

namespace {

using namespace std::chrono_literals;
using lx::Event;

struct Work { int id = 0; int packetsLeft = 0; };

TEST(ThreadedDeque, FrontOnEmptyAssertsAndDoesNotBlock) {
    lx::ThreadedDeque<Work> q;
    lx::AssertionCapture cap;
    Work& w = q.front();
    EXPECT_EQ(w.id, 0);
    EXPECT_TRUE(cap.saw("d.size() > 0", "src/threaded_deque"));
    q.pop(); // popping empty is harmless
    EXPECT_EQ(q.size(), 0u);
}

TEST(ThreadedDeque, GrowingPastMaximumThrowsLengthError) {
    lx::ThreadedDeque<Work> q(3);
    for (int i = 0; i < 3; ++i) q.push({i, 1});
    try {
        q.push({9, 1});
        FAIL() << "no length error";
    } catch (const std::length_error& e) {
        EXPECT_STREQ(e.what(), "deque<T> too long");
    }
    EXPECT_EQ(q.size(), 3u);
    q.pop();
    EXPECT_NO_THROW(q.push({9, 1})); // drained room is usable again
}

TEST(Event, ManualResetReleasesEveryWaiterUntilReset) {
    Event e(Event::Mode::ManualReset);
    std::atomic<int> woke{0};
    std::vector<std::thread> ts;
    for (int i = 0; i < 4; ++i) ts.emplace_back([&] {
        e.Wait();
        ++woke;
    });
    e.Set();
    for (auto& t : ts) t.join();
    EXPECT_EQ(woke.load(), 4);
    EXPECT_TRUE(e.WaitFor(0)); // still set
    EXPECT_TRUE(e.IsSet());
    e.Reset();
    EXPECT_FALSE(e.WaitFor(5));
}

// Ping-pong through two auto-reset events: a lost wake-up would hang here
// (bounded by the waits' time-out, and then counted as a failure).
TEST(Event, AutoResetHandOffLosesNoWakeUp) {
    constexpr int kRounds = 5000;
    Event ping(Event::Mode::AutoReset), pong(Event::Mode::AutoReset);
    std::atomic<int> timeouts{0};
    std::thread other([&] {
        for (int i = 0; i < kRounds; ++i) {
            if (!ping.WaitFor(5000)) ++timeouts;
            pong.Set();
        }
    });
    for (int i = 0; i < kRounds; ++i) {
        ping.Set();
        if (!pong.WaitFor(5000)) ++timeouts;
    }
    other.join();
    EXPECT_EQ(timeouts.load(), 0);
}

TEST(Event, AutoResetSetReleasesOneOfTwoWaiters) {
    Event e(Event::Mode::AutoReset);
    std::atomic<int> woke{0};
    std::thread a([&] { woke += e.WaitFor(300) ? 1 : 0; });
    std::thread b([&] { woke += e.WaitFor(300) ? 1 : 0; });
    std::this_thread::sleep_for(20ms);
    e.Set();
    a.join();
    b.join();
    EXPECT_EQ(woke.load(), 1);
}

// A worker blocked in an infinite wait on its work event: Stop must clear the
// flag, wake it and join promptly; the stop hook runs before the wake.
TEST(Workers, StopWakesABlockedWorkerPromptlyAndTwiceIsHarmless) {
    lx::Workers w;
    Event work(Event::Mode::AutoReset);
    std::atomic<int> pending{0};
    std::atomic<bool> sawPendingOnExit{false};
    std::atomic<bool> blocked{false};
    w.AddWakeEvent(&work);
    w.SetStopHook([&] { pending.store(20); });
    w.Start("LX IQ Filter Thread", lx::ThreadPriority::AboveNormal, [&] {
        while (true) {
            blocked = true;
            work.Wait();
            if (!w.running()) {
                sawPendingOnExit = pending.load() == 20;
                return;
            }
        }
    });
    while (!blocked) std::this_thread::sleep_for(1ms);
    std::this_thread::sleep_for(10ms);
    auto t0 = std::chrono::steady_clock::now();
    w.Stop();
    auto took = std::chrono::steady_clock::now() - t0;
    EXPECT_LT(took, 2s); // generous: "promptly", not a timing assertion
    EXPECT_TRUE(sawPendingOnExit);
    EXPECT_EQ(w.joinableCount(), 0u);
    EXPECT_NO_THROW(w.Stop());
}

TEST(Workers, DestructorStopsThreadsLeftRunning) {
    std::atomic<bool> exited{false};
    {
        auto ev = std::make_unique<Event>(Event::Mode::AutoReset);
        lx::Workers w;
        w.AddWakeEvent(ev.get());
        w.Start("worker", lx::ThreadPriority::Normal, [&] {
            while (w.running()) ev->Wait();
            exited = true;
        });
    }
    EXPECT_TRUE(exited);
}

TEST(Workers, StopFromAWorkerItselfIsADeadlockError) {
    lx::Workers w;
    std::atomic<bool> threw{false};
    Event go(Event::Mode::ManualReset);
    w.Start("self", lx::ThreadPriority::Normal, [&] {
        go.Wait();
        try {
            w.Stop();
        } catch (const std::system_error& e) {
            threw = e.code() == std::errc::resource_deadlock_would_occur;
        }
    });
    go.Set();
    // Wait for the worker to finish its attempt, then stop from outside.
    for (int i = 0; i < 2000 && !threw; ++i) std::this_thread::sleep_for(1ms);
    EXPECT_TRUE(threw);
}

} // namespace
