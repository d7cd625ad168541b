#include "lx_api.h"

namespace {
// Kept as a switch so that every member is named once and the compiler warns
// about a missing one.
const char* statusText(LxStatus s) {
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

extern "C" LX_API const char* lxGetErrorString(LxStatus status) { return statusText(status); }

extern "C" LX_API const char* lxGetAPIVersion(void) { return LX_VERSION_STRING; }
