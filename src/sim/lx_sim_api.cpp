// The exports of lx_sim.h.
#include <algorithm>
#include <functional>
#include <string>

#include "api/export_guard.h"
#include "lx_sim.h"
#include "sim/sim_registry.h"

using lx::api::GuardedStatus;
using namespace lx::sim;

namespace {

constexpr int32_t kMinSerial = 10000000;
constexpr int32_t kMaxSerial = 99999999;
constexpr uint64_t kMaxAdvanceMs = 1000000000; // about 11.6 days per call

// Why this thread's last scene was refused (empty after an accepted one).
thread_local std::string tSceneError;

std::shared_ptr<const Scene> Parse(const char* sceneJson) {
    tSceneError.clear();
    return ParseScene(sceneJson, &tSceneError);
}

template <typename F>
LxStatus WithDevice(int32_t serial, F&& f) {
    auto d = FindBySerial(serial);
    if (!d) return lxDeviceNotFoundErr;
    return f(*d);
}

LxStatus Attach(std::string product, std::string serial, const char* sceneJson, int32_t* id) {
    auto scene = Parse(sceneJson);
    if (!scene) return lxInvalidParameterErr;
    Registry& r = TheRegistry();
    std::lock_guard lk(r.mu);
    const int32_t number = [&serial] {
        if (serial.size() != 8 || !std::all_of(serial.begin(), serial.end(), [](char c) { return c >= '0' && c <= '9'; }))
            return -1;
        return std::stoi(serial);
    }();
    if (id == nullptr) {
        // The serial-number attach: serials must be unique among attached devices.
        for (const auto& d : r.devices)
            if (d->SerialNumber() == number) return lxInvalidParameterErr;
    }
    const int32_t newId = r.nextId++;
    r.devices.push_back(std::make_shared<SimDevice>(newId, std::move(product), std::move(serial), std::move(scene)));
    if (id) *id = newId;
    return lxNoError;
}

LxStatus DetachWhere(const std::function<bool(const SimDevice&)>& match) {
    std::shared_ptr<SimDevice> gone;
    {
        Registry& r = TheRegistry();
        std::lock_guard lk(r.mu);
        const auto it = std::find_if(r.devices.begin(), r.devices.end(), [&](const auto& d) { return match(*d); });
        if (it == r.devices.end()) return lxDeviceNotFoundErr;
        gone = *it;
        r.devices.erase(it);
    }
    gone->Detach();
    return lxNoError;
}

} // namespace

