// Mutex-guarded double-ended queue of small work records, the hand-off
// between an engine's USB thread and its processing threads.
//
// Threads: any number of producers push; exactly one consumer thread reads
// front(), edits that record in place (e.g. counting down packets still to
// consume) and pops it when used up. The consumer may edit the front record
// without the lock because no other thread touches it: std::deque keeps
// references to existing elements valid across push_back.
// Locks: one mutex per deque; never held while calling out, so an engine can
// never hold two deque locks at once.
#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <mutex>
#include <stdexcept>

#include "common/lx_assert.h"

namespace lx {

template <typename T>
class ThreadedDeque {
public:
    // maxSize bounds the queue; pushing beyond it throws std::length_error
    // ("deque<T> too long"), which the API boundary turns into an allocation
    // status.
    explicit ThreadedDeque(size_t maxSize = kDefaultMaxSize) : maxSize_(maxSize) {}
    ThreadedDeque(const ThreadedDeque&) = delete;
    ThreadedDeque& operator=(const ThreadedDeque&) = delete;

    void push(const T& record) {
        std::lock_guard<std::mutex> lock(m_);
        if (d_.size() >= maxSize_) throw std::length_error("deque<T> too long");
        d_.push_back(record);
        size_.store(d_.size(), std::memory_order_release);
    }

    // Lock-free snapshot; the producer signals an event after every push, so
    // a consumer that re-checks after each wake never misses a record.
    size_t size() const { return size_.load(std::memory_order_acquire); }
    bool empty() const { return size() == 0; }

    // Consumer only. On an empty deque this is a programming error: it
    // reports and returns a scratch record instead of blocking.
    T& front() {
        LX_ASSERT_TEXT(size() > 0, "d.size() > 0", "src/threaded_deque");
        std::lock_guard<std::mutex> lock(m_);
        if (d_.empty()) {
            scratch_ = T{};
            return scratch_;
        }
        return d_.front();
    }

    // Consumer only. Popping an empty deque does nothing.
    void pop() {
        std::lock_guard<std::mutex> lock(m_);
        if (d_.empty()) return;
        d_.pop_front();
        size_.store(d_.size(), std::memory_order_release);
    }

    void clear() {
        std::lock_guard<std::mutex> lock(m_);
        d_.clear();
        size_.store(0, std::memory_order_release);
    }

    static constexpr size_t kDefaultMaxSize = size_t{1} << 20;

private:
    std::deque<T> d_;
    mutable std::mutex m_;
    std::atomic<size_t> size_{0};
    size_t maxSize_;
    T scratch_{};
};

} // namespace lx
