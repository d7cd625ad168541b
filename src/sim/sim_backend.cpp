#include "sim/sim_backend.h"

#include "sim/sim_registry.h"

namespace lx::sim {

// Never destroyed, for the same reason as the open serials of the transport:
// a device left open at exit is closed after function statics go.
Registry& TheRegistry() {
    static auto* r = new Registry;
    return *r;
}

std::vector<std::shared_ptr<SimDevice>> AttachedDevices() {
    Registry& r = TheRegistry();
    std::lock_guard lk(r.mu);
    return r.devices;
}

std::shared_ptr<SimDevice> FindBySerial(int32_t serial) {
    for (auto& d : AttachedDevices())
        if (d->SerialNumber() == serial) return d;
    return nullptr;
}

namespace {

class SimHandle final : public usb::UsbDevice {
public:
    SimHandle(usb::UsbBackend& backend, std::shared_ptr<SimDevice> device, usb::DeviceIdentity identity,
              uint64_t generation)
        : backend_(backend), device_(std::move(device)), identity_(std::move(identity)), generation_(generation) {}

    const usb::DeviceIdentity& Identity() const override { return identity_; }
    usb::UsbBackend& Backend() override { return backend_; }
    bool SelectAltSetting0() override { return device_->HandleValid(generation_); }
    int ControlIn(uint8_t request, uint16_t, uint16_t, uint8_t* data, uint16_t length, uint32_t) override {
        return device_->ControlIn(generation_, request, data, length);
    }
    int ControlOut(uint8_t request, uint16_t value, uint16_t index, const uint8_t* data, uint16_t length,
                   uint32_t) override {
        return device_->ControlOut(generation_, request, value, index, data, length);
    }
    std::unique_ptr<usb::BulkTransfer> BeginBulk(usb::Endpoint ep, uint8_t* buffer, uint32_t length) override {
        return device_->BeginBulk(generation_, ep, buffer, length);
    }
    usb::WaitResult WaitBulk(usb::BulkTransfer& t, uint32_t timeoutMs) override {
        return device_->WaitBulk(static_cast<SimTransfer&>(t), timeoutMs);
    }
    void AbortEndpoint(usb::Endpoint ep) override { device_->AbortEndpoint(generation_, ep); }
    uint32_t FinishBulk(usb::BulkTransfer& t) override { return device_->FinishBulk(static_cast<SimTransfer&>(t)); }

private:
    usb::UsbBackend& backend_;
    std::shared_ptr<SimDevice> device_;
    usb::DeviceIdentity identity_;
    uint64_t generation_;
};

struct SnapshotEntry {
    std::weak_ptr<SimDevice> device;
    usb::DeviceIdentity identity;
    uint64_t generation = 0;
};

// Each thread enumerates on its own snapshot, as a driver's device list is
// a snapshot of the bus.
thread_local std::vector<SnapshotEntry> tSnapshot;

class SimBackend final : public usb::UsbBackend {
public:
    const char* Name() const override { return "simulator"; }

    int DeviceCount() override {
        tSnapshot.clear();
        for (auto& d : AttachedDevices()) {
            SnapshotEntry e;
            if (d->PresentNow(&e.identity, &e.generation)) {
                e.device = d;
                tSnapshot.push_back(std::move(e));
            }
        }
        return static_cast<int>(tSnapshot.size());
    }

    std::unique_ptr<usb::UsbDevice> Open(int index) override {
        if (index < 0 || index >= static_cast<int>(tSnapshot.size())) return nullptr;
        const SnapshotEntry& e = tSnapshot[static_cast<size_t>(index)];
        auto d = e.device.lock();
        if (!d || !d->HandleValid(e.generation)) return nullptr;
        d->CountOpen();
        return std::make_unique<SimHandle>(*this, d, e.identity, e.generation);
    }

    void Sleep(uint32_t ms) override { AdvanceVirtualMs(ms); }
};

} // namespace

usb::UsbBackend& Backend() {
    static SimBackend backend;
    return backend;
}

} // namespace lx::sim