extern "C" {

LX_API LxStatus lxSimAttach(int32_t serial, const char* sceneJson) {
    return GuardedStatus([&] {
        if (serial < kMinSerial || serial > kMaxSerial) return lxInvalidParameterErr;
        return Attach("LX530", std::to_string(serial), sceneJson, nullptr);
    });
}

LX_API LxStatus lxSimDetach(int32_t serial) {
    return GuardedStatus([&] { return DetachWhere([serial](const SimDevice& d) { return d.SerialNumber() == serial; }); });
}

LX_API LxStatus lxSimGetSceneError(char* text, int32_t capacity) {
    return GuardedStatus([&] {
        if (!text) return lxNullPtrErr;
        if (capacity < 1) return lxInvalidParameterErr;
        const size_t n = std::min(tSceneError.size(), static_cast<size_t>(capacity - 1));
        std::copy_n(tSceneError.data(), n, text);
        text[n] = '\0';
        return lxNoError;
    });
}

LX_API LxStatus lxSimSetScene(int32_t serial, const char* sceneJson) {
    return GuardedStatus([&] {
        auto scene = Parse(sceneJson);
        if (!scene) return lxInvalidParameterErr;
        return WithDevice(serial, [&](SimDevice& d) {
            d.SetScene(std::move(scene));
            return lxNoError;
        });
    });
}

LX_API LxStatus lxSimAttachRaw(const char* product, const char* serialString, const char* sceneJson, int32_t* id) {
    return GuardedStatus([&] {
        if (!product || !serialString || !id) return lxNullPtrErr;
        return Attach(product, serialString, sceneJson, id);
    });
}

LX_API LxStatus lxSimDetachId(int32_t id) {
    return GuardedStatus([&] { return DetachWhere([id](const SimDevice& d) { return d.Id() == id; }); });
}

LX_API LxStatus lxSimDetachAll(void) {
    return GuardedStatus([&] {
        std::vector<std::shared_ptr<SimDevice>> gone;
        {
            Registry& r = TheRegistry();
            std::lock_guard lk(r.mu);
            gone.swap(r.devices);
        }
        for (auto& d : gone) d->Detach();
        return lxNoError;
    });
}

LX_API LxStatus lxSimInjectFault(int32_t serial, int32_t fault, int32_t count) {
    return GuardedStatus([&] {
        if (fault < lxSimFaultNone || fault > lxSimFaultStayBusy) return lxInvalidParameterErr;
        return WithDevice(serial, [&](SimDevice& d) { return d.InjectFault(fault, count) ? lxNoError : lxInvalidParameterErr; });
    });
}

LX_API LxStatus lxSimGetCounters(int32_t serial, LxSimCounters* counters) {
    return GuardedStatus([&] {
        if (!counters) return lxNullPtrErr;
        return WithDevice(serial, [&](SimDevice& d) {
            *counters = d.Counters();
            return lxNoError;
        });
    });
}

LX_API LxStatus lxSimResetCounters(int32_t serial) {
    return GuardedStatus([&] {
        return WithDevice(serial, [&](SimDevice& d) {
            d.ResetCounters();
            return lxNoError;
        });
    });
}

LX_API LxStatus lxSimGetPersonality(int32_t serial, int32_t* runFirmware) {
    return GuardedStatus([&] {
        if (!runFirmware) return lxNullPtrErr;
        return WithDevice(serial, [&](SimDevice& d) {
            *runFirmware = d.RunFirmware() ? 1 : 0;
            return lxNoError;
        });
    });
}

LX_API LxStatus lxSimGetVirtualTimeMs(uint64_t* ms) {
    return GuardedStatus([&] {
        if (!ms) return lxNullPtrErr;
        *ms = VirtualNowMs();
        return lxNoError;
    });
}

LX_API LxStatus lxSimAdvanceTimeMs(uint64_t ms) {
    return GuardedStatus([&] {
        if (ms > kMaxAdvanceMs) return lxInvalidParameterErr;
        // Devices count the virtual time in when they next look at their clock.
        AdvanceVirtualMs(ms);
        return lxNoError;
    });
}

LX_API LxStatus lxSimGetGpsInput(int32_t serial, uint8_t* bytes, int32_t capacity, int32_t* count) {
    return GuardedStatus([&] {
        if (!count || (!bytes && capacity > 0)) return lxNullPtrErr;
        if (capacity < 0) return lxInvalidParameterErr;
        return WithDevice(serial, [&](SimDevice& d) {
            *count = static_cast<int32_t>(d.GpsInput(bytes, static_cast<size_t>(capacity)));
            return lxNoError;
        });
    });
}

LX_API LxStatus lxSimGetCommandLog(int32_t serial, uint32_t* words, int32_t capacity, int32_t* count) {
    return GuardedStatus([&] {
        if (!count || (!words && capacity > 0)) return lxNullPtrErr;
        if (capacity < 0) return lxInvalidParameterErr;
        return WithDevice(serial, [&](SimDevice& d) {
            *count = static_cast<int32_t>(d.CommandLog(words, static_cast<size_t>(capacity)));
            return lxNoError;
        });
    });
}

LX_API LxStatus lxSimClearCommandLog(int32_t serial) {
    return GuardedStatus([&] {
        return WithDevice(serial, [&](SimDevice& d) {
            d.ClearCommandLog();
            return lxNoError;
        });
    });
}

} // extern "C"
