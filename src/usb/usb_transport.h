// UsbTransport: the host's link to one LX530.
//
// It finds receivers on the USB bus (through every backend: simulated devices
// first, then hardware), binds one of them, moves command blocks out and data
// blocks in through 32 OUT and 32 IN transfer slots, and brings a device from
// its boot loader into its run firmware while caching its calibration record.
//
// Threads: the transport has none of its own and holds no lock. One thread at
// a time drives it: the caller's thread while opening and configuring, an
// engine's USB thread while it streams. The link status and the framing flag
// are atomics so that another thread may read them at any time.
// The process-wide open-serials set has its own mutex; it is a leaf lock, held
// only to insert, erase or copy the set, never across a backend call.
//
// Every settle wait (re-enumeration, busy polls, flash writes and erases) goes
// through UsbBackend::Sleep of the device found last, so that the simulated
// instrument elapses it in virtual time even after the device has gone.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "lx_api.h"
#include "usb/usb_backend.h"

namespace lx {
class CommandList;
}

namespace lx::usb {

// Slot buffers: the 32 OUT buffers (2 KiB each) are allocated at bind; an IN
// slot's 1 MiB buffer on its first read, kept until Close. Opening uses IN
// slot 0 only, so an open device that never streams holds 1 MiB, not 32.
inline constexpr int kSlotCount = 32;
inline constexpr uint32_t kOutSlotBytes = 2048;     // one command block
inline constexpr uint32_t kInSlotBytes = 0x100000;  // the largest read an engine queues
inline constexpr uint32_t kFlashReadBytes = 32768;  // one boot-loader flash read: 32 pages
inline constexpr uint32_t kFlashPageBytes = 1024;
inline constexpr uint32_t kCalFirstPage = 4096;     // the calibration record's place in flash

// Vendor requests to the device recipient.
inline constexpr uint8_t kRequestBusyPoll = 0xC2;  // IN, 4 bytes; byte 1 == 1 while busy
inline constexpr uint8_t kRequestReboot = 0xE0;    // OUT, no data: back to the boot loader

inline constexpr const char* kRunFirmwareProduct = "LX530";
inline constexpr const char* kBootLoaderProduct = "LX530 Boot";

// What finishing a transfer returns. `buffer` is the IN slot's buffer (null
// for OUT), valid until the slot's next BeginRead or Close.
struct TransferResult {
    bool timedOut = false;
    uint32_t requested = 0;
    uint32_t transferred = 0;
    uint8_t* buffer = nullptr;
};

struct BootCandidate {
    int32_t serial = -1;
    bool isRunFirmware = false;
    int32_t reserved = 0;
};

// The serial number of a USB serial string: exactly 8 decimal digits (the
// length counted up to the first NUL), else -1. Such a device is never listed
// or matched.
int32_t SerialFromString(const std::string& s);

// Devices with vendor 0x5A3C, a product ID in the list and a valid serial
// that no transport of this process has bound, in enumeration order. Product
// strings are not looked at: boot loader and run firmware both count.
std::vector<int32_t> ListSerials(const std::vector<uint16_t>& acceptedProductIds);

// Devices whose product string is exactly "LX530 Boot" or "LX530", with a
// valid serial not bound in this process.
std::vector<BootCandidate> ListBootCandidates();

// The first device with vendor 0x5A3C, product 0x000C and this serial, opened;
// null when there is none. The caller owns it.
std::unique_ptr<UsbDevice> FindBySerial(int32_t serial);

// Exact product-string tests; false for no device. "LX530" must be the whole
// string for run firmware.
bool IsBootLoader(const UsbDevice* dev);
bool IsRunFirmware(const UsbDevice* dev);

// Polls the busy request every 100 ms (through the device's backend sleep)
// until the device reports idle; false after 10 000 ms or for no device.
bool WaitNotBusy(UsbDevice* dev);

class UsbTransport {
public:
    UsbTransport();
    ~UsbTransport(); // closes when still bound
    UsbTransport(const UsbTransport&) = delete;
    UsbTransport& operator=(const UsbTransport&) = delete;

    // Finds the device with this serial, brings it through its boot loader
    // when its calibration record has to come from flash, caches the record,
    // and leaves it bound in its run firmware after a successful handshake.
    // lxDeviceNotFoundErr, lxBootErr, lxConnectionLostErr on failure (the
    // transport is then closed). lxInvalidDeviceErr when already bound.
    LxStatus OpenWithCalibration(int32_t serial);

    // Takes the device: reads its serial, selects alternate setting 0 and
    // marks the serial as bound in this process. False (device dropped) when
    // already bound, for no device, or when the interface cannot be claimed.
    bool BindEndpoints(std::unique_ptr<UsbDevice> dev);

