// An emulated USB bus for the libusb backend: umockdev fakes /sys and
// /dev/bus/usb, and this bus answers the usbfs ioctls of the device node from
// a simulated LX530, so that libusb and everything above it run as on hardware.
//
// Threads: umockdev's worker thread runs the ioctl handler and the connect/
// vanish signals, never blocking for long. The bus thread mirrors the device
// onto the testbed (a new node per enumeration), advances the simulator's
// virtual clock with the wall clock while no IN transfer is pending (the
// device counts re-enumeration and busy times in virtual time), and completes
// URBs by waiting on the oldest IN transfer, which makes the device deliver.
// Lock order: the bus's mutex -> the simulated device's lock; transfer waits
// are made without the bus's mutex. A URB's umockdev data is freed only on the
// worker thread, which may still be copying it back to the client after the reap.
#pragma once

#include <cstdint>
#include <memory>

namespace lx::usb::testing {

// Whether the emulated bus works in this process: the preload is loaded and
// redirects /sys to the testbed (made on the first call).
bool BusAvailable();

class Bus {
public:
    // Mirrors the attached simulated device with this serial. Needs BusAvailable().
    explicit Bus(int32_t serial);
    ~Bus();
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;

    // Pulls the plug: ioctls fail with ENODEV, URBs in flight end with
    // ESHUTDOWN, the node goes, and the simulated device is detached.
    void Unplug();
    // Bytes the device returned through bulk IN URBs.
    uint64_t BulkInBytes() const;

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

} // namespace lx::usb::testing
