#include "threaded_deque/worker.h"

#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <system_error>

namespace lx {

void NameCurrentThread(const std::string& name) {
    // The kernel limit is 16 bytes with the terminator.
    std::string shortName = name.substr(0, 15);
    (void)pthread_setname_np(pthread_self(), shortName.c_str());
}

bool SetCurrentThreadPriority(ThreadPriority priority) {
    // A per-thread nice value rather than a real-time scheduling class: on a
    // two-core machine a real-time USB thread that also synthesises the
    // simulator's samples would starve the processing threads it feeds.
    int nice = 0;
    switch (priority) {
    case ThreadPriority::Normal: return true;
    case ThreadPriority::AboveNormal: nice = -2; break;
    case ThreadPriority::TimeCritical: nice = -10; break;
    }
    const auto tid = static_cast<id_t>(syscall(SYS_gettid));
    return setpriority(PRIO_PROCESS, tid, nice) == 0;
}

Workers::~Workers() { Stop(); }

void Workers::Start(const std::string& name, ThreadPriority priority,
                    std::function<void()> body) {
    running_.store(true, std::memory_order_release);
    threads_.emplace_back([name, priority, body = std::move(body)] {
        NameCurrentThread(name);
        (void)SetCurrentThreadPriority(priority);
        body();
    });
}

void Workers::Stop() {
    running_.store(false, std::memory_order_release);
    if (stopHook_) stopHook_();
    for (Event* e : wake_) e->Set();
    for (auto& t : threads_) {
        // Checked here rather than left to pthread_join, whose EDEADLK path
        // some sanitizer runtimes cannot follow.
        if (t.get_id() == std::this_thread::get_id())
            throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur));
        if (t.joinable()) t.join();
    }
    threads_.clear();
}

size_t Workers::joinableCount() const {
    size_t n = 0;
    for (const auto& t : threads_) n += t.joinable() ? 1 : 0;
    return n;
}

} // namespace lx
