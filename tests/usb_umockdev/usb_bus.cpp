#include "usb_bus.h"

#include <linux/ioctl.h>
#include <linux/usbdevice_fs.h>
#include <umockdev.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "lx_sim.h"
#include "sim/sim_backend.h"
#include "sim/sim_registry.h"
#include "usb/usb_backend.h"

namespace lx::usb::testing {
namespace {

constexpr uint8_t kOutAddress = 0x01, kInAddress = 0x81;

// One testbed for the process: libusb's context (and its udev monitor) is
// process-wide and lives on the testbed it first saw.
UMockdevTestbed* Testbed() {
    struct Holder {
        UMockdevTestbed* tb = umockdev_testbed_new();
        ~Holder() { g_object_unref(tb); } // removes its temporary root
    };
    static Holder h;
    return h.tb;
}

int gDevnum = 0; // device numbers are never reused within a run, as on a real bus

// Device descriptor, then configuration 1: interface 0, alternate setting 0,
// with the bulk OUT endpoint first and the bulk IN data endpoint second; in hex.
std::string DescriptorsHex(uint16_t vid, uint16_t pid, bool hasSerial) {
    const std::vector<uint8_t> d = {
        18, 1, 0x00, 0x02, 0, 0, 0, 64, uint8_t(vid), uint8_t(vid >> 8), uint8_t(pid), uint8_t(pid >> 8),
        0x00, 0x01, 0, 2, uint8_t(hasSerial ? 3 : 0), 1,
        9, 2, 32, 0, 1, 1, 0, 0x80, 50,
        9, 4, 0, 0, 2, 0xFF, 0, 0, 0,
        7, 5, kOutAddress, 2, 0x00, 0x02, 0,
        7, 5, kInAddress, 2, 0x00, 0x02, 0};
    std::string s;
    char b[3];
    for (uint8_t v : d) s += (std::snprintf(b, sizeof b, "%02x", v), b);
    return s;
}

std::vector<uint8_t> StringDescriptor(const std::string& s) {
    std::vector<uint8_t> d{uint8_t(2 + 2 * s.size()), 3};
    for (char ch : s) d.insert(d.end(), {uint8_t(ch), 0});
    return d;
}

struct Urb {
    UMockdevIoctlData* data = nullptr; // the client's usbdevfs_urb, resolved
    UMockdevIoctlData* buf = nullptr;  // its buffer, resolved (the device writes IN data here)
    std::unique_ptr<BulkTransfer> t;
    Endpoint ep = Endpoint::BulkIn;
    int status = 0;
    uint32_t actual = 0;
    usbdevfs_urb* Get() const { return static_cast<usbdevfs_urb*>(static_cast<void*>(data->data)); }
    ~Urb() {
        t.reset(); // out of the device's queue before its buffer goes
        if (buf != nullptr) g_object_unref(buf);
        if (data != nullptr) g_object_unref(data);
    }
};

struct Conn {
    std::string devnode;
    std::shared_ptr<UsbDevice> dev; // null: the node no longer leads to a device
    std::deque<std::shared_ptr<Urb>> pending, done;
};

} // namespace

bool BusAvailable() {
    Testbed();
    return umockdev_in_mock_environment();
}

struct Bus::Impl {
    const int32_t serial;
    UMockdevIoctlBase* handler = umockdev_ioctl_base_new();
    std::mutex mu;
    std::map<UMockdevIoctlClient*, std::unique_ptr<Conn>> conns;
    std::string devnode;                        // the node of the enumeration shown, or empty
    std::vector<std::string> nodes;             // every node the handler answers on
    std::vector<std::shared_ptr<Urb>> graveyard; // freed by the worker thread
    std::string product, usbSerial;
    uint64_t generation = 0; // the simulated enumeration shown
    std::atomic<bool> unplugged{false}, stop{false};
    std::atomic<uint64_t> inBytes{0};
    std::thread thread;

    explicit Impl(int32_t s) : serial(s) {
        g_signal_connect_after(handler, "handle-ioctl",
                               G_CALLBACK(+[](UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self) {
                                   return static_cast<Impl*>(self)->Ioctl(client) ? TRUE : FALSE;
                               }),
                               this);
        g_signal_connect(handler, "client-connected",
                         G_CALLBACK(+[](UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self) {
                             static_cast<Impl*>(self)->Connected(client);
                         }),
                         this);
        g_signal_connect(handler, "client-vanished",
                         G_CALLBACK(+[](UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self) {
                             auto& bus = *static_cast<Impl*>(self);
                             std::lock_guard lk(bus.mu);
                             bus.conns.erase(client);
                         }),
                         this);
        Mirror();
        thread = std::thread([this] { Run(); });
    }

