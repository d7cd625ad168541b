// An emulated USB bus for the libusb backend: umockdev fakes /sys and
// /dev/bus/usb, and this bus answers the usbfs ioctls of the device node from
// a simulated LX530 (through the simulator backend's device handle), so that
// libusb and everything above it run as on hardware.
//
// Threads
//   - umockdev's worker thread runs the ioctl handler (submit, reap, discard,
//     claim...) and the connect/vanish signals; it never blocks for long.
//   - "bus" thread: mirrors the simulated device onto the testbed (adds the
//     device node when it enumerates, removes it when it drops off the bus,
//     a new device number each time), keeps the simulator's virtual clock in
//     step with wall-clock time while no IN transfer is pending (hardware
//     waits here really sleep, and the simulated device counts its
//     re-enumeration and busy times in virtual time), and completes bulk URBs: it waits on the oldest IN transfer,
//     which is what makes the simulated device deliver.
// Lock order: Bus::mu_ -> the simulated device's own lock (inside the
// simulator backend calls). The waits on a transfer are made without mu_.
// A URB's umockdev data is only freed on the worker thread, which may still
// be copying it back to the client after the reap.
#pragma once

#include <umockdev.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace lx::usb {
class UsbDevice;
}

namespace lx::usb::testing {

// Whether the emulated bus works in this process: the preload is loaded and
// redirects /sys to the testbed (made on the first call).
bool BusAvailable();

class Bus {
public:
    // Mirrors the attached simulated device with this serial. Needs
    // BusAvailable().
    explicit Bus(int32_t serial);
    ~Bus();
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;

    // Pulls the plug: every ioctl on an open node fails with ENODEV from now
    // on (URBs in flight are given back with ESHUTDOWN), the node and the
    // sysfs device disappear, and the simulated device is detached.
    void Unplug();
    // Bytes the device returned through bulk IN URBs.
    uint64_t BulkInBytes() const { return inBytes_.load(); }

    struct Urb;
    struct Conn;

private:
    static gboolean OnIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self);
    static void OnConnected(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self);
    static void OnVanished(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self);
    bool Ioctl(UMockdevIoctlClient* client);
    bool Submit(Conn& c, UMockdevIoctlClient* client);
    void Control(Conn& c, Urb& u);
    void Run();
    void Mirror();
    bool Reading();
    void Complete();
    void Show(const std::string& product, const std::string& serial, uint16_t vid, uint16_t pid);
    void Hide();

    const int32_t serial_;
    UMockdevIoctlBase* handler_ = nullptr;
    std::mutex mu_;
    std::map<UMockdevIoctlClient*, std::unique_ptr<Conn>> conns_;
    std::string devnode_;        // the node of the enumeration shown, or empty
    std::vector<std::string> nodes_; // every node the handler answers on
    std::vector<std::shared_ptr<Urb>> graveyard_; // freed by the worker thread
    std::string product_, usbSerial_;
    uint64_t generation_ = 0;    // the simulated enumeration shown
    std::atomic<bool> unplugged_{false}, stop_{false};
    std::atomic<uint64_t> inBytes_{0};
    std::thread thread_;
};

} // namespace lx::usb::testing
