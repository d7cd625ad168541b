// A wake event in the style the engines are written against.
//
// Auto-reset: Set() releases exactly one Wait(); if nobody waits, the signal
// is kept until the next Wait() consumes it, so a Set() that races ahead of
// the waiter is never lost. Manual-reset: Set() releases every waiter, now
// and later, until Reset().
//
// Threads: any thread may Set/Reset/Wait. Lock: one internal mutex, never
// held while calling out.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace lx {

class Event {
public:
    enum class Mode { AutoReset, ManualReset };

    explicit Event(Mode mode, bool initiallySet = false) : mode_(mode), set_(initiallySet) {}
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    void Set();
    void Reset();
    // Blocks until signalled.
    void Wait();
    // Blocks at most `ms` milliseconds; true when signalled.
    bool WaitFor(uint32_t ms);
    // Non-blocking look; does not consume an auto-reset signal.
    bool IsSet() const;

private:
    bool ConsumeLocked();

    const Mode mode_;
    mutable std::mutex m_;
    std::condition_variable cv_;
    bool set_;
};

} // namespace lx
