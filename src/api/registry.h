// The process-wide table of open devices: nine slots, the slot index is the
// handle.
//
// Threads: the table has no lock. Opening and closing are done from one thread
// at a time; calls on different handles touch different devices.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <utility>

#include "api/export_guard.h"
#include "lx_lib/device.h"

namespace lx::api {

inline constexpr int kMaxDevices = 9;

std::array<std::unique_ptr<Device>, kMaxDevices>& DeviceTable();

// The device behind a handle, or null for a handle above 8, a negative one
// or an empty slot.
inline Device* LookUp(int32_t handle) {
    if (static_cast<uint32_t>(handle) >= static_cast<uint32_t>(kMaxDevices)) return nullptr;
    return DeviceTable()[static_cast<size_t>(handle)].get();
}

// Every per-device export: the handle check first (lxInvalidDeviceErr), then
// the body, with nothing thrown across the boundary.
template <typename F>
LxStatus WithDevice(int32_t handle, F&& body) noexcept {
    return GuardedStatus([&]() -> LxStatus {
        Device* d = LookUp(handle);
        if (!d) return lxInvalidDeviceErr;
        return body(*d);
    });
}

// True when the processor has AVX, AES and AVX2 (the real-time engine's
// vector path); recomputed at every open.
bool VectorPathAvailable();

} // namespace lx::api