    // Sends every block of the list, one per OUT transfer on slot 0 with a
    // 2000 ms time-out; stops at the first block that leaves the link status
    // negative. The list must be whole blocks.
    bool Send(const CommandList& cmds);

    // Queue a transfer on a slot (0..31). IN lengths up to kInSlotBytes; OUT
    // data is copied into the slot (up to kOutSlotBytes). False, with nothing
    // started, for a bad slot or length, a slot that is busy, or no device;
    // finishing such a slot then reports a lost connection.
    bool BeginRead(int slot, uint32_t length, uint32_t timeoutMs);
    bool BeginWrite(int slot, std::span<const uint32_t> words, uint32_t timeoutMs);
    // Allocates every IN slot's buffer that is still missing and writes it
    // once, so that a stream never allocates or takes a page fault in its
    // first transfers (a 1 MiB buffer faulted in page by page costs the
    // acquisition thread milliseconds at the start of a stream). False when an
    // allocation failed; BeginRead then tries again and fails that read.
    bool ReserveReadSlots();

    // Waits for the slot's transfer for its time-out; on a time-out or failed
    // wait aborts the endpoint and waits up to 2000 ms more. A time-out or a
    // short transfer leaves lxConnectionLostErr in the link status.
    TransferResult FinishRead(int slot);
    TransferResult FinishWrite(int slot);

    // Drains stale data, then asks for one aux packet up to 16 times; true on
    // the first answer.
    bool Handshake();

    // Vendor request 0xE0 when a device is bound, then 3000 ms in any case.
    // True when the request was sent.
    bool RebootToLoader();

    // Boot-loader flash access (the device must run its boot loader).
    // ReadFlash fills 32 KiB from `page` on; WriteFlashPage writes 1 KiB.
    // Pages must be below 0x10000 (lxInvalidParameterErr, nothing sent).
    LxStatus ReadFlash(uint32_t page, uint8_t* out32k);
    LxStatus WriteFlashPage(uint32_t page, const uint8_t* data1k);
    LxStatus EraseFlashPage(uint32_t page);

    // Starts the run image of the boot-loader device with this serial through
    // a temporary transport. 0 when started (or already in run firmware), -1
    // when no such device, lxBootErr for any other product.
    int StartRunImage(int32_t serial);

    // Releases every slot (aborting transfers), unbinds the serial and closes
    // the device. The calibration image and its flag are kept.
    void Close();

    // Settle wait through the backend of the device found last (a real sleep
    // when there never was one).
    void Sleep(uint32_t ms);

    bool IsOpen() const { return open_; }
    void SetOpen(bool open) { open_ = open; }
    bool IsBound() const { return device_ != nullptr; }
    int32_t Serial() const { return serial_; }
    UsbDevice* Device() { return device_.get(); }

    LxStatus LinkStatus() const { return static_cast<LxStatus>(linkStatus_.load()); }
    void SetLinkStatus(LxStatus s) { linkStatus_.store(s); }
    void ClearLinkStatus() { linkStatus_.store(lxNoError); }

    // Set by whoever parses the data (device core, engines) when an aux record
    // lacks its magic word; cleared by them.
    bool FramingError() const { return framingError_.load(); }
    void SetFramingError(bool on) { framingError_.store(on); }

    // The calibration record: 0xFF until read from flash or the cache.
    uint8_t* CalImage() { return calImage_.get(); }
    const uint8_t* CalImage() const { return calImage_.get(); }
    int CalInvalid() const { return calInvalid_; }

private:
    struct Slot;

    LxStatus BindRunFirmware(std::unique_ptr<UsbDevice> dev);
    LxStatus ReadCalibrationFromLoader(int32_t serial, std::unique_ptr<UsbDevice> dev);
    bool BeginTransfer(bool in, int slot, uint32_t length, uint32_t timeoutMs,
                       std::span<const uint32_t> words);
    TransferResult FinishTransfer(bool in, int slot);
    void Found(UsbDevice* dev);
    void ReleaseSlots();

    std::unique_ptr<uint8_t[]> calImage_;
    int calInvalid_ = 0;
    std::unique_ptr<UsbDevice> device_;
    UsbBackend* sleepBackend_ = nullptr;
    bool open_ = false;
    int32_t serial_ = -1;
    std::unique_ptr<Slot[]> outSlots_;
    std::unique_ptr<Slot[]> inSlots_;
    std::atomic<int32_t> linkStatus_{lxNoError};
    std::atomic<bool> framingError_{false};
};

} // namespace lx::usb
