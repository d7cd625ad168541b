// The narrow interface between the USB transport and whatever carries its
// bytes: libusb for real hardware, or the simulated LX530.
//
// It holds transport operations only: enumerate, open by index, read the
// identity, select alternate setting 0, vendor control requests, bulk
// transfers (begin / wait with time-out / abort / finish) and close, plus the
// settle sleep. Command words, packet layouts and the calibration record are
// not its business: they belong to the command protocol and the device core.
//
// Threads: a backend may be called from any thread. One device handle is
// driven by one thread at a time (the transport's rule); a backend's own
// completion thread, if it has one, only signals transfers.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace lx::usb {

inline constexpr uint16_t kVendorId = 0x5A3C;
inline constexpr uint16_t kProductId = 0x000C;

// Identity of one enumerated device, as its descriptors give it. The strings
// are already converted to 8-bit characters.
struct DeviceIdentity {
    uint16_t vendorId = 0;
    uint16_t productId = 0;
    std::string product;
    std::string serial;
};

// The two bulk endpoints the host uses, picked by position: the bulk OUT
// endpoint, and the IN data endpoint (index 2 of the interface's endpoint list).
enum class Endpoint : uint8_t { BulkOut, BulkIn };

enum class WaitResult : uint8_t {
    Completed, // the transfer finished (successfully or not: FinishBulk tells the length)
    TimedOut,  // still in flight when the time-out ran out
    Failed     // the wait itself failed (device gone, transfer rejected)
};

// One bulk transfer in flight. The caller keeps the buffer alive and the
// object alive until FinishBulk returned.
class BulkTransfer {
public:
    virtual ~BulkTransfer() = default;
};

class UsbBackend;

// An opened device. Destroying it closes it.
class UsbDevice {
public:
    virtual ~UsbDevice() = default;

    virtual const DeviceIdentity& Identity() const = 0;
    virtual UsbBackend& Backend() = 0;

    virtual bool SelectAltSetting0() = 0;

    // Vendor control requests to the device recipient. Return the count of
    // bytes moved, or -1 on failure.
    virtual int ControlIn(uint8_t request, uint16_t value, uint16_t index, uint8_t* data,
                          uint16_t length, uint32_t timeoutMs) = 0;
    virtual int ControlOut(uint8_t request, uint16_t value, uint16_t index, const uint8_t* data,
                           uint16_t length, uint32_t timeoutMs) = 0;

    // Starts a bulk transfer of `length` bytes from/to `buffer`. Never null:
    // a transfer that cannot start reports Failed from WaitBulk.
    virtual std::unique_ptr<BulkTransfer> BeginBulk(Endpoint ep, uint8_t* buffer,
                                                    uint32_t length) = 0;
    // Waits up to timeoutMs for the transfer to complete.
    virtual WaitResult WaitBulk(BulkTransfer& t, uint32_t timeoutMs) = 0;
    // Cancels every transfer under way on the endpoint; they complete short.
    virtual void AbortEndpoint(Endpoint ep) = 0;
    // Completes the transfer with the driver and returns the bytes moved. Only
    // valid once WaitBulk returned Completed, or after an abort and a wait.
    virtual uint32_t FinishBulk(BulkTransfer& t) = 0;
};

// A source of devices. Enumeration is a snapshot: DeviceCount, then Open by
// index; a device that vanished in between gives null.
class UsbBackend {
public:
    virtual ~UsbBackend() = default;
    virtual const char* Name() const = 0;
    virtual int DeviceCount() = 0;
    virtual std::unique_ptr<UsbDevice> Open(int index) = 0;
    // Waits that exist only for the physical device to settle (re-enumeration,
    // flash erase and write, busy polling). Hardware sleeps; the simulator
    // elapses the time virtually and counts it.
    virtual void Sleep(uint32_t ms) = 0;
};

// The process-wide list of backends in enumeration order: simulated devices
// first, then hardware through libusb. The backends live for the process.
std::vector<UsbBackend*> Backends();

} // namespace lx::usb
