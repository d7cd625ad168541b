#include "usb/libusb_backend.h"
#include "usb/rom_loader.h"

#include <libusb.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace lx::usb {
namespace {

// How long a transfer that is being torn down may take to report its
// cancellation before we give up on it (and leak it rather than free memory
// libusb may still write to).
constexpr auto kCancelGrace = std::chrono::milliseconds(2000);

// ---- the one place where libusb results are judged -------------------------

// libusb returns a count (>= 0) or a negative libusb_error. Every caller above
// only needs "how many bytes" or "failed"; the error kinds are not told apart
// because the transport reacts to all of them the same way (connection lost).
int Translate(int libusbResult) { return libusbResult < 0 ? -1 : libusbResult; }
bool Succeeded(int libusbResult) { return Translate(libusbResult) >= 0; }

// A completed transfer moved actual_length bytes whatever its status; a
// cancelled, stalled or errored transfer is simply short. Only a transfer that
// never reached the device is a failure of the wait itself.
uint32_t BytesMoved(const libusb_transfer* t) {
    return t->actual_length > 0 ? static_cast<uint32_t>(t->actual_length) : 0u;
}

// ---- context and event thread ------------------------------------------------

class Context {
public:
    // Null when libusb cannot start here (no USB, sandbox); tried once.
    libusb_context* Get() {
        std::lock_guard lock(mu_);
        if (!tried_) {
            tried_ = true;
            libusb_context* ctx = nullptr;
            if (Succeeded(libusb_init(&ctx))) ctx_ = ctx;
        }
        return ctx_;
    }

    void HandleOpened() {
        std::lock_guard lock(mu_);
        if (openHandles_++ == 0) {
            running_.store(true);
            events_ = std::thread([this] { EventLoop(); });
        }
    }

    void HandleClosed() {
        // Joined under the lock so that an open racing with the last close
        // cannot start a second event thread beside the one stopping. The
        // event thread never takes this mutex.
        std::lock_guard lock(mu_);
        if (--openHandles_ > 0) return;
        running_.store(false);
        libusb_interrupt_event_handler(ctx_);
        if (events_.joinable()) events_.join();
    }

private:
    void EventLoop() {
        pthread_setname_np(pthread_self(), "LX USB Events");
        while (running_.load()) {
            timeval tv{0, 200000}; // wake now and then even if an interrupt is missed
            libusb_handle_events_timeout_completed(ctx_, &tv, nullptr);
        }
    }

    std::mutex mu_;
    bool tried_ = false;
    libusb_context* ctx_ = nullptr;
    int openHandles_ = 0;
    std::atomic<bool> running_{false};
    std::thread events_;
};

// ---- transfers ---------------------------------------------------------------

// Completion state, written by the event thread's callback. Kept apart from the
// transfer object so that a transfer libusb never hands back can be abandoned
// (leaked) without the callback touching freed memory.
struct Completion {
    std::mutex mu;
    std::condition_variable cv;
    bool done = false;
    uint32_t actual = 0;
};

void LIBUSB_CALL OnTransferComplete(libusb_transfer* t) {
    auto* c = static_cast<Completion*>(t->user_data);
    // Notified under the lock: a waiter that sees `done` may destroy the
    // completion at once, so nothing here may touch it after the unlock.
    std::lock_guard lock(c->mu);
    c->done = true;
    c->actual = BytesMoved(t);
    c->cv.notify_all();
}

struct HandleState;

class LibusbTransfer final : public BulkTransfer {
public:
    LibusbTransfer(std::shared_ptr<HandleState> handle, Endpoint ep)
        : handle_(std::move(handle)), ep_(ep), completion_(new Completion) {}
    ~LibusbTransfer() override;

    // Submits; false when libusb refused (the transfer then never completes).
    bool Submit(libusb_device_handle* h, uint8_t address, uint8_t* buffer, uint32_t length);
    void Cancel() {
        if (xfer_ != nullptr && !IsDone()) libusb_cancel_transfer(xfer_);
    }
    bool Submitted() const { return submitted_; }
    Endpoint Ep() const { return ep_; }

