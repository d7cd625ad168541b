// Device list, open, close, preset and mode control.
#include <algorithm>
#include <cstring>

#include "api/registry.h"
#include "lx_api.h"

namespace lx::api {

std::array<std::shared_ptr<Device>, kMaxDevices>& DeviceTable() {
    static std::array<std::shared_ptr<Device>, kMaxDevices> table;
    return table;
}

std::mutex& RegistryMutex() {
    static std::mutex m;
    return m;
}

void CloseLocked(int32_t handle, Device& d) {
    d.StopEngine();
    (void)d.SetPowerState(1);
    d.closed = true;
    std::lock_guard<std::mutex> lock(RegistryMutex());
    DeviceTable()[static_cast<size_t>(handle)].reset();
}

namespace {
std::atomic<bool> g_vectorPath{false};
bool g_dspInitialised = false;

void InitialiseSignalProcessingOnce() {
    if (g_dspInitialised) return;
    // FFTW needs no process set-up beyond what the FFT objects do themselves.
    g_dspInitialised = true;
}
} // namespace

bool VectorPathAvailable() { return g_vectorPath.load(); }

} // namespace lx::api

using namespace lx;
using namespace lx::api;

extern "C" {

LX_API LxStatus lxGetDeviceList(int32_t* serials, int32_t* count) {
    return GuardedStatus([&]() -> LxStatus {
        if (!serials || !count) return lxNullPtrErr;
        const auto found = usb::ListSerials({usb::kProductId});
        if (*count < 0) return lxNoError;
        const int32_t n = std::min<int32_t>(*count, static_cast<int32_t>(found.size()));
        std::copy_n(found.begin(), n, serials);
        *count = n;
        return lxNoError;
    });
}

LX_API LxStatus lxOpenDeviceBySerial(int32_t* handle, int32_t serial) {
    return GuardedStatus([&]() -> LxStatus {
        if (!handle) return lxNullPtrErr;
        __builtin_cpu_init();
        g_vectorPath = __builtin_cpu_supports("avx") && __builtin_cpu_supports("aes") &&
                       __builtin_cpu_supports("avx2");
        // Held for the whole open, so two opens never take the same slot.
        std::lock_guard<std::mutex> registry(RegistryMutex());
        InitialiseSignalProcessingOnce();
        auto& table = DeviceTable();
        int slot = -1;
        for (int i = 0; i < kMaxDevices; ++i)
            if (!table[static_cast<size_t>(i)]) {
                slot = i;
                break;
            }
        if (slot < 0) return lxMaxDevicesConnectedErr;

        auto transport = std::make_unique<usb::UsbTransport>();
        const LxStatus open = transport->OpenWithCalibration(serial);
        if (open < 0) return open;
        auto dev = std::make_shared<Device>(std::move(transport));
        const LxStatus init = dev->Initialise();
        *handle = slot;
        table[static_cast<size_t>(slot)] = std::move(dev);
        return init;
    });
}

LX_API LxStatus lxGetDevicePersonality(int32_t serial, int32_t* personality) {
    return GuardedStatus([&]() -> LxStatus {
        if (!personality) return lxNullPtrErr;
        const auto dev = usb::FindBySerial(serial);
        if (!dev) return lxDeviceNotFoundErr;
        *personality = usb::IsRunFirmware(dev.get()) ? 1 : usb::IsBootLoader(dev.get()) ? 0 : -1;
        return lxNoError;
    });
}

LX_API LxStatus lxOpenDevice(int32_t* handle) {
    return GuardedStatus([&]() -> LxStatus {
        if (!handle) return lxNullPtrErr;
        int32_t serials[kMaxDevices];
        int32_t count = kMaxDevices;
        lxGetDeviceList(serials, &count);
        if (count <= 0) return lxDeviceNotFoundErr;
        return lxOpenDeviceBySerial(handle, serials[0]);
    });
}

LX_API LxStatus lxCloseDevice(int32_t handle) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        CloseLocked(handle, d);
        return lxNoError;
    });
}

LX_API LxStatus lxPresetDevice(int32_t handle) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        d.StopEngine();
        d.Transport().RebootToLoader();
        d.Transport().Sleep(3000);
        CloseLocked(handle, d);
        return lxNoError;
    });
}

LX_API LxStatus lxConfigure(int32_t handle, int32_t mode) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!((mode >= 0 && mode < 6) || mode == 100)) return lxInvalidParameterErr;
        return d.Configure(mode);
    });
}

LX_API LxStatus lxAbort(int32_t handle) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        d.StopEngine();
        return lxNoError;
    });
}

LX_API LxStatus lxGetCurrentMode(int32_t handle, int32_t* mode) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!mode) return lxNullPtrErr;
        *mode = d.mode;
        return lxNoError;
    });
}

} // extern "C"
