#include "usb_bus.h"

#include <linux/ioctl.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>

#include <algorithm>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
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

} // namespace

bool BusAvailable() {
    Testbed();
    return umockdev_in_mock_environment();
}

namespace {

int gDevnum = 0; // device numbers are never reused within a run, as on a real bus

std::string Hex(const std::vector<uint8_t>& bytes) {
    std::string s;
    char b[3];
    for (uint8_t v : bytes) {
        std::snprintf(b, sizeof b, "%02x", v);
        s += b;
    }
    return s;
}

// Device descriptor, then configuration 1: interface 0, alternate setting 0,
// with the bulk OUT endpoint first and the bulk IN data endpoint second.
std::vector<uint8_t> Descriptors(uint16_t vid, uint16_t pid, bool hasSerial) {
    return {18, 1, 0x00, 0x02, 0, 0, 0, 64, uint8_t(vid), uint8_t(vid >> 8), uint8_t(pid), uint8_t(pid >> 8),
            0x00, 0x01, 0, 2, uint8_t(hasSerial ? 3 : 0), 1,
            9, 2, 32, 0, 1, 1, 0, 0x80, 50,
            9, 4, 0, 0, 2, 0xFF, 0, 0, 0,
            7, 5, kOutAddress, 2, 0x00, 0x02, 0,
            7, 5, kInAddress, 2, 0x00, 0x02, 0};
}

std::vector<uint8_t> StringDescriptor(const std::string& s) {
    std::vector<uint8_t> d{uint8_t(2 + 2 * s.size()), 3};
    for (char ch : s) d.insert(d.end(), {uint8_t(ch), 0});
    return d;
}

} // namespace

struct Bus::Urb {
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

struct Bus::Conn {
    std::string devnode;
    std::shared_ptr<UsbDevice> dev; // null: the node no longer leads to a device
    std::deque<std::shared_ptr<Urb>> pending, done;
};

Bus::Bus(int32_t serial) : serial_(serial) {
    Testbed();
    handler_ = umockdev_ioctl_base_new();
    g_signal_connect_after(handler_, "handle-ioctl", G_CALLBACK(OnIoctl), this);
    g_signal_connect(handler_, "client-connected", G_CALLBACK(OnConnected), this);
    g_signal_connect(handler_, "client-vanished", G_CALLBACK(OnVanished), this);
    Mirror();
    thread_ = std::thread([this] { Run(); });
}

Bus::~Bus() {
    stop_ = true;
    thread_.join();
    // No callback may reach this object any more: a handle left open on one
    // of its nodes would otherwise outlive it.
    g_signal_handlers_disconnect_by_data(handler_, this);
    std::lock_guard lk(mu_);
    Hide();
    for (const std::string& node : nodes_) umockdev_testbed_detach_ioctl(Testbed(), node.c_str(), nullptr);
    conns_.clear();
    g_object_unref(handler_);
}

void Bus::Unplug() {
    unplugged_ = true;
    lxSimDetach(serial_); // the device's pending transfers fail
}

// ---- bus thread ----------------------------------------------------------------

void Bus::Run() {
    auto last = std::chrono::steady_clock::now();
    while (!stop_) {
        Mirror();
        Complete();
        const auto now = std::chrono::steady_clock::now();
        const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now - last);
        last += ms;
        // Not while data is asked for: the device counts virtual time into its
        // sample timeline, and a stream would see a gap.
        if (ms.count() > 0 && !Reading()) lxSimAdvanceTimeMs(static_cast<uint64_t>(ms.count()));
    }
}

bool Bus::Reading() {
    std::lock_guard lk(mu_);
    for (auto& [client, c] : conns_)
        for (auto& u : c->pending)
            if (u->ep == Endpoint::BulkIn) return true;
    return false;
}

void Bus::Mirror() {
    auto d = sim::FindBySerial(serial_);
    DeviceIdentity id;
    uint64_t gen = 0;
    const bool present = !unplugged_ && d && d->PresentNow(&id, &gen);
    std::lock_guard lk(mu_);
    if (present && gen == generation_ && !devnode_.empty()) return;
    if (!devnode_.empty()) Hide();
    if (present) {
        generation_ = gen;
        Show(id.product, id.serial, id.vendorId, id.productId);
    }
}

