// Bad slots and lengths at the transport. (An unplug with reads queued:
// tests/e2e, tests/faults, tests/usb_umockdev; short and stalled transfers:
// tests/usb_umockdev, tests/faults.)
#include "lx_command/command_list.h"
#include "lx_command/encoders.h"
#include "usb/usb_transport.h"
#include "usb_test_support.h"

namespace lx::usb {
namespace {

using testing::SimBus;

class Transfers : public SimBus {};

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

    CommandList fourAux;
    fourAux.BeginBlock();
    EncodeTransferRequest(fourAux, 0, 4);
    UsbTransport unbound;
    EXPECT_FALSE(unbound.Send(fourAux));
    EXPECT_EQ(unbound.LinkStatus(), lxConnectionLostErr);
}

} // namespace
} // namespace lx::usb
