// Unplugging with reads queued, and bad slots. (Short and stalled transfers:
// tests/usb_umockdev, tests/faults; the flash pages, read back and booted
// from: tests/e2e/flash_test.cpp.)
#include <chrono>
#include <thread>

#include "lx_command/command_list.h"
#include "lx_command/encoders.h"
#include "usb/usb_transport.h"
#include "usb_test_support.h"

namespace lx::usb {
namespace {

using testing::SimBus;

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

} // namespace
} // namespace lx::usb