void Bus::Show(const std::string& product, const std::string& serial, uint16_t vid, uint16_t pid) {
    gDevnum = gDevnum % 127 + 1;
    char node[64];
    std::snprintf(node, sizeof node, "/dev/bus/usb/001/%03d", gDevnum);
    // The handler first, so that the node answers as soon as libusb sees it.
    if (!umockdev_testbed_attach_ioctl(Testbed(), node, handler_, nullptr)) return;
    nodes_.push_back(node);
    const std::string desc = "P: /devices/usb1\n"
                             "N: " + std::string(node + 5) + "\n"
                             "E: SUBSYSTEM=usb\nE: DRIVER=usb\nE: BUSNUM=001\n"
                             "E: DEVNUM=" + std::string(node + 17) + "\n"
                             "E: DEVNAME=" + node + "\nE: DEVTYPE=usb_device\n"
                             "A: busnum=1\\n\nA: devnum=" + std::to_string(gDevnum) + "\\n\n"
                             "A: bConfigurationValue=1\\n\nA: speed=480\\n\n"
                             "H: descriptors=" + Hex(Descriptors(vid, pid, !serial.empty())) + "\n";
    if (!umockdev_testbed_add_from_string(Testbed(), desc.c_str(), nullptr)) return;
    devnode_ = node;
    product_ = product;
    usbSerial_ = serial;
}

void Bus::Hide() {
    if (devnode_.empty()) return;
    umockdev_testbed_remove_device(Testbed(), "/sys/devices/usb1");
    // The handler stays attached: a handle still open on the old node gets
    // ENODEV, as from the kernel, rather than a dropped connection.
    for (auto& [client, c] : conns_)
        if (c->devnode == devnode_) c->dev.reset();
    devnode_.clear();
}

// Waits on the oldest IN transfer (the simulated device delivers while a
// transfer is waited on), then hands back every URB that finished.
void Bus::Complete() {
    std::shared_ptr<Urb> head;
    std::shared_ptr<UsbDevice> dev;
    {
        std::lock_guard lk(mu_);
        for (auto& [client, c] : conns_)
            for (auto& u : c->pending)
                if (!head && u->ep == Endpoint::BulkIn && c->dev) head = u, dev = c->dev;
    }
    if (head) dev->WaitBulk(*head->t, 5);
    else std::this_thread::sleep_for(std::chrono::milliseconds(2));

    std::lock_guard lk(mu_);
    // Reaped or discarded meanwhile: umockdev may still be copying its data
    // back to the client on its worker thread, which therefore frees it.
    // (Every other owner changes hands under mu_, so the count is stable here.)
    if (head && head.use_count() == 1) graveyard_.push_back(std::move(head));
    head.reset();
    for (auto& [client, c] : conns_) {
        for (auto it = c->pending.begin(); it != c->pending.end();) {
            Urb& u = **it;
            WaitResult r = c->dev && !unplugged_ ? c->dev->WaitBulk(*u.t, 0) : WaitResult::Failed;
            if (r == WaitResult::TimedOut) {
                ++it;
                continue;
            }
            u.actual = r == WaitResult::Completed ? c->dev->FinishBulk(*u.t) : 0;
            u.status = r == WaitResult::Completed ? 0 : -ESHUTDOWN;
            if (u.ep == Endpoint::BulkIn) inBytes_ += u.actual;
            c->done.push_back(std::move(*it));
            it = c->pending.erase(it);
        }
    }
}

// ---- ioctl handler (umockdev's worker thread) -------------------------------------

