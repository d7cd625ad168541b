// Engine worker threads: start with a name and a priority, stop by protocol.
//
// Threads: a Workers object owns the threads an engine starts through it.
// States: idle (no threads) -> running (Start called, running() true) ->
// stopping (Stop: flag cleared, wake events set, joins under way) -> idle.
// Stop protocol, in this order: clear the running flag, run the engine's
// stop hook (e.g. store a non-zero pending count so a counter-waiter wakes),
// set every registered wake event, join the threads in the order they were
// started. Workers re-check the flag after every wake, so a stop that arrives
// while a worker is blocked returns promptly; a second Stop finds nothing to
// join. The destructor stops too, so no path out of an engine leaves a
// joinable thread behind.
// Locks: none of its own; Start and Stop are called from the engine's owner
// thread only.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "threaded_deque/event.h"

namespace lx {

// The engines' priority levels. TimeCritical is for the thread that keeps
// USB transfers in flight; AboveNormal for processing threads.
enum class ThreadPriority : int { Normal = 0, AboveNormal = 1, TimeCritical = 15 };

// Names the calling thread for debuggers and `top -H`; Linux keeps 15
// characters, so longer names are truncated. Never fails.
void NameCurrentThread(const std::string& name);

// Best effort: raises the calling thread's priority when the process may;
// returns false (and changes nothing) when it may not. Never throws.
bool SetCurrentThreadPriority(ThreadPriority priority);

class Workers {
public:
    Workers() = default;
    ~Workers();
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;

    // Events the workers may block on; Stop sets each of them.
    void AddWakeEvent(Event* e) { wake_.push_back(e); }
    // Called by Stop after the flag is cleared and before the events are set.
    void SetStopHook(std::function<void()> hook) { stopHook_ = std::move(hook); }

    // Starts `body` on a new thread that names itself and sets its priority
    // before running it. Marks the set running. Throws std::system_error
    // when no thread can be started (the API boundary maps it to a status).
    void Start(const std::string& name, ThreadPriority priority, std::function<void()> body);

    // The flag workers loop on.
    bool running() const { return running_.load(std::memory_order_acquire); }

    // Idempotent. Joining from one of the workers itself throws
    // std::system_error (resource_deadlock_would_occur), as std::thread does.
    void Stop();

    size_t joinableCount() const;

private:
    std::atomic<bool> running_{false};
    std::vector<std::thread> threads_;
    std::vector<Event*> wake_;
    std::function<void()> stopHook_;
};

} // namespace lx
