// The one place where C++ exceptions are turned into results at the library
// boundary. Every exported function runs its body through Guarded(); nothing
// thrown inside the library ever reaches the application.
#pragma once

#include <new>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "common/lx_assert.h"
#include "lx_api.h"

namespace lx::api {

// Runs body() and returns its result. An allocation failure, a container that
// cannot grow or a thread that cannot start (the resource errors the engines
// can meet) map to `onResourceError`; any other exception is a programming
// error: it is reported as an assertion and maps to `onOtherError`.
template <typename R, typename F>
R Guarded(R onResourceError, R onOtherError, F&& body) noexcept {
    try {
        return std::forward<F>(body)();
    } catch (const std::bad_alloc&) {
        return onResourceError;
    } catch (const std::length_error&) {
        return onResourceError;
    } catch (const std::system_error&) {
        return onResourceError;
    } catch (...) {
        ReportAssertion("unexpected exception at the API boundary", "src/api", __LINE__);
        return onOtherError;
    }
}

// The common case: a status-returning export.
template <typename F>
LxStatus GuardedStatus(F&& body) noexcept {
    return Guarded<LxStatus>(lxAllocationErr, lxAllocationErr, std::forward<F>(body));
}

} // namespace lx::api
