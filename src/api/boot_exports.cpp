// Flash and boot programming exports (C++ linkage, see lx_api.h).
#include "api/export_guard.h"
#include "boot/boot_slot.h"
#include "lx_api.h"

using lx::api::GuardedStatus;
namespace boot = lx::boot;

LX_API LxStatus lxBootStrap(int32_t* handle, const char* path) {
    return GuardedStatus([&] { return boot::Strap(handle, path); });
}

LX_API LxStatus lxBootOpenDevice(int32_t* handle) {
    return GuardedStatus([&] { return boot::Open(handle); });
}

LX_API LxStatus lxBootOpenDeviceBySerial(int32_t* handle, int32_t serial) {
    return GuardedStatus([&] { return boot::OpenBySerial(handle, serial); });
}

LX_API LxStatus lxBootCloseDevice(int32_t handle) {
    return GuardedStatus([&] { return boot::Close(handle); });
}

LX_API LxStatus lxBootGetSerial(int32_t handle, int32_t* serial) {
    return GuardedStatus([&] { return boot::GetSerial(handle, serial); });
}

LX_API LxStatus lxBootReadFlashPage(int32_t handle, uint32_t page, uint8_t* buffer) {
    return GuardedStatus([&] { return boot::ReadFlashBlock(handle, page, buffer); });
}

LX_API LxStatus lxBootWriteFlashPage(int32_t handle, uint32_t page, const uint8_t* data) {
    return GuardedStatus([&] { return boot::WriteFlashPage(handle, page, data); });
}

LX_API LxStatus lxBootClearFlashPage(int32_t handle, uint32_t page) {
    return GuardedStatus([&] { return boot::ClearFlashPage(handle, page); });
}

LX_API LxStatus lxBootClearBootSector(int32_t handle) {
    return GuardedStatus([&] { return boot::ClearBootSector(handle); });
}

LX_API LxStatus lxBootClearRunSector(int32_t handle) {
    return GuardedStatus([&] { return boot::ClearRunSector(handle); });
}

LX_API LxStatus lxBootClearFPGAProgram(int32_t handle, double* progress) {
    return GuardedStatus([&] { return boot::ClearFpgaProgram(handle, progress); });
}

LX_API LxStatus lxBootClearCorrections(int32_t handle, double* progress) {
    return GuardedStatus([&] { return boot::ClearCorrections(handle, progress); });
}

LX_API LxStatus lxBootWriteFPGAProgram(int32_t handle, const char* path, double* progress) {
    return GuardedStatus([&] { return boot::WriteFpgaProgram(handle, path, progress); });
}

LX_API LxStatus lxBootWriteCorrections(int32_t handle, const LX530CalData* cal, double* progress) {
    return GuardedStatus([&] { return boot::WriteCorrections(handle, cal ? cal->raw : nullptr, progress); });
}

LX_API LxStatus lxBootWriteRunSector(int32_t handle, const char* path, int32_t serial) {
    return GuardedStatus([&] { return boot::WriteRunSector(handle, path, serial); });
}

LX_API LxStatus lxBootWriteBootSector(int32_t handle, const char* path, int32_t serial) {
    return GuardedStatus([&] { return boot::WriteBootSector(handle, path, serial); });
}
