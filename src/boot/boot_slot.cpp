#include "boot/boot_slot.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "boot/boot_image.h"
#include "cal/cal_record.h"
#include "common/lx_assert.h"
#include "lx_lib/cal_files.h"
#include "usb/rom_loader.h"
#include "usb/usb_transport.h"

namespace lx::boot {
namespace {

constexpr uint8_t kRequestReboot = 0xE0;
constexpr uint32_t kControlTimeoutMs = 1000;
constexpr uint32_t kReenumerateMs = 3000;
constexpr uint32_t kFlashReadBytes = kVerifyBlockPages * kPageBytes;
constexpr uint32_t kMaxPage = 0xFFFF; // pages travel in the low 16 bits of the boot-loader words
// A run-firmware device that ignores the reboot request would keep the boot
// open going for ever; real devices answer the first one.
constexpr int kMaxRebootPasses = 16;

std::mutex gSlotMutex;
std::unique_ptr<usb::UsbTransport> gSlot;

void Report(const char* what, uint32_t page) { DebugOutput(std::string(what) + std::to_string(page) + "\n"); }

void SetProgress(double* progress, double value) {
    if (progress) std::atomic_ref<double>(*progress).store(std::min(value, 1.0), std::memory_order_relaxed);
}

// The common checks: slot empty, then handle not 0. Each operation starts a
// fresh account of the link, so that a transfer that failed in an earlier
// call does not fail this one.
template <typename F>
LxStatus WithSlot(int32_t handle, F&& body) {
    std::lock_guard lock(gSlotMutex);
    if (!gSlot) return lxDeviceNotFoundErr;
    if (handle != 0) return lxInvalidDeviceErr;
    gSlot->ClearLinkStatus();
    return body(*gSlot);
}

// Binds a device in its boot loader (or in a downloaded image) to the slot.
LxStatus Take(std::unique_ptr<usb::UsbDevice> dev, int32_t* handle) {
    auto link = std::make_unique<usb::UsbTransport>();
    if (!link->BindEndpoints(std::move(dev))) return lxDeviceNotFoundErr;
    link->SetOpen(true);
    usb::WaitNotBusy(link->Device());
    gSlot = std::move(link);
    *handle = 0;
    return lxNoError;
}

void SendReboot(usb::UsbDevice& dev) {
    dev.ControlOut(kRequestReboot, 0, 0, nullptr, 0, kControlTimeoutMs);
    dev.Backend().Sleep(kReenumerateMs);
}

LxStatus EraseRegion(usb::UsbTransport& link, uint32_t firstPage, double* progress, bool report) {
    SetProgress(progress, 0.0);
    for (int k = 0; k < kRegionSectors; ++k) {
        const uint32_t page = firstPage + kSectorPages * static_cast<uint32_t>(k);
        if (report) Report("Erasing Page ", page);
        if (link.EraseFlashPage(page) != lxNoError) return lxFlashTransferErr;
        // 0.125 * k after erase k: the last one leaves 0.875, as callers know it.
        SetProgress(progress, 0.125 * k);
    }
    return lxNoError;
}

} // namespace

LxStatus ProgramImage(usb::UsbTransport& link, std::span<const uint8_t> image, uint32_t byteAddress,
                      double* progress) {
    const uint32_t pages = static_cast<uint32_t>(image.size() / kPageBytes); // whole pages only
    const uint32_t firstPage = byteAddress / kPageBytes;
    if (pages == 0) return lxNoError;
    const double step = 1.0 / (pages * 1.03125);
    double done = 0.0;
    for (uint32_t p = 0; p < pages; ++p) {
        Report("Writing Page ", firstPage + p);
        const LxStatus st = link.WriteFlashPage(firstPage + p, image.data() + size_t{p} * kPageBytes);
        if (st != lxNoError) return st;
        SetProgress(progress, done += step);
    }
    std::vector<uint8_t> block(kFlashReadBytes);
    for (uint32_t b = 0; b < pages; b += kVerifyBlockPages) {
        Report("Verifying Page ", firstPage + b);
        const size_t bytes = size_t{std::min(kVerifyBlockPages, pages - b)} * kPageBytes;
        const uint8_t* want = image.data() + size_t{b} * kPageBytes;
        // The read's status is not looked at: a read that fails leaves the
        // complement of the image in the buffer, which can never compare equal.
        for (size_t i = 0; i < bytes; ++i) block[i] = static_cast<uint8_t>(~want[i]);
        link.ReadFlash(firstPage + b, block.data());
        if (std::memcmp(block.data(), want, bytes) != 0) return lxFlashTransferErr;
        SetProgress(progress, done += step);
    }
    return lxNoError;
}

LxStatus Strap(int32_t* handle, const char* path) {
    std::lock_guard lock(gSlotMutex);
    if (gSlot) return lxMaxDevicesConnectedErr;
    if (!handle || !path) return lxNullPtrErr;
    const std::vector<uint8_t> image = ReadImageFile(path, kImageMaxBytes);
    if (image.empty()) return lxFileIOErr;
    // The ROM loader checks the checksum itself; an image it refuses leaves
    // it where it was, and no boot loader turns up below.
    if (const auto layout = ParseImage(image)) {
        std::vector<usb::RamSection> sections;
        for (const ImageSection& s : layout->sections)
            sections.push_back({s.address, {image.data() + s.offset, size_t{s.words} * 4}});
        usb::DownloadToRomLoader(sections, layout->entry, layout->storedChecksum);
    }
    const std::vector<int32_t> serials = usb::ListSerials({usb::kProductId});
    std::unique_ptr<usb::UsbDevice> dev = serials.empty() ? nullptr : usb::FindBySerial(serials.front());
    if (!dev) return lxDeviceNotFoundErr;
    return Take(std::move(dev), handle);
}

LxStatus Open(int32_t* handle) {
    std::lock_guard lock(gSlotMutex);
    if (!handle) return lxNullPtrErr;
    if (gSlot) return lxMaxDevicesConnectedErr;
    for (int pass = 0; pass < kMaxRebootPasses; ++pass) {
        std::unique_ptr<usb::UsbDevice> run;
        for (const usb::BootCandidate& c : usb::ListBootCandidates()) {
            if (!c.isRunFirmware) continue;
            run = usb::FindBySerial(c.serial);
            if (run) break;
        }
        if (!run) break;
        SendReboot(*run);
    }
    const std::vector<usb::BootCandidate> candidates = usb::ListBootCandidates();
    if (candidates.empty() || candidates.front().isRunFirmware) return lxDeviceNotFoundErr;
    std::unique_ptr<usb::UsbDevice> dev = usb::FindBySerial(candidates.front().serial);
    if (!usb::IsBootLoader(dev.get())) return lxDeviceNotFoundErr;
    return Take(std::move(dev), handle);
}

LxStatus OpenBySerial(int32_t* handle, int32_t serial) {
    std::lock_guard lock(gSlotMutex);
    if (!handle) return lxNullPtrErr;
    if (gSlot) return lxMaxDevicesConnectedErr;
    std::unique_ptr<usb::UsbDevice> dev = usb::FindBySerial(serial);
    if (usb::IsRunFirmware(dev.get())) {
        SendReboot(*dev);
        dev = usb::FindBySerial(serial);
    }
    if (!usb::IsBootLoader(dev.get())) return lxDeviceNotFoundErr;
    return Take(std::move(dev), handle);
}

LxStatus Close(int32_t handle) {
    std::lock_guard lock(gSlotMutex);
    if (!gSlot || handle != 0) return lxInvalidDeviceErr;
    gSlot->RebootToLoader();
    gSlot->Close();
    gSlot.reset();
    return lxNoError;
}

LxStatus GetSerial(int32_t handle, int32_t* serial) {
    std::lock_guard lock(gSlotMutex);
    if (handle != 0) return lxInvalidDeviceErr;
    if (!gSlot) return lxDeviceNotFoundErr;
    if (!serial) return lxNullPtrErr;
    *serial = gSlot->Serial();
    return lxNoError;
}

LxStatus ReadFlashBlock(int32_t handle, uint32_t page, uint8_t* buffer) {
    return WithSlot(handle, [&](usb::UsbTransport& link) {
        if (!buffer) return lxNullPtrErr;
        if (page > kMaxPage) return lxInvalidParameterErr;
        return link.ReadFlash(page, buffer) == lxNoError ? lxNoError : lxFlashTransferErr;
    });
}

LxStatus WriteFlashPage(int32_t handle, uint32_t page, const uint8_t* data) {
    return WithSlot(handle, [&](usb::UsbTransport& link) {
        if (!data) return lxNullPtrErr;
        if (page > kMaxPage) return lxInvalidParameterErr;
        return link.WriteFlashPage(page, data) == lxNoError ? lxNoError : lxFlashTransferErr;
    });
}

LxStatus ClearFlashPage(int32_t handle, uint32_t page) {
    return WithSlot(handle, [&](usb::UsbTransport& link) {
        if (page > kMaxPage) return lxInvalidParameterErr;
        // Only a positive result counts as a failure here; a lost link does
        // not (kept for existing callers: check with a read-back).
        return link.EraseFlashPage(page) > 0 ? lxFlashTransferErr : lxNoError;
    });
}

LxStatus ClearBootSector(int32_t handle) {
    return WithSlot(handle, [&](usb::UsbTransport& link) {
        return link.EraseFlashPage(kBootImagePage) == lxNoError ? lxNoError : lxFlashTransferErr;
    });
}

LxStatus ClearRunSector(int32_t handle) {
    return WithSlot(handle, [&](usb::UsbTransport& link) {
        return link.EraseFlashPage(kRunImagePage) == lxNoError ? lxNoError : lxFlashTransferErr;
    });
}

LxStatus ClearFpgaProgram(int32_t handle, double* progress) {
    return WithSlot(handle, [&](usb::UsbTransport& link) {
        if (!progress) return lxNullPtrErr;
        return EraseRegion(link, kFpgaFirstPage, progress, true);
    });
}

LxStatus ClearCorrections(int32_t handle, double* progress) {
    return WithSlot(handle, [&](usb::UsbTransport& link) {
        if (!progress) return lxNullPtrErr;
        return EraseRegion(link, kCalFirstPage, progress, false);
    });
}

LxStatus WriteFpgaProgram(int32_t handle, const char* path, double* progress) {
    return WithSlot(handle, [&](usb::UsbTransport& link) {
        if (!path || !progress) return lxNullPtrErr;
        SetProgress(progress, 0.0);
        const std::vector<uint8_t> image = ReadImageFile(path, kFpgaMaxBytes);
        if (image.empty()) return lxFileIOErr;
        return ProgramImage(link, image, kFpgaFirstPage * kPageBytes, progress) == lxNoError ? lxNoError
                                                                                              : lxFlashTransferErr;
    });
}

LxStatus WriteCorrections(int32_t handle, const uint8_t* record, double* progress) {
    return WithSlot(handle, [&](usb::UsbTransport& link) {
        if (!record || !progress) return lxNullPtrErr;
        SetProgress(progress, 0.0);
        const std::vector<uint8_t> image(record, record + calSizeBytes);
        // A programming failure is reported with the file status here.
        if (ProgramImage(link, image, kCalFirstPage * kPageBytes, progress) != lxNoError) return lxFileIOErr;
        // The cache file is a copy of the flash record, which just changed:
        // an earlier copy with the same date (say, of a record damaged by a
        // failed write) would otherwise be taken instead of the flash.
        if (link.Serial() >= 0) SaveCalFile(link.Serial(), image.data());
        return lxNoError;
    });
}

LxStatus WriteRunSector(int32_t handle, const char* path, int32_t serial) {
    return WithSlot(handle, [&](usb::UsbTransport& link) {
        if (!path) return lxNullPtrErr;
        std::vector<uint8_t> image = ReadImageFile(path, kImageMaxBytes);
        if (image.empty()) return lxFileIOErr;
        PatchSerial(image, serial < 1 ? link.Serial() : serial);
        return ProgramImage(link, image, kRunImagePage * kPageBytes, nullptr) == lxNoError ? lxNoError
                                                                                            : lxFlashTransferErr;
    });
}

LxStatus WriteBootSector(int32_t handle, const char* path, int32_t serial) {
    return WithSlot(handle, [&](usb::UsbTransport& link) {
        if (!path) return lxNullPtrErr;
        std::vector<uint8_t> image = ReadImageFile(path, kImageMaxBytes);
        if (image.empty()) return lxFileIOErr;
        PatchSerial(image, serial);
        const auto version = FindVersionMarker(image);
        if (!version) return lxFileIOErr;
        // The boot loader finds the version at the end of its sector.
        image[image.size() - 2] = image[*version];
        image[image.size() - 1] = image[*version + 1];
        return ProgramImage(link, image, kBootImagePage * kPageBytes, nullptr) == lxNoError ? lxNoError
                                                                                            : lxFileIOErr;
    });
}

} // namespace lx::boot
