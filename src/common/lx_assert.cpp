#include "common/lx_assert.h"

#include <cstdio>
#include <mutex>

namespace lx {

namespace {
std::mutex& captureMutex() {
    static std::mutex m;
    return m;
}
AssertionCapture* g_capture = nullptr; // guarded by captureMutex()
} // namespace

struct AssertionCapture::State {
    mutable std::mutex m;
    std::vector<AssertionReport> reports;
};

AssertionCapture::AssertionCapture() : state_(new State) {
    std::lock_guard<std::mutex> lock(captureMutex());
    outer_ = g_capture;
    g_capture = this;
}

AssertionCapture::~AssertionCapture() {
    {
        std::lock_guard<std::mutex> lock(captureMutex());
        g_capture = outer_;
    }
    delete state_;
}

void AssertionCapture::add(AssertionReport r) {
    std::lock_guard<std::mutex> lock(state_->m);
    state_->reports.push_back(std::move(r));
}

std::vector<AssertionReport> AssertionCapture::reports() const {
    std::lock_guard<std::mutex> lock(state_->m);
    return state_->reports;
}

size_t AssertionCapture::count() const {
    std::lock_guard<std::mutex> lock(state_->m);
    return state_->reports.size();
}

bool AssertionCapture::saw(const std::string& expression, const std::string& module) const {
    std::lock_guard<std::mutex> lock(state_->m);
    for (const auto& r : state_->reports)
        if (r.expression == expression && r.module == module) return true;
    return false;
}

void AssertionCapture::clear() {
    std::lock_guard<std::mutex> lock(state_->m);
    state_->reports.clear();
}

namespace {
std::mutex& debugMutex() {
    static std::mutex m;
    return m;
}
std::function<void(const std::string&)>& debugSink() {
    static std::function<void(const std::string&)> sink;
    return sink;
}
} // namespace

void DebugOutput(const std::string& text) {
    std::lock_guard<std::mutex> lock(debugMutex());
    if (debugSink()) debugSink()(text);
}

void SetDebugSink(std::function<void(const std::string&)> sink) {
    std::lock_guard<std::mutex> lock(debugMutex());
    debugSink() = std::move(sink);
}

void ReportAssertion(const char* expression, const char* module, int line) {
    std::lock_guard<std::mutex> lock(captureMutex());
    if (g_capture) {
        g_capture->add({expression, module, line});
        return;
    }
    std::fprintf(stderr, "Assertion failed: %s (%s)\n", expression, module);
}

} // namespace lx
