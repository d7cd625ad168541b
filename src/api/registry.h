// The process-wide table of open devices: nine slots, the slot index is the
// handle.
//
// Threads: the table has its own mutex (RegistryMutex), held only to find,
// fill or empty a slot. A call on a handle holds a reference to the device
// and its control lock (Device::control) for its whole duration, so a close
// on another thread waits for it, and the device is destroyed by whichever
// thread drops the last reference. Lock order: registry, then control
// (a holder of a control lock may take the registry mutex, never the
// reverse wait).
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>

#include "api/export_guard.h"
#include "lx_lib/device.h"

namespace lx::api {

inline constexpr int kMaxDevices = 9;

std::array<std::shared_ptr<Device>, kMaxDevices>& DeviceTable();
std::mutex& RegistryMutex();

// The device behind a handle, or null for a handle above 8, a negative one
// or an empty slot.
inline std::shared_ptr<Device> Share(int32_t handle) {
    if (static_cast<uint32_t>(handle) >= static_cast<uint32_t>(kMaxDevices)) return nullptr;
    std::lock_guard<std::mutex> lock(RegistryMutex());
    return DeviceTable()[static_cast<size_t>(handle)];
}

// The same as a plain pointer, for code that already serialises its calls.
inline Device* LookUp(int32_t handle) { return Share(handle).get(); }

// Every per-device export: the handle check first (lxInvalidDeviceErr), then
// the body under the device's control lock, with nothing thrown across the
// boundary. A body that takes (Device&, std::unique_lock<std::mutex>&) may
// drop the lock while it waits (see device.h); it finds `closed` set when
// the device was closed meanwhile.
template <typename F>
LxStatus WithDevice(int32_t handle, F&& body) noexcept {
    return GuardedStatus([&]() -> LxStatus {
        const std::shared_ptr<Device> d = Share(handle);
        if (!d) return lxInvalidDeviceErr;
        std::unique_lock<std::mutex> lock(d->control);
        if (d->closed) return lxInvalidDeviceErr;
        if constexpr (std::is_invocable_v<F&, Device&, std::unique_lock<std::mutex>&>)
            return body(*d, lock);
        else
            return body(*d);
    });
}

// Close with the control lock held: stop the engine, standby, empty the slot.
void CloseLocked(int32_t handle, Device& d);

// True when the processor has AVX, AES and AVX2 (the real-time engine's
// vector path); recomputed at every open.
bool VectorPathAvailable();

} // namespace lx::api
