// Internal consistency checks.
//
// An assertion reports "Assertion failed: <expression> (<module>)" on standard
// error and execution goes on: a failed check is a programming error to be
// seen, never a status code and never an abort. Tests install a capture to
// see which checks fired.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace lx {

struct AssertionReport {
    std::string expression;
    std::string module;
    int line = 0;
};

// Diagnostic lines that are not errors (e.g. "Aux data xfer failed"). Silent
// unless a sink is installed; tests and tools install one. Thread-safe.
void DebugOutput(const std::string& text);
void SetDebugSink(std::function<void(const std::string&)> sink);

// Called by LX_ASSERT when its expression is false. Thread-safe.
void ReportAssertion(const char* expression, const char* module, int line);

// While an AssertionCapture lives, reports are collected here instead of being
// printed. Captures nest; the innermost one receives the reports.
class AssertionCapture {
public:
    AssertionCapture();
    ~AssertionCapture();
    AssertionCapture(const AssertionCapture&) = delete;
    AssertionCapture& operator=(const AssertionCapture&) = delete;

    std::vector<AssertionReport> reports() const;
    size_t count() const;
    // True when a report with exactly this expression and module was captured.
    bool saw(const std::string& expression, const std::string& module) const;
    void clear();

private:
    friend void ReportAssertion(const char*, const char*, int);
    void add(AssertionReport r);
    struct State;
    State* state_;
    AssertionCapture* outer_;
};

} // namespace lx

// The expression text is reported as written: keep the checked expression
// readable, it is what the user sees.
#define LX_ASSERT(expr, module) \
    ((expr) ? static_cast<void>(0) : ::lx::ReportAssertion(#expr, module, __LINE__))

// For the few checks whose reported text must name an expression that the
// code evaluates differently (e.g. through a lock-free copy of a size).
#define LX_ASSERT_TEXT(cond, text, module) \
    ((cond) ? static_cast<void>(0) : ::lx::ReportAssertion(text, module, __LINE__))
