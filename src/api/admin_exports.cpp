// Service functions on an open device (C++ linkage).
#include <cstring>

#include "api/registry.h"
#include "cal/cal_record.h"
#include "lx_api.h"

using namespace lx;
using namespace lx::api;

LX_API LxStatus lxAdminGetTempRange(int32_t handle, LxTempRange* range) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!range) return lxNullPtrErr;
        const uint32_t code = CalTempRangeCode(d.Cal());
        switch (code) {
        case 0: *range = lxTempRange0; break;
        case 1: *range = lxTempRange1; break;
        case 2: *range = lxTempRange2; break;
        case 0xFFFFFFFEu:
        case 0xFFFFFFFFu: *range = lxTempRangeNone; break;
        default: *range = lxTempRangeUnknown; break;
        }
        return lxNoError;
    });
}

LX_API LxStatus lxAdminHasDithering(int32_t handle, bool* hasDithering) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        // Documented as unchecked; a null pointer is still refused here
        // rather than written through.
        if (!hasDithering) return lxNullPtrErr;
        *hasDithering = (d.statusWord & 1u) == 0;
        return lxNoError;
    });
}

LX_API LxStatus lxAdminSetCorrectionMode(int32_t handle, LxCorrectionMode mode) {
    // A C caller may pass any int; reading it as the enum would be undefined
    // outside 0..1, so take the bits as passed.
    uint32_t value;
    static_assert(sizeof value == sizeof mode);
    std::memcpy(&value, &mode, sizeof value);
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (value > 1) return lxInvalidParameterErr;
        d.correctionMode = value;
        return lxNoError;
    });
}

LX_API LxStatus lxAdminSetCorrectionIndex(int32_t handle, int32_t index) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (index < 0) {
            d.manualCorrectionIndex = 0;
            return lxSettingClamped;
        }
        if (index > 6) {
            d.manualCorrectionIndex = 6;
            return lxSettingClamped;
        }
        d.manualCorrectionIndex = index;
        return lxNoError;
    });
}

LX_API LxStatus lxAdminManualLoadCorrections(int32_t handle, const LX530CalData* cal) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!cal) return lxNullPtrErr;
        std::memcpy(d.Cal(), cal, calSizeBytes);
        return lxNoError;
    });
}

LX_API LxStatus lxAdminDeviceHasCorrections(int32_t handle, bool* has) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!has) return lxNullPtrErr;
        *has = CalIsProgrammed(d.Transport().CalImage());
        return lxNoError;
    });
}

LX_API LxStatus lxAdminGetCoarseTuneVal(int32_t handle, uint16_t* value) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!value) return lxNullPtrErr;
        *value = d.coarseTune;
        return lxNoError;
    });
}

LX_API LxStatus lxAdminSetCoarseTuneVal(int32_t handle, uint16_t value) {
    return WithDevice(handle, [&](Device& d) -> LxStatus { return d.WriteCoarseTune(value); });
}