void Bus::OnConnected(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self) {
    auto& bus = *static_cast<Bus*>(self);
    auto c = std::make_unique<Conn>();
    c->devnode = umockdev_ioctl_client_get_devnode(client);
    std::lock_guard lk(bus.mu_);
    if (c->devnode == bus.devnode_ && !bus.unplugged_) {
        // The simulator backend's handle on this enumeration of the device.
        UsbBackend& sim = sim::Backend();
        for (int i = 0, n = sim.DeviceCount(); i < n && !c->dev; ++i)
            if (auto d = sim.Open(i); d && d->Identity().serial == bus.usbSerial_ &&
                                      d->Identity().product == bus.product_)
                c->dev = std::move(d);
    }
    bus.conns_[client] = std::move(c);
}

void Bus::OnVanished(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self) {
    auto& bus = *static_cast<Bus*>(self);
    std::lock_guard lk(bus.mu_);
    bus.conns_.erase(client);
}

gboolean Bus::OnIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self) {
    return static_cast<Bus*>(self)->Ioctl(client) ? TRUE : FALSE;
}

bool Bus::Ioctl(UMockdevIoctlClient* client) {
    const gulong request = umockdev_ioctl_client_get_request(client);
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    std::lock_guard lk(mu_);
    graveyard_.clear();
    auto found = conns_.find(client);
    Conn* c = found == conns_.end() ? nullptr : found->second.get();
    auto fail = [&](int err) {
        umockdev_ioctl_client_complete(client, -1, err);
        return true;
    };
    if (c == nullptr) return fail(ENODEV);
    // After an unplug only the URBs already finished can still be reaped.
    const bool gone = !c->dev || unplugged_;

    switch (request) {
    case USBDEVFS_GET_CAPABILITIES: {
        if (gone) return fail(ENODEV);
        UMockdevIoctlData* d = umockdev_ioctl_data_resolve(arg, 0, sizeof(uint32_t), nullptr);
        const uint32_t caps = USBDEVFS_CAP_BULK_SCATTER_GATHER | USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
                              USBDEVFS_CAP_REAP_AFTER_DISCONNECT | USBDEVFS_CAP_ZERO_PACKET;
        std::memcpy(d->data, &caps, sizeof caps);
        umockdev_ioctl_client_complete(client, 0, 0);
        g_object_unref(d);
        return true;
    }
    case USBDEVFS_GETDRIVER:
        return fail(gone ? ENODEV : ENODATA); // no kernel driver bound
    case USBDEVFS_CLAIMINTERFACE:
    case USBDEVFS_RELEASEINTERFACE:
    case USBDEVFS_SETINTERFACE:
    case USBDEVFS_DISCONNECT_CLAIM:
    case USBDEVFS_CLEAR_HALT:
    case USBDEVFS_RESETEP:
        if (gone) return fail(ENODEV);
        umockdev_ioctl_client_complete(client, 0, 0);
        return true;
    case USBDEVFS_SUBMITURB:
        if (gone) return fail(ENODEV);
        return Submit(*c, client);
    case USBDEVFS_REAPURB:
    case USBDEVFS_REAPURBNDELAY: {
        if (c->done.empty()) return fail(gone ? ENODEV : EAGAIN);
        std::shared_ptr<Urb> u = std::move(c->done.front());
        c->done.pop_front();
        u->Get()->status = u->status;
        u->Get()->actual_length = static_cast<int>(u->actual);
        UMockdevIoctlData* p = umockdev_ioctl_data_resolve(arg, 0, sizeof(void*), nullptr);
        umockdev_ioctl_data_set_ptr(p, 0, u->data);
        umockdev_ioctl_client_complete(client, 0, 0);
        g_object_unref(p);
        return true;
    }
    case USBDEVFS_DISCARDURB: {
        const auto addr = static_cast<gulong>(reinterpret_cast<uintptr_t>(*reinterpret_cast<void**>(arg->data)));
        bool head = true; // the oldest IN transfer
        for (auto it = c->pending.begin(); it != c->pending.end(); ++it) {
            if ((*it)->data->client_addr != addr) {
                if ((*it)->ep == Endpoint::BulkIn) head = false;
                continue;
            }
            std::shared_ptr<Urb> u = *it;
            c->pending.erase(it);
            u->actual = 0;
            if (u->ep == Endpoint::BulkIn && head && c->dev) {
                // The device gives back the oldest transfer with what it has
                // already sent; the abort ends the others empty, so they are
                // queued again in their order and lose nothing.
                c->dev->AbortEndpoint(Endpoint::BulkIn);
                u->actual = c->dev->FinishBulk(*u->t);
                for (auto& p : c->pending)
                    if (p->ep == Endpoint::BulkIn)
                        p->t = c->dev->BeginBulk(Endpoint::BulkIn, p->buf->data,
                                                 static_cast<uint32_t>(p->Get()->buffer_length));
            }
            // Out of the device's queue; the oldest IN transfer, which the bus
            // thread may be waiting on, is already out of it after the abort.
            if (!(u->ep == Endpoint::BulkIn && head)) u->t.reset();
            u->status = -ENOENT;
            if (u->ep == Endpoint::BulkIn) inBytes_ += u->actual;
            c->done.push_back(std::move(u));
            umockdev_ioctl_client_complete(client, 0, 0);
            return true;
        }
        return fail(EINVAL); // already finished
    }
    default:
        return false;
    }
}

