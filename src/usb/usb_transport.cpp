#include "usb/usb_transport.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <thread>

#include "cal/cal_record.h"
#include "common/lx_assert.h"
#include "lx_command/command_list.h"
#include "lx_command/encoders.h"
#include "lx_command/little_endian.h"
#include "lx_lib/cal_files.h"

namespace lx::usb {
namespace {

constexpr uint32_t kControlTimeoutMs = 1000;
constexpr uint32_t kSendTimeoutMs = 2000;
constexpr uint32_t kAbortGraceMs = 2000;
constexpr uint32_t kReenumerateMs = 3000;
constexpr uint32_t kBusyPollMs = 100;
constexpr uint32_t kBusyLimitMs = 10000;
constexpr uint32_t kFlashReadSettleMs = 100;
constexpr uint32_t kFlashReadTimeoutMs = 2000;
constexpr uint32_t kFlashWriteSettleMs = 16;
constexpr uint32_t kFlashEraseSettleMs = 2000;
constexpr uint32_t kHandshakeReadBytes = 32768;
constexpr uint32_t kHandshakeTimeoutMs = 100;
constexpr int kHandshakeAttempts = 16;
// A device that streams without end would keep the drain going for ever; this
// many stale reads (128 MiB) is far more than any FIFO holds.
constexpr int kMaxDrainReads = 4096;
constexpr uint32_t kMaxFlashPage = 0xFFFF;  // the page travels in the word's low 16 bits
constexpr int kCalFlashReads = static_cast<int>(calSizeBytes / kFlashReadBytes);
constexpr size_t kSerialLengthLimit = 250;

static_assert(calSizeBytes % kFlashReadBytes == 0);
static_assert(kOutSlotBytes == CMD_SIZE_WORDS * sizeof(uint32_t));

// Slot and scratch buffers are 64-byte aligned for the engines' vector code.
struct FreeDeleter {
    void operator()(uint8_t* p) const { std::free(p); }
};
using AlignedBytes = std::unique_ptr<uint8_t[], FreeDeleter>;
AlignedBytes AllocAligned(size_t bytes) {
    return AlignedBytes(static_cast<uint8_t*>(std::aligned_alloc(64, bytes)));
}

// Serials bound to a transport in this process. A multiset: should two
// transports ever bind the same serial (a boot-mode open beside a normal one),
// closing one must not make the device look free.
// Never destroyed: an application that exits with a device open closes it
// from the device table's destructor, which may run after these would have
// been destroyed.
std::mutex& OpenSerialsMutex() {
    static auto* m = new std::mutex;
    return *m;
}
std::multiset<int32_t>& OpenSerials() {
    static auto* s = new std::multiset<int32_t>;
    return *s;
}
void InsertOpenSerial(int32_t serial) {
    std::lock_guard lock(OpenSerialsMutex());
    OpenSerials().insert(serial);
}
void EraseOpenSerial(int32_t serial) {
    std::lock_guard lock(OpenSerialsMutex());
    auto it = OpenSerials().find(serial);
    if (it != OpenSerials().end()) OpenSerials().erase(it);
}
std::set<int32_t> OpenSerialsSnapshot() {
    std::lock_guard lock(OpenSerialsMutex());
    return {OpenSerials().begin(), OpenSerials().end()};
}

// Calls visit(device) for every device of every backend, in enumeration
// order, until it returns true. A device that vanished between the count and
// the open is skipped.
template <typename Visit>
void ForEachDevice(Visit&& visit) {
    for (UsbBackend* backend : Backends()) {
        int count = backend->DeviceCount();
        for (int i = 0; i < count; ++i) {
            std::unique_ptr<UsbDevice> dev = backend->Open(i);
            if (dev && visit(dev)) return;
        }
    }
}

} // namespace

// ---- identity and enumeration ----------------------------------------------------

int32_t SerialFromString(const std::string& s) {
    if (strnlen(s.c_str(), kSerialLengthLimit) != 8) return -1;
    int32_t value = 0;
    for (size_t i = 0; i < 8; ++i) {
        char c = s[i];
        if (c < '0' || c > '9') return -1;
        value = value * 10 + (c - '0');
    }
    return value;
}

bool IsBootLoader(const UsbDevice* dev) {
    return dev != nullptr && std::strcmp(dev->Identity().product.c_str(), kBootLoaderProduct) == 0;
}

bool IsRunFirmware(const UsbDevice* dev) {
    // Six bytes: the name and its terminator, so "LX530" must be all of it.
    return dev != nullptr && std::strncmp(dev->Identity().product.c_str(), kRunFirmwareProduct, 6) == 0;
}

std::vector<int32_t> ListSerials(const std::vector<uint16_t>& acceptedProductIds) {
    std::set<int32_t> bound = OpenSerialsSnapshot();
    std::vector<int32_t> serials;
    ForEachDevice([&](std::unique_ptr<UsbDevice>& dev) {
        const DeviceIdentity& id = dev->Identity();
        bool accepted = false;
        for (uint16_t pid : acceptedProductIds) accepted = accepted || pid == id.productId;
        int32_t serial = SerialFromString(id.serial);
        if (id.vendorId == kVendorId && accepted && serial >= 0 && !bound.contains(serial))
            serials.push_back(serial);
        return false;
    });
    return serials;
}

std::vector<BootCandidate> ListBootCandidates() {
    std::set<int32_t> bound = OpenSerialsSnapshot();
    std::vector<BootCandidate> found;
    ForEachDevice([&](std::unique_ptr<UsbDevice>& dev) {
        bool run = IsRunFirmware(dev.get());
        int32_t serial = SerialFromString(dev->Identity().serial);
        if ((run || IsBootLoader(dev.get())) && serial >= 0 && !bound.contains(serial))
            found.push_back({serial, run, 0});
        return false;
    });
    return found;
}

std::unique_ptr<UsbDevice> FindBySerial(int32_t serial) {
    std::unique_ptr<UsbDevice> match;
    if (serial < 0) return match; // -1 stands for "no valid serial"
    ForEachDevice([&](std::unique_ptr<UsbDevice>& dev) {
        const DeviceIdentity& id = dev->Identity();
        if (id.vendorId != kVendorId || id.productId != kProductId || SerialFromString(id.serial) != serial)
            return false;
        match = std::move(dev);
        return true;
    });
    return match;
}

bool WaitNotBusy(UsbDevice* dev) {
    if (dev == nullptr) return false;
    for (uint32_t waited = 0;; waited += kBusyPollMs) {
        uint8_t reply[4] = {};
        int n = dev->ControlIn(kRequestBusyPoll, 0, 0, reply, sizeof(reply), kControlTimeoutMs);
        // A poll that fails (the device still re-enumerating) counts as busy.
        if (n >= 2 && reply[1] != 1) return true;
        if (waited >= kBusyLimitMs) return false;
        dev->Backend().Sleep(kBusyPollMs);
    }
}

// ---- transport ---------------------------------------------------------------------

// OUT slot buffers (64 KiB in all) are allocated at bind. IN slot buffers are
// 1 MiB each, allocated when an engine first claims the transport
// (ReserveReadSlots) or on a slot's first read, then kept until Close: the
// open path only ever uses slot 0, so a device that is opened but never
// streams costs 1 MiB instead of 32.
struct UsbTransport::Slot {
    Endpoint ep = Endpoint::BulkIn;
    AlignedBytes buffer;
    uint32_t requested = 0;
    uint32_t timeoutMs = 0;
    std::unique_ptr<BulkTransfer> transfer;
};

UsbTransport::UsbTransport() : calImage_(new uint8_t[calSizeBytes]) {
    std::memset(calImage_.get(), 0xFF, calSizeBytes);
}

UsbTransport::~UsbTransport() {
    if (device_ || open_) Close();
}

void UsbTransport::Found(UsbDevice* dev) {
    if (dev != nullptr) sleepBackend_ = &dev->Backend();
}

void UsbTransport::Sleep(uint32_t ms) {
    if (sleepBackend_ != nullptr)
        sleepBackend_->Sleep(ms);
    else
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

bool UsbTransport::BindEndpoints(std::unique_ptr<UsbDevice> dev) {
    if (open_ || device_ || !dev) return false;
    if (!dev->SelectAltSetting0()) return false;
    auto outSlots = std::make_unique<Slot[]>(kSlotCount);
    auto inSlots = std::make_unique<Slot[]>(kSlotCount);
    for (int i = 0; i < kSlotCount; ++i) {
        outSlots[i].ep = Endpoint::BulkOut;
        outSlots[i].buffer = AllocAligned(kOutSlotBytes);
        if (!outSlots[i].buffer) return false;
        inSlots[i].ep = Endpoint::BulkIn;
    }
    Found(dev.get());
    serial_ = SerialFromString(dev->Identity().serial);
    InsertOpenSerial(serial_);
    device_ = std::move(dev);
    outSlots_ = std::move(outSlots);
    inSlots_ = std::move(inSlots);
    linkStatus_.store(lxNoError); // a new link
    return true;
}

bool UsbTransport::BeginTransfer(bool in, int slot, uint32_t length, uint32_t timeoutMs,
                                 std::span<const uint32_t> words) {
    if (!device_ || slot < 0 || slot >= kSlotCount) return false;
    Slot& s = in ? inSlots_[slot] : outSlots_[slot];
    if (s.transfer) return false; // still under way: finish it first
    if (in) {
        if (length > kInSlotBytes) return false;
        if (!s.buffer) s.buffer = AllocAligned(kInSlotBytes);
        if (!s.buffer) return false;
    } else {
        if (words.size() * sizeof(uint32_t) > kOutSlotBytes) return false;
        for (size_t i = 0; i < words.size(); ++i) StoreLE<uint32_t>(s.buffer.get() + 4 * i, words[i]);
        length = static_cast<uint32_t>(words.size() * sizeof(uint32_t));
    }
    s.requested = length;
    s.timeoutMs = timeoutMs;
    s.transfer = device_->BeginBulk(s.ep, s.buffer.get(), length);
    return s.transfer != nullptr;
}

bool UsbTransport::ReserveReadSlots() {
    if (!device_) return false;
    bool ok = true;
    for (int i = 0; i < kSlotCount; ++i) {
        Slot& s = inSlots_[i];
        if (s.buffer || s.transfer) continue;
        s.buffer = AllocAligned(kInSlotBytes);
        if (s.buffer) std::memset(s.buffer.get(), 0, kInSlotBytes);
        ok = ok && s.buffer;
    }
    return ok;
}

bool UsbTransport::BeginRead(int slot, uint32_t length, uint32_t timeoutMs) {
    return BeginTransfer(true, slot, length, timeoutMs, {});
}

bool UsbTransport::BeginWrite(int slot, std::span<const uint32_t> words, uint32_t timeoutMs) {
    return BeginTransfer(false, slot, 0, timeoutMs, words);
}

TransferResult UsbTransport::FinishTransfer(bool in, int slot) {
    TransferResult r;
    Slot* s = nullptr;
    if (device_ && slot >= 0 && slot < kSlotCount) s = in ? &inSlots_[slot] : &outSlots_[slot];
    if (s == nullptr || !s->transfer) {
        // Nothing under way (never started, or the link was closed): the data
        // the caller waits for will not come.
        r.timedOut = true;
        linkStatus_.store(lxConnectionLostErr);
        return r;
    }
    r.requested = s->requested;
    if (in) r.buffer = s->buffer.get();
    if (device_->WaitBulk(*s->transfer, s->timeoutMs) != WaitResult::Completed) {
        device_->AbortEndpoint(s->ep);
        device_->WaitBulk(*s->transfer, kAbortGraceMs);
        r.timedOut = true;
    }
    r.transferred = device_->FinishBulk(*s->transfer);
    s->transfer.reset();
    if (r.timedOut || r.transferred != r.requested) linkStatus_.store(lxConnectionLostErr);
    return r;
}

TransferResult UsbTransport::FinishRead(int slot) { return FinishTransfer(true, slot); }
TransferResult UsbTransport::FinishWrite(int slot) { return FinishTransfer(false, slot); }

bool UsbTransport::Send(const CommandList& list) {
    const std::vector<uint32_t>& cmds = list.Words();
    LX_ASSERT(cmds.size() % CMD_SIZE_WORDS == 0, "src/lx_command");
    const size_t blocks = cmds.size() / CMD_SIZE_WORDS;
    for (size_t b = 0; b < blocks; ++b) {
        std::span<const uint32_t> block(cmds.data() + b * CMD_SIZE_WORDS, CMD_SIZE_WORDS);
        BeginWrite(0, block, kSendTimeoutMs);
        TransferResult r = FinishWrite(0);
        // Judged by this block's own transfer, so that a status left over from
        // an earlier failure does not cut a later list short.
        if (r.timedOut || r.transferred != r.requested) return false;
    }
    return true;
}

bool UsbTransport::Handshake() {
    CommandList request;
    request.BeginBlock();
    EncodeTransferRequest(request, 0, 1);

    // Whatever an earlier session left in the device's FIFO goes first.
    for (int i = 0; i < kMaxDrainReads; ++i) {
        BeginRead(0, kHandshakeReadBytes, kHandshakeTimeoutMs);
        if (FinishRead(0).timedOut) break;
    }
    for (int attempt = 0; attempt < kHandshakeAttempts; ++attempt) {
        if (!Send(request)) return false;
        BeginRead(0, kHandshakeReadBytes, kHandshakeTimeoutMs);
        TransferResult r = FinishRead(0);
        // The answer is one 8 KiB aux packet: short of the 32 KiB asked for,
        // which is expected here and not a lost link.
        ClearLinkStatus();
        if (!r.timedOut) return true;
    }
    return false;
}

bool UsbTransport::RebootToLoader() {
    bool sent = false;
    if (device_) sent = device_->ControlOut(kRequestReboot, 0, 0, nullptr, 0, kControlTimeoutMs) >= 0;
    Sleep(kReenumerateMs);
    return sent;
}

LxStatus UsbTransport::ReadFlash(uint32_t page, uint8_t* out32k) {
    if (out32k == nullptr) return lxNullPtrErr;
    if (page > kMaxFlashPage) return lxInvalidParameterErr;
    CommandList cmd;
    cmd.BeginBlock();
    cmd.Push(BootReadFlashWord(page));
    if (!Send(cmd)) return LinkStatus();
    Sleep(kFlashReadSettleMs);
    BeginRead(0, kFlashReadBytes, kFlashReadTimeoutMs);
    TransferResult r = FinishRead(0);
    if (r.timedOut || r.transferred != kFlashReadBytes) {
        linkStatus_.store(lxConnectionLostErr);
        return lxConnectionLostErr;
    }
    std::memcpy(out32k, r.buffer, kFlashReadBytes);
    return LinkStatus();
}

LxStatus UsbTransport::WriteFlashPage(uint32_t page, const uint8_t* data1k) {
    if (data1k == nullptr) return lxNullPtrErr;
    if (page > kMaxFlashPage) return lxInvalidParameterErr;
    CommandList cmd;
    cmd.BeginBlock();
    cmd.Push(BootWriteFlashWord(page));
    for (uint32_t i = 0; i < kFlashPageBytes / 4; ++i) cmd.Push(LoadLE<uint32_t>(data1k + 4 * i));
    Send(cmd);
    Sleep(kFlashWriteSettleMs);
    return LinkStatus();
}

LxStatus UsbTransport::EraseFlashPage(uint32_t page) {
    if (page > kMaxFlashPage) return lxInvalidParameterErr;
    CommandList cmd;
    cmd.BeginBlock();
    cmd.Push(BootEraseFlashWord(page));
    if (Send(cmd)) Sleep(kFlashEraseSettleMs);
    return LinkStatus();
}

int UsbTransport::StartRunImage(int32_t serial) {
    std::unique_ptr<UsbDevice> dev = FindBySerial(serial);
    if (!dev) return lxDeviceNotFoundErr;
    Found(dev.get());
    if (!IsBootLoader(dev.get())) return IsRunFirmware(dev.get()) ? 0 : lxBootErr;
    UsbTransport loader;
    if (!loader.BindEndpoints(std::move(dev))) return lxBootErr;
    CommandList cmd;
    cmd.BeginBlock();
    cmd.Push(kBootStartRunImageWord);
    // The device may leave the bus as soon as it has the word; whether it
    // came back in its run firmware is what the caller looks up next.
    loader.Send(cmd);
    loader.Sleep(kReenumerateMs);
    loader.Close();
    return 0;
}

void UsbTransport::ReleaseSlots() {
    for (Slot* slots : {outSlots_.get(), inSlots_.get()}) {
        if (slots == nullptr) continue;
        for (int i = 0; i < kSlotCount; ++i) {
            Slot& s = slots[i];
            if (s.transfer && device_) {
                device_->WaitBulk(*s.transfer, kAbortGraceMs); // already aborted: completes at once
                device_->FinishBulk(*s.transfer);
            }
            s.transfer.reset();
        }
    }
    outSlots_.reset();
    inSlots_.reset();
}

void UsbTransport::Close() {
    if (device_) {
        device_->AbortEndpoint(Endpoint::BulkOut);
        device_->AbortEndpoint(Endpoint::BulkIn);
    }
    ReleaseSlots();
    if (device_) EraseOpenSerial(serial_);
    device_.reset();
    serial_ = -1;
    open_ = false;
}

// ---- open with calibration --------------------------------------------------------

LxStatus UsbTransport::BindRunFirmware(std::unique_ptr<UsbDevice> dev) {
    if (!dev || !IsRunFirmware(dev.get())) return lxBootErr;
    if (!BindEndpoints(std::move(dev))) return lxDeviceNotFoundErr;
    open_ = true;
    if (Handshake()) return lxNoError;
    RebootToLoader();
    Close();
    return lxConnectionLostErr;
}

LxStatus UsbTransport::ReadCalibrationFromLoader(int32_t serial, std::unique_ptr<UsbDevice> dev) {
    if (!WaitNotBusy(dev.get())) return lxBootErr;
    if (!BindEndpoints(std::move(dev))) return lxDeviceNotFoundErr;

    uint8_t* image = calImage_.get();
    bool cacheLoaded = CalFileExists(serial) && LoadCalFile(serial, image);
    uint64_t cacheDate = cacheLoaded ? CalNewestDate(image) : 0;

    // The first block holds the header: enough to tell whether the record was
    // ever programmed and how new it is.
    AlignedBytes head = AllocAligned(kFlashReadBytes);
    if (!head) {
        Close();
        return lxAllocationErr;
    }
    if (ReadFlash(kCalFirstPage, head.get()) != lxNoError) {
        Close();
        return lxConnectionLostErr;
    }
    const bool programmed = CalIsProgrammed(head.get());
    const bool flashNewer = !cacheLoaded || CalNewestDate(head.get()) > cacheDate;
    if (programmed && flashNewer) {
        for (int i = 0; i < kCalFlashReads; ++i) {
            uint32_t page = kCalFirstPage + static_cast<uint32_t>(i) * (kFlashReadBytes / kFlashPageBytes);
            if (ReadFlash(page, image + static_cast<size_t>(i) * kFlashReadBytes) != lxNoError) {
                Close();
                return lxConnectionLostErr;
            }
        }
    }
    if (programmed) {
        calInvalid_ = ValidateCalImage(image) ? 0 : 1;
        if (flashNewer) SaveCalFile(serial, image);
    }
    return lxNoError;
}

LxStatus UsbTransport::OpenWithCalibration(int32_t serial) {
    if (device_ || open_) return lxInvalidDeviceErr;
    std::unique_ptr<UsbDevice> dev = FindBySerial(serial);
    if (!dev) return lxDeviceNotFoundErr;
    Found(dev.get());

    if (IsRunFirmware(dev.get())) {
        if (CalFileExists(serial) && LoadCalFile(serial, calImage_.get())) {
            calInvalid_ = ValidateCalImage(calImage_.get()) ? 0 : 1;
            return BindRunFirmware(std::move(dev));
        }
        // No usable cache: the record is in flash, which only the boot
        // loader reads. The device re-enumerates, so this handle dies.
        dev->ControlOut(kRequestReboot, 0, 0, nullptr, 0, kControlTimeoutMs);
        dev.reset();
        Sleep(kReenumerateMs);
        dev = FindBySerial(serial);
        Found(dev.get());
    }
    if (!IsBootLoader(dev.get())) return BindRunFirmware(std::move(dev));

    LxStatus st = ReadCalibrationFromLoader(serial, std::move(dev));
    if (st != lxNoError) return st;

    Close();
    int started = StartRunImage(serial);
    if (started != 0) return static_cast<LxStatus>(started);
    dev = FindBySerial(serial);
    Found(dev.get());
    if (!WaitNotBusy(dev.get())) return lxBootErr;
    // Still in the loader: the run image did not start, and going round again
    // would not help.
    if (IsBootLoader(dev.get())) return lxBootErr;
    return BindRunFirmware(std::move(dev));
}

} // namespace lx::usb