    bool WaitDone(std::chrono::milliseconds timeout) {
        std::unique_lock lock(completion_->mu);
        return completion_->cv.wait_for(lock, timeout, [&] { return completion_->done; });
    }
    bool IsDone() {
        std::lock_guard lock(completion_->mu);
        return completion_->done;
    }
    uint32_t Actual() {
        std::lock_guard lock(completion_->mu);
        return completion_->actual;
    }

private:
    std::shared_ptr<HandleState> handle_;
    Endpoint ep_;
    Completion* completion_;
    libusb_transfer* xfer_ = nullptr;
    bool submitted_ = false;
};

// The open handle, shared by the device object and its transfers so that the
// handle closes only after the last transfer is gone, whatever order the
// caller destroys them in.
struct HandleState {
    HandleState(Context& c, libusb_device_handle* h) : ctx(c), handle(h) { ctx.HandleOpened(); }
    ~HandleState() {
        if (claimed) libusb_release_interface(handle, 0);
        libusb_close(handle);
        ctx.HandleClosed();
    }

    void Track(LibusbTransfer* t) {
        std::lock_guard lock(mu);
        inFlight.push_back(t);
    }
    void Untrack(LibusbTransfer* t) {
        std::lock_guard lock(mu);
        inFlight.erase(std::remove(inFlight.begin(), inFlight.end(), t), inFlight.end());
    }
    void CancelAll(Endpoint ep) {
        std::lock_guard lock(mu);
        for (LibusbTransfer* t : inFlight)
            if (t->Ep() == ep) t->Cancel();
    }

    Context& ctx;
    libusb_device_handle* handle;
    bool claimed = false;
    std::mutex mu;
    std::vector<LibusbTransfer*> inFlight;
};

bool LibusbTransfer::Submit(libusb_device_handle* h, uint8_t address, uint8_t* buffer,
                            uint32_t length) {
    xfer_ = libusb_alloc_transfer(0);
    if (xfer_ == nullptr) return false;
    // No libusb time-out: the transport waits with its own and aborts.
    libusb_fill_bulk_transfer(xfer_, h, address, buffer, static_cast<int>(length),
                              OnTransferComplete, completion_, 0);
    handle_->Track(this);
    submitted_ = Succeeded(libusb_submit_transfer(xfer_));
    if (!submitted_) handle_->Untrack(this);
    return submitted_;
}

LibusbTransfer::~LibusbTransfer() {
    bool abandon = false;
    if (submitted_ && !IsDone()) {
        libusb_cancel_transfer(xfer_);
        abandon = !WaitDone(kCancelGrace);
    }
    if (submitted_) handle_->Untrack(this);
    if (abandon) return; // libusb still owns it: leak rather than corrupt
    if (xfer_ != nullptr) libusb_free_transfer(xfer_);
    delete completion_;
}

// ---- device ------------------------------------------------------------------

// bmRequestType of a vendor request to the device recipient, direction bit clear.
constexpr uint8_t kVendorToDevice =
    static_cast<uint8_t>(LIBUSB_REQUEST_TYPE_VENDOR) | static_cast<uint8_t>(LIBUSB_RECIPIENT_DEVICE);

std::string StringDescriptor(libusb_device_handle* h, uint8_t index) {
    if (index == 0) return {};
    unsigned char buf[256] = {};
    // libusb converts the UTF-16 descriptor to 8-bit characters ('?' for the rest).
    int n = Translate(libusb_get_string_descriptor_ascii(h, index, buf, sizeof(buf) - 1));
    if (n <= 0) return {};
    return std::string(reinterpret_cast<const char*>(buf), static_cast<size_t>(std::min(n, 255)));
}

class LibusbDevice final : public UsbDevice {
public:
    LibusbDevice(UsbBackend& backend, std::shared_ptr<HandleState> state, DeviceIdentity id)
        : backend_(backend), state_(std::move(state)), identity_(std::move(id)) {}