bool Bus::Submit(Conn& c, UMockdevIoctlClient* client) {
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    auto u = std::make_shared<Urb>();
    u->data = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_urb), nullptr);
    usbdevfs_urb* urb = u->data != nullptr ? u->Get() : nullptr;
    if (urb != nullptr && urb->buffer_length >= 0)
        u->buf = umockdev_ioctl_data_resolve(u->data, offsetof(usbdevfs_urb, buffer),
                                             static_cast<gsize>(urb->buffer_length), nullptr);
    if (u->buf == nullptr) {
        umockdev_ioctl_client_complete(client, -1, EFAULT);
        return true;
    }
    if (urb->type == USBDEVFS_URB_TYPE_CONTROL) {
        Control(c, *u);
        c.done.push_back(std::move(u));
    } else if (urb->type == USBDEVFS_URB_TYPE_BULK &&
               (urb->endpoint == kOutAddress || urb->endpoint == kInAddress)) {
        u->ep = urb->endpoint == kInAddress ? Endpoint::BulkIn : Endpoint::BulkOut;
        u->t = c.dev->BeginBulk(u->ep, u->buf->data, static_cast<uint32_t>(urb->buffer_length));
        c.pending.push_back(std::move(u));
    } else {
        umockdev_ioctl_client_complete(client, -1, EINVAL);
        return true;
    }
    umockdev_ioctl_client_complete(client, 0, 0);
    return true;
}

// A control URB: the 8-byte setup packet, then the data stage.
void Bus::Control(Conn& c, Urb& u) {
    const uint8_t* s = u.buf->data;
    const uint8_t type = s[0], request = s[1];
    const auto value = uint16_t(s[2] | s[3] << 8), index = uint16_t(s[4] | s[5] << 8),
               length = uint16_t(s[6] | s[7] << 8);
    uint8_t* data = u.buf->data + 8;
    int n = -1;
    if (type == 0x80 && request == 6 && value >> 8 == 3) { // GET_DESCRIPTOR, string
        const uint8_t which = value & 0xFF;
        std::vector<uint8_t> d = which == 0   ? std::vector<uint8_t>{4, 3, 0x09, 0x04}
                                 : which == 2 ? StringDescriptor(product_)
                                 : which == 3 ? StringDescriptor(usbSerial_)
                                              : std::vector<uint8_t>{};
        if (!d.empty()) {
            n = std::min<int>(length, static_cast<int>(d.size()));
            std::memcpy(data, d.data(), static_cast<size_t>(n));
        }
    } else if ((type & 0x7F) == 0x40) { // vendor request to the device
        n = type & 0x80 ? c.dev->ControlIn(request, value, index, data, length, 1000)
                        : c.dev->ControlOut(request, value, index, data, length, 1000);
    }
    u.status = n < 0 ? -EPIPE : 0; // the device stalls what it does not know
    u.actual = n < 0 ? 0 : static_cast<uint32_t>(n);
}

} // namespace lx::usb::testing