    ~Impl() {
        stop = true;
        thread.join();
        // No callback may reach this object any more: a handle left open on one
        // of its nodes would otherwise outlive it.
        g_signal_handlers_disconnect_by_data(handler, this);
        std::lock_guard lk(mu);
        Hide();
        for (const std::string& node : nodes) umockdev_testbed_detach_ioctl(Testbed(), node.c_str(), nullptr);
        conns.clear();
        g_object_unref(handler);
    }

    // The bus thread.
    void Run() {
        auto last = std::chrono::steady_clock::now();
        while (!stop) {
            Mirror();
            const bool reading = Complete();
            const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - last);
            last += ms;
            // Not while data is asked for: the device counts virtual time into its
            // sample timeline, and a stream would see a gap.
            if (ms.count() > 0 && !reading) lxSimAdvanceTimeMs(static_cast<uint64_t>(ms.count()));
        }
    }

    void Mirror() {
        auto d = sim::FindBySerial(serial);
        DeviceIdentity id;
        uint64_t gen = 0;
        const bool present = !unplugged && d && d->PresentNow(&id, &gen);
        std::lock_guard lk(mu);
        if (present && gen == generation && !devnode.empty()) return;
        Hide();
        if (!present) return;
        generation = gen;
        gDevnum = gDevnum % 127 + 1;
        char node[64];
        std::snprintf(node, sizeof node, "/dev/bus/usb/001/%03d", gDevnum);
        // The handler first, so that the node answers as soon as libusb sees it.
        if (!umockdev_testbed_attach_ioctl(Testbed(), node, handler, nullptr)) return;
        nodes.push_back(node);
        const std::string desc = "P: /devices/usb1\nN: " + std::string(node + 5) +
                                 "\nE: SUBSYSTEM=usb\nE: DRIVER=usb\nE: BUSNUM=001\nE: DEVNUM=" + std::string(node + 17) +
                                 "\nE: DEVNAME=" + node + "\nE: DEVTYPE=usb_device\nA: busnum=1\\n\nA: devnum=" +
                                 std::to_string(gDevnum) + "\\n\nA: bConfigurationValue=1\\n\nA: speed=480\\n\n" +
                                 "H: descriptors=" + DescriptorsHex(id.vendorId, id.productId, !id.serial.empty()) + "\n";
        if (!umockdev_testbed_add_from_string(Testbed(), desc.c_str(), nullptr)) return;
        devnode = node;
        product = id.product;
        usbSerial = id.serial;
    }

    // Whether the enumeration the node stands for is still on the bus.
    bool StillHere() {
        auto d = sim::FindBySerial(serial);
        DeviceIdentity id;
        uint64_t gen = 0;
        return !unplugged && d && d->PresentNow(&id, &gen) && gen == generation;
    }

    void Hide() {
        if (devnode.empty()) return;
        umockdev_testbed_remove_device(Testbed(), "/sys/devices/usb1");
        // The handler stays attached: a handle still open on the old node gets
        // ENODEV, as from the kernel, rather than a dropped connection.
        for (auto& [client, c] : conns)
            if (c->devnode == devnode) c->dev.reset();
        devnode.clear();
    }

    // Waits on the oldest IN transfer (the simulated device delivers while a
    // transfer is waited on), then hands back every URB that finished. True
    // while an IN transfer is pending.
    bool Complete() {
        std::shared_ptr<Urb> head;
        std::shared_ptr<UsbDevice> dev;
        {
            std::lock_guard lk(mu);
            for (auto& [client, c] : conns)
                for (auto& u : c->pending)
                    if (!head && u->ep == Endpoint::BulkIn && c->dev) head = u, dev = c->dev;
        }
        if (head) dev->WaitBulk(*head->t, 5);
        else std::this_thread::sleep_for(std::chrono::milliseconds(2));

        std::lock_guard lk(mu);
        // Reaped or discarded meanwhile: umockdev may still be copying its data
        // back to the client on its worker thread, which therefore frees it.
        // (Every other owner changes hands under mu, so the count is stable here.)
        if (head && head.use_count() == 1) graveyard.push_back(std::move(head));
        head.reset();
        bool reading = false;
        for (auto& [client, c] : conns) {
            for (auto it = c->pending.begin(); it != c->pending.end();) {
                Urb& u = **it;
                const WaitResult r = c->dev && !unplugged ? c->dev->WaitBulk(*u.t, 0) : WaitResult::Failed;
                if (r == WaitResult::TimedOut) {
                    reading |= u.ep == Endpoint::BulkIn;
                    ++it;
                    continue;
                }
                u.actual = r == WaitResult::Completed ? c->dev->FinishBulk(*u.t) : 0;
                // A transfer the device refused (a failed flash command) is a
                // stall; one that failed because the device left is a shutdown.
                u.status = r == WaitResult::Completed ? 0 : StillHere() ? -EPIPE : -ESHUTDOWN;
                if (u.ep == Endpoint::BulkIn) inBytes += u.actual;
                c->done.push_back(std::move(*it));
                it = c->pending.erase(it);
            }
        }
        return reading;
    }