    ~LibusbDevice() override {
        state_->CancelAll(Endpoint::BulkOut);
        state_->CancelAll(Endpoint::BulkIn);
    }

    const DeviceIdentity& Identity() const override { return identity_; }
    UsbBackend& Backend() override { return backend_; }

    bool SelectAltSetting0() override {
        libusb_device_handle* h = state_->handle;
        if (!state_->claimed) {
            libusb_set_auto_detach_kernel_driver(h, 1);
            if (!Succeeded(libusb_claim_interface(h, 0))) return false; // e.g. bound by another process
            state_->claimed = true;
        }
        if (!Succeeded(libusb_set_interface_alt_setting(h, 0, 0))) return false;
        return PickEndpoints();
    }

    int ControlIn(uint8_t request, uint16_t value, uint16_t index, uint8_t* data, uint16_t length,
                  uint32_t timeoutMs) override {
        return Translate(libusb_control_transfer(
            state_->handle, kVendorToDevice | LIBUSB_ENDPOINT_IN, request, value, index, data, length, timeoutMs));
    }

    int ControlOut(uint8_t request, uint16_t value, uint16_t index, const uint8_t* data,
                   uint16_t length, uint32_t timeoutMs) override {
        // libusb takes a non-const pointer for both directions; an OUT request only reads it.
        return Translate(libusb_control_transfer(
            state_->handle, kVendorToDevice | LIBUSB_ENDPOINT_OUT, request, value, index, const_cast<uint8_t*>(data), length, timeoutMs));
    }

    std::unique_ptr<BulkTransfer> BeginBulk(Endpoint ep, uint8_t* buffer, uint32_t length) override {
        auto t = std::make_unique<LibusbTransfer>(state_, ep);
        int address = ep == Endpoint::BulkOut ? outAddress_ : inAddress_;
        if (address >= 0 && buffer != nullptr)
            t->Submit(state_->handle, static_cast<uint8_t>(address), buffer, length);
        return t;
    }

    WaitResult WaitBulk(BulkTransfer& bt, uint32_t timeoutMs) override {
        auto& t = static_cast<LibusbTransfer&>(bt);
        if (!t.Submitted()) return WaitResult::Failed;
        return t.WaitDone(std::chrono::milliseconds(timeoutMs)) ? WaitResult::Completed
                                                                 : WaitResult::TimedOut;
    }

    void AbortEndpoint(Endpoint ep) override { state_->CancelAll(ep); }

    uint32_t FinishBulk(BulkTransfer& bt) override {
        auto& t = static_cast<LibusbTransfer&>(bt);
        if (!t.Submitted()) return 0;
        if (!t.IsDone()) { // finished without a completed wait: take it back first
            t.Cancel();
            if (!t.WaitDone(kCancelGrace)) return 0;
        }
        return t.Actual();
    }

private:
    // The firmware fixes the endpoint addresses; the host picks them by
    // position in interface 0, alternate setting 0: the first bulk OUT
    // endpoint, and for data IN the second endpoint descriptor (index 2 when
    // the control endpoint is counted as index 0).
    bool PickEndpoints() {
        outAddress_ = inAddress_ = -1;
        libusb_config_descriptor* cfg = nullptr;
        libusb_device* dev = libusb_get_device(state_->handle);
        if (!Succeeded(libusb_get_active_config_descriptor(dev, &cfg))) return false;
        if (cfg->bNumInterfaces > 0 && cfg->interface[0].num_altsetting > 0) {
            const libusb_interface_descriptor& alt = cfg->interface[0].altsetting[0];
            for (int i = 0; i < alt.bNumEndpoints; ++i) {
                const libusb_endpoint_descriptor& e = alt.endpoint[i];
                bool bulk = (e.bmAttributes & LIBUSB_TRANSFER_TYPE_MASK) == LIBUSB_TRANSFER_TYPE_BULK;
                bool in = (e.bEndpointAddress & LIBUSB_ENDPOINT_DIR_MASK) == LIBUSB_ENDPOINT_IN;
                if (bulk && !in && outAddress_ < 0) outAddress_ = e.bEndpointAddress;
            }
            if (alt.bNumEndpoints >= 2) {
                const libusb_endpoint_descriptor& e = alt.endpoint[1];
                if ((e.bEndpointAddress & LIBUSB_ENDPOINT_DIR_MASK) == LIBUSB_ENDPOINT_IN)
                    inAddress_ = e.bEndpointAddress;
            }
        }
        libusb_free_config_descriptor(cfg);
        return outAddress_ >= 0 && inAddress_ >= 0;
    }

