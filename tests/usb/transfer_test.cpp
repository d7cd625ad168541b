// Unplugging with reads queued, bad slots, and the boot loader's flash words.
// (Short and stalled transfers: tests/usb_umockdev, tests/faults.)
#include <chrono>
#include <thread>

#include "lx_command/command_list.h"
#include "lx_command/encoders.h"
#include "usb/usb_transport.h"
#include "usb_test_support.h"

namespace lx::usb {
namespace {

using testing::Personality;
using testing::SimBus;
using testing::VirtualMs;

using Clock = std::chrono::steady_clock;

long long MsSince(Clock::time_point t0) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
}

CommandList FourAuxRequest() {
    CommandList list;
    list.BeginBlock();
    EncodeTransferRequest(list, 0, 4);
    return list;
}

class Transfers : public SimBus {};

TEST_F(Transfers, UnplugFailsQueuedReadsWithinTheirTimeOut) {
    const int32_t serial = 10000310;
    Attach(serial);
    UsbTransport t;
    ASSERT_EQ(t.OpenWithCalibration(serial), lxNoError);

    constexpr int kQueued = 4;
    constexpr uint32_t kTimeoutMs = 1500;
    for (int s = 0; s < kQueued; ++s) ASSERT_TRUE(t.BeginRead(s, 32768, kTimeoutMs));
    const auto t0 = Clock::now();
    std::thread unplug([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(lxSimDetach(serial), lxNoError);
    });
    for (int s = 0; s < kQueued; ++s) {
        const TransferResult r = t.FinishRead(s);
        EXPECT_TRUE(r.timedOut || r.transferred < r.requested) << "slot " << s;
    }
    unplug.join();
    EXPECT_LT(MsSince(t0), kTimeoutMs) << "an unplug must fail the reads, not leave them to time out";
    EXPECT_EQ(t.LinkStatus(), lxConnectionLostErr);

    // Commands to a device that is gone fail the same way.
    t.ClearLinkStatus();
    EXPECT_FALSE(t.Send(FourAuxRequest()));
    EXPECT_EQ(t.LinkStatus(), lxConnectionLostErr);

    t.Close();
    EXPECT_FALSE(t.IsBound());
    EXPECT_FALSE(t.IsOpen());
    EXPECT_EQ(t.Serial(), -1);
    t.Close(); // closing twice is harmless
}

TEST_F(Transfers, BadSlotsAndLengthsStartNothing) {
    const int32_t serial = 10000311;
    Attach(serial);
    UsbTransport t;
    ASSERT_EQ(t.OpenWithCalibration(serial), lxNoError);

    const std::vector<uint32_t> tooLong(kOutSlotBytes / 4 + 1, 0);
    EXPECT_FALSE(t.BeginRead(-1, 32768, 100));
    EXPECT_FALSE(t.BeginRead(kSlotCount, 32768, 100));
    EXPECT_FALSE(t.BeginRead(0, kInSlotBytes + 1, 100));
    EXPECT_FALSE(t.BeginWrite(0, tooLong, 100));
    EXPECT_EQ(t.LinkStatus(), lxNoError) << "refusing to start changes nothing";
    // Finishing a slot where nothing was started cannot deliver data.
    EXPECT_TRUE(t.FinishRead(5).timedOut);
    EXPECT_EQ(t.LinkStatus(), lxConnectionLostErr);

    UsbTransport unbound;
    EXPECT_FALSE(unbound.Send(FourAuxRequest()));
    EXPECT_EQ(unbound.LinkStatus(), lxConnectionLostErr);
}

// The boot loader's flash words, checked against what the device's flash
// holds afterwards: page addressing, the erase, and the byte order of a page.
TEST_F(Transfers, FlashWordsReachTheRightPages) {
    const int32_t serial = 10000312;
    int32_t id = 0;
    ASSERT_EQ(lxSimAttachRaw(kBootLoaderProduct, "10000312", nullptr, &id), lxNoError);
    ASSERT_EQ(Personality(serial), 0);
    UsbTransport t;
    ASSERT_TRUE(t.BindEndpoints(FindBySerial(serial)));
    ASSERT_TRUE(WaitNotBusy(t.Device()));

    constexpr uint32_t kSector = 8192; // outside every image the device keeps
    std::vector<uint8_t> before(kFlashPageBytes), after(kFlashPageBytes);
    for (size_t i = 0; i < before.size(); ++i) {
        before[i] = static_cast<uint8_t>(i * 7 + 3);
        after[i] = static_cast<uint8_t>(0xF0 ^ i);
    }
    std::vector<uint8_t> block(kFlashReadBytes);
    auto pageOf = [&](uint32_t p) { return std::vector<uint8_t>(block.begin() + p * 1024, block.begin() + (p + 1) * 1024); };
    const std::vector<uint8_t> erased(kFlashPageBytes, 0xFF);

    ASSERT_EQ(t.WriteFlashPage(kSector + 1, before.data()), lxNoError);
    ASSERT_EQ(t.ReadFlash(kSector, block.data()), lxNoError);
    EXPECT_EQ(pageOf(0), erased);
    EXPECT_EQ(pageOf(1), before);
    EXPECT_EQ(pageOf(2), erased);

    const uint64_t v0 = VirtualMs();
    ASSERT_EQ(t.EraseFlashPage(kSector), lxNoError);
    EXPECT_GE(VirtualMs() - v0, 2000u) << "the erase pause goes through the backend";
    ASSERT_EQ(t.WriteFlashPage(kSector + 31, after.data()), lxNoError);
    ASSERT_EQ(t.ReadFlash(kSector, block.data()), lxNoError);
    EXPECT_EQ(pageOf(1), erased);
    EXPECT_EQ(pageOf(31), after);


    // Pages travel in 16 bits: a larger one is refused.
    EXPECT_EQ(t.ReadFlash(0x10000, block.data()), lxInvalidParameterErr);
    EXPECT_EQ(t.WriteFlashPage(0x10000, after.data()), lxInvalidParameterErr);
    EXPECT_EQ(t.EraseFlashPage(0x10000), lxInvalidParameterErr);
    EXPECT_EQ(t.ReadFlash(kSector, nullptr), lxNullPtrErr);
}

} // namespace
} // namespace lx::usb
