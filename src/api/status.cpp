#include <cstdint>
#include <cstring>

#include "lx_api.h"

namespace {
// Switches on the integer, not the enumeration: a C caller may pass any
// 32-bit value, and one outside the enumeration's range is undefined as an
// LxStatus in C++.
const char* statusText(int32_t s) {
    switch (s) {
    case lxFlashTransferErr: return "Flash transfer error";
    case lxFileIOErr: return "File I/O error";
    case lxAllocationErr: return "Memory allocation error";
    case lxMaxDevicesConnectedErr: return "Max devices connected";
    case lxInvalidConfigurationErr: return "Invalid configuration";
    case lxSweepAlreadyActiveErr: return "Sweep already active";
    case lxBootErr: return "Boot error";
    case lxFramingErr: return "USB framing error";
    case lxConnectionLostErr: return "Connection lost";
    case lxInvalidDeviceErr: return "Invalid device specified";
    case lxNullPtrErr: return "Null pointer specified";
    case lxInvalidParameterErr: return "Invalid parameter specified";
    case lxDeviceNotFoundErr: return "Device not found";
    case lxNoError: return "No error";
    case lxSettingClamped: return "Setting clamped";
    case lxTempDrift: return "Temp drift warning";
    case lxADCOverflow: return "ADC overflow";
    case lxUncalData: return "Uncal data, potential USB data loss";
    case lxCPULimited: return "Exceeded CPU resources";
    case lxInvalidCalData: return "Invalid calibration data";
    }
    return "Unknown error";
}
} // namespace

extern "C" LX_API const char* lxGetErrorString(LxStatus status) {
    int32_t value;
    static_assert(sizeof value == sizeof status);
    std::memcpy(&value, &status, sizeof value); // the bits as passed, never the enum's value
    return statusText(value);
}

extern "C" LX_API const char* lxGetAPIVersion(void) { return LX_VERSION_STRING; }
