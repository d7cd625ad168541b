#include "threaded_deque/event.h"

namespace lx {

void Event::Set() {
    {
        std::lock_guard<std::mutex> lock(m_);
        set_ = true;
    }
    if (mode_ == Mode::ManualReset)
        cv_.notify_all();
    else
        cv_.notify_one();
}

void Event::Reset() {
    std::lock_guard<std::mutex> lock(m_);
    set_ = false;
}

bool Event::ConsumeLocked() {
    if (!set_) return false;
    if (mode_ == Mode::AutoReset) set_ = false;
    return true;
}

void Event::Wait() {
    std::unique_lock<std::mutex> lock(m_);
    cv_.wait(lock, [this] { return set_; });
    ConsumeLocked();
}

bool Event::WaitFor(uint32_t ms) {
    std::unique_lock<std::mutex> lock(m_);
    if (!cv_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return set_; })) return false;
    return ConsumeLocked();
}

bool Event::IsSet() const {
    std::lock_guard<std::mutex> lock(m_);
    return set_;
}

} // namespace lx
