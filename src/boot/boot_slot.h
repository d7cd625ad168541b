// Flash and boot programming: the process-wide boot slot and what the lxBoot*
// exports do with it.
//
// The slot holds at most one device, bound in its boot loader (or, after a
// boot strap, in the image that was downloaded into its RAM), apart from the
// device registry; handle 0 names it.
//
// Threads: every function below takes the slot's mutex for its whole run, so
// boot calls from different threads run one after another. The progress a
// call reports is stored with atomic stores while it runs: another thread may
// poll it (std::atomic_ref) and draw it.
//
// Flash map (1024-byte pages, 256-page sectors):
//   boot image    page 0       one sector, serial patched, version at its end
//   FPGA program  page 1024    eight sectors
//   calibration   page 4096    eight sectors (the 2 MiB record)
//   run image     page 49152   one sector, serial patched
#pragma once

#include <cstdint>
#include <span>

#include "lx_api.h"

namespace lx::usb {
class UsbTransport;
}

namespace lx::boot {

inline constexpr uint32_t kBootImagePage = 0;
inline constexpr uint32_t kFpgaFirstPage = 1024;
inline constexpr uint32_t kCalFirstPage = 4096;
inline constexpr uint32_t kRunImagePage = 49152;
inline constexpr uint32_t kSectorPages = 256;
inline constexpr uint32_t kPageBytes = 1024;
inline constexpr uint32_t kVerifyBlockPages = 32;
inline constexpr int kRegionSectors = 8; // FPGA program and calibration record

// Writes the whole pages of `image` from byteAddress on, then reads them back
// in 32-page blocks and compares. The first failed write ends it with that
// write's status, the first difference with lxFlashTransferErr (-101).
// Progress (optional) moves by 1 / (pages * 1.03125) per page written and per
// block verified, reaching 1 when the page count is a multiple of 32 (never
// more than 1).
LxStatus ProgramImage(usb::UsbTransport& link, std::span<const uint8_t> image, uint32_t byteAddress,
                      double* progress);

LxStatus Strap(int32_t* handle, const char* path);
LxStatus Open(int32_t* handle);
LxStatus OpenBySerial(int32_t* handle, int32_t serial);
LxStatus Close(int32_t handle);
LxStatus GetSerial(int32_t handle, int32_t* serial);
LxStatus ReadFlashBlock(int32_t handle, uint32_t page, uint8_t* buffer);
LxStatus WriteFlashPage(int32_t handle, uint32_t page, const uint8_t* data);
LxStatus ClearFlashPage(int32_t handle, uint32_t page);
LxStatus ClearBootSector(int32_t handle);
LxStatus ClearRunSector(int32_t handle);
LxStatus ClearFpgaProgram(int32_t handle, double* progress);
LxStatus ClearCorrections(int32_t handle, double* progress);
LxStatus WriteFpgaProgram(int32_t handle, const char* path, double* progress);
LxStatus WriteCorrections(int32_t handle, const uint8_t* record, double* progress);
LxStatus WriteRunSector(int32_t handle, const char* path, int32_t serial);
LxStatus WriteBootSector(int32_t handle, const char* path, int32_t serial);

} // namespace lx::boot