    // The handlers below run on umockdev's worker thread.
    void Connected(UMockdevIoctlClient* client) {
        auto c = std::make_unique<Conn>();
        c->devnode = umockdev_ioctl_client_get_devnode(client);
        std::lock_guard lk(mu);
        if (c->devnode == devnode && !unplugged) {
            // The simulator backend's handle on this enumeration of the device.
            UsbBackend& sim = sim::Backend();
            for (int i = 0, n = sim.DeviceCount(); i < n && !c->dev; ++i)
                if (auto d = sim.Open(i); d && d->Identity().serial == usbSerial && d->Identity().product == product)
                    c->dev = std::move(d);
        }
        conns[client] = std::move(c);
    }

    bool Ioctl(UMockdevIoctlClient* client) {
        const gulong request = umockdev_ioctl_client_get_request(client);
        UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
        std::lock_guard lk(mu);
        graveyard.clear();
        auto found = conns.find(client);
        Conn* c = found == conns.end() ? nullptr : found->second.get();
        const auto done = [&](int err) {
            umockdev_ioctl_client_complete(client, err ? -1 : 0, err);
            return true;
        };
        if (c == nullptr) return done(ENODEV);
        // After an unplug only the URBs already finished can still be reaped.
        const bool gone = !c->dev || unplugged;
        switch (request) {
        case USBDEVFS_GET_CAPABILITIES: {
            if (gone) return done(ENODEV);
            UMockdevIoctlData* d = umockdev_ioctl_data_resolve(arg, 0, sizeof(uint32_t), nullptr);
            const uint32_t caps = USBDEVFS_CAP_BULK_SCATTER_GATHER | USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
                                  USBDEVFS_CAP_REAP_AFTER_DISCONNECT | USBDEVFS_CAP_ZERO_PACKET;
            std::memcpy(d->data, &caps, sizeof caps);
            done(0);
            g_object_unref(d);
            return true;
        }
        case USBDEVFS_GETDRIVER:
            return done(gone ? ENODEV : ENODATA); // no kernel driver bound
        case USBDEVFS_CLAIMINTERFACE:
        case USBDEVFS_RELEASEINTERFACE:
        case USBDEVFS_SETINTERFACE:
        case USBDEVFS_DISCONNECT_CLAIM:
        case USBDEVFS_CLEAR_HALT:
        case USBDEVFS_RESETEP:
            return done(gone ? ENODEV : 0);
        case USBDEVFS_SUBMITURB:
            return done(gone ? ENODEV : Submit(*c, arg));
        case USBDEVFS_REAPURB:
        case USBDEVFS_REAPURBNDELAY: {
            if (c->done.empty()) return done(gone ? ENODEV : EAGAIN);
            std::shared_ptr<Urb> u = std::move(c->done.front());
            c->done.pop_front();
            u->Get()->status = u->status;
            u->Get()->actual_length = static_cast<int>(u->actual);
            UMockdevIoctlData* p = umockdev_ioctl_data_resolve(arg, 0, sizeof(void*), nullptr);
            umockdev_ioctl_data_set_ptr(p, 0, u->data);
            done(0);
            g_object_unref(p);
            return true;
        }
        case USBDEVFS_DISCARDURB:
            return done(Discard(*c, static_cast<gulong>(reinterpret_cast<uintptr_t>(*reinterpret_cast<void**>(arg->data)))));
        default:
            return false;
        }
    }