    UsbBackend& backend_;
    std::shared_ptr<HandleState> state_;
    DeviceIdentity identity_;
    int outAddress_ = -1;
    int inAddress_ = -1;
};

// ---- backend -------------------------------------------------------------------

class Libusb final : public UsbBackend {
public:
    ~Libusb() override { ReplaceSnapshot({}); }

    const char* Name() const override { return "libusb"; }

    int DeviceCount() override {
        std::vector<libusb_device*> found;
        if (libusb_context* ctx = context_.Get()) {
            libusb_device** list = nullptr;
            ssize_t n = libusb_get_device_list(ctx, &list);
            for (ssize_t i = 0; i < n; ++i) {
                libusb_device_descriptor d{};
                if (Succeeded(libusb_get_device_descriptor(list[i], &d))  &&
                    ((d.idVendor == kVendorId && d.idProduct == kProductId) ||
                     (d.idVendor == kRomVendorId && d.idProduct == kRomProductId)))
                    found.push_back(libusb_ref_device(list[i]));
            }
            if (list != nullptr) libusb_free_device_list(list, 1);
        }
        int count = static_cast<int>(found.size());
        ReplaceSnapshot(std::move(found));
        return count;
    }

    std::unique_ptr<UsbDevice> Open(int index) override {
        libusb_device* dev = nullptr;
        {
            std::lock_guard lock(mu_);
            if (index < 0 || index >= static_cast<int>(snapshot_.size())) return nullptr;
            dev = libusb_ref_device(snapshot_[static_cast<size_t>(index)]);
        }
        libusb_device_handle* h = nullptr;
        int rc = libusb_open(dev, &h);
        libusb_device_descriptor d{};
        bool described = Succeeded(libusb_get_device_descriptor(dev, &d));
        libusb_unref_device(dev);
        if (!Succeeded(rc)) return nullptr; // gone, or no permission on the node
        auto state = std::make_shared<HandleState>(context_, h);
        if (!described) return nullptr;
        DeviceIdentity id;
        id.vendorId = d.idVendor;
        id.productId = d.idProduct;
        id.product = StringDescriptor(h, d.iProduct);
        id.serial = StringDescriptor(h, d.iSerialNumber);
        return std::make_unique<LibusbDevice>(*this, std::move(state), std::move(id));
    }

    void Sleep(uint32_t ms) override { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

private:
    void ReplaceSnapshot(std::vector<libusb_device*> next) {
        std::vector<libusb_device*> old;
        {
            std::lock_guard lock(mu_);
            old.swap(snapshot_);
            snapshot_ = std::move(next);
        }
        for (libusb_device* d : old) libusb_unref_device(d);
    }

    Context context_;
    std::mutex mu_;
    std::vector<libusb_device*> snapshot_;
};

} // namespace

UsbBackend& LibusbBackend() {
    // Never destroyed: device handles and the event thread may outlive static
    // destruction in an application that exits with a device still open.
    static Libusb* backend = new Libusb;
    return *backend;
}

} // namespace lx::usb