    // An errno, 0 when the URB was taken.
    int Submit(Conn& c, UMockdevIoctlData* arg) {
        auto u = std::make_shared<Urb>();
        u->data = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_urb), nullptr);
        usbdevfs_urb* urb = u->data != nullptr ? u->Get() : nullptr;
        if (urb != nullptr && urb->buffer_length >= 0)
            u->buf = umockdev_ioctl_data_resolve(u->data, offsetof(usbdevfs_urb, buffer),
                                                 static_cast<gsize>(urb->buffer_length), nullptr);
        if (u->buf == nullptr) return EFAULT;
        if (urb->type == USBDEVFS_URB_TYPE_CONTROL) {
            Control(c, *u);
            c.done.push_back(std::move(u));
            return 0;
        }
        if (urb->type != USBDEVFS_URB_TYPE_BULK || (urb->endpoint != kOutAddress && urb->endpoint != kInAddress))
            return EINVAL;
        u->ep = urb->endpoint == kInAddress ? Endpoint::BulkIn : Endpoint::BulkOut;
        u->t = c.dev->BeginBulk(u->ep, u->buf->data, static_cast<uint32_t>(urb->buffer_length));
        c.pending.push_back(std::move(u));
        return 0;
    }

    // An errno, 0 when the URB at client address `addr` was taken back.
    int Discard(Conn& c, gulong addr) {
        bool head = true; // the oldest IN transfer
        for (auto it = c.pending.begin(); it != c.pending.end(); ++it) {
            if ((*it)->data->client_addr != addr) {
                if ((*it)->ep == Endpoint::BulkIn) head = false;
                continue;
            }
            std::shared_ptr<Urb> u = *it;
            c.pending.erase(it);
            u->actual = 0;
            if (u->ep == Endpoint::BulkIn && head && c.dev) {
                // The device gives back the oldest transfer with what it has
                // already sent; the abort ends the others empty, so they are
                // queued again in their order and lose nothing.
                c.dev->AbortEndpoint(Endpoint::BulkIn);
                u->actual = c.dev->FinishBulk(*u->t);
                for (auto& p : c.pending)
                    if (p->ep == Endpoint::BulkIn)
                        p->t = c.dev->BeginBulk(Endpoint::BulkIn, p->buf->data, static_cast<uint32_t>(p->Get()->buffer_length));
            }
            // Out of the device's queue; the oldest IN transfer, which the bus
            // thread may be waiting on, is already out of it after the abort.
            if (!(u->ep == Endpoint::BulkIn && head)) u->t.reset();
            u->status = -ENOENT;
            if (u->ep == Endpoint::BulkIn) inBytes += u->actual;
            c.done.push_back(std::move(u));
            return 0;
        }
        return EINVAL; // already finished
    }

    // A control URB: the 8-byte setup packet, then the data stage.
    void Control(Conn& c, Urb& u) {
        const uint8_t* s = u.buf->data;
        const uint8_t type = s[0], request = s[1];
        const auto value = uint16_t(s[2] | s[3] << 8), index = uint16_t(s[4] | s[5] << 8),
                   length = uint16_t(s[6] | s[7] << 8);
        uint8_t* data = u.buf->data + 8;
        int n = -1;
        if (type == 0x80 && request == 6 && value >> 8 == 3) { // GET_DESCRIPTOR, string
            const uint8_t which = value & 0xFF;
            const std::vector<uint8_t> d = which == 0   ? std::vector<uint8_t>{4, 3, 0x09, 0x04}
                                           : which == 2 ? StringDescriptor(product)
                                           : which == 3 ? StringDescriptor(usbSerial)
                                                        : std::vector<uint8_t>{};
            if (!d.empty()) std::memcpy(data, d.data(), size_t(n = std::min<int>(length, int(d.size()))));
        } else if ((type & 0x7F) == 0x40) { // vendor request to the device
            n = type & 0x80 ? c.dev->ControlIn(request, value, index, data, length, 1000)
                            : c.dev->ControlOut(request, value, index, data, length, 1000);
        }
        u.status = n < 0 ? -EPIPE : 0; // the device stalls what it does not know
        u.actual = n < 0 ? 0 : static_cast<uint32_t>(n);
    }
};

Bus::Bus(int32_t serial) : impl_((Testbed(), std::make_unique<Impl>(serial))) {}
Bus::~Bus() = default;

void Bus::Unplug() {
    impl_->unplugged = true;
    lxSimDetach(impl_->serial); // the device's pending transfers fail
}

uint64_t Bus::BulkInBytes() const { return impl_->inBytes.load(); }

} // namespace lx::usb::testing
