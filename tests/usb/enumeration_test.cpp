// Which devices the lists offer, by their descriptors.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "sim/sim_backend.h"
#include "usb/libusb_backend.h"
#include "usb/usb_transport.h"
#include "usb_test_support.h"

namespace lx::usb {
namespace {

using testing::SimBus;

class Enumeration : public SimBus {};

TEST_F(Enumeration, ListsFollowDescriptors) {
    // inSerialList: any product with a valid serial; run, boot: IsRunFirmware, IsBootLoader.
    struct Row { const char* product; const char* serialString; bool inSerialList, inBootList, run, boot; };
    const Row rows[] = {
        {"LX530", "20000001", true, true, true, false},
        {"LX530 Boot", "20000002", true, true, false, true},
        {"LX530X", "20000003", true, false, false, false},       // "LX530" must be the whole string
        {"LX530 Boot2", "20000004", true, false, false, false},
        {"LX530", "2000008", false, false, true, false},          // 7 characters
        {"LX530", "200000009", false, false, true, false},        // 9 characters
        {"LX530 Boot", "", false, false, false, true},
        {"LX530", "2000001x", false, false, true, false},         // not a number
    };
    for (const Row& r : rows) {
        int32_t id = 0;
        ASSERT_EQ(lxSimAttachRaw(r.product, r.serialString, nullptr, &id), lxNoError) << r.product;
    }

    const std::vector<int32_t> serials = ListSerials({kProductId});
    const std::vector<BootCandidate> boot = ListBootCandidates();
    size_t expectedSerials = 0, expectedBoot = 0;
    for (const Row& r : rows) {
        const int32_t serial = SerialFromString(r.serialString);
        SCOPED_TRACE(std::string(r.product) + " / " + r.serialString);
        expectedSerials += r.inSerialList;
        expectedBoot += r.inBootList;
        if (serial < 0) continue; // never listed: counted by the totals below
        EXPECT_EQ(std::ranges::count(serials, serial), r.inSerialList ? 1 : 0);
        bool listed = false;
        for (const BootCandidate& b : boot) {
            if (b.serial != serial) continue;
            listed = true;
            EXPECT_EQ(b.isRunFirmware, r.run);
        }
        EXPECT_EQ(listed, r.inBootList);

        const std::unique_ptr<UsbDevice> dev = FindBySerial(serial);
        ASSERT_NE(dev, nullptr);
        EXPECT_EQ(IsRunFirmware(dev.get()), r.run);
        EXPECT_EQ(IsBootLoader(dev.get()), r.boot);
    }
    EXPECT_EQ(serials.size(), expectedSerials);
    EXPECT_EQ(boot.size(), expectedBoot);

    // Only the accepted product IDs are listed.
    EXPECT_TRUE(ListSerials({0x000D}).empty());
    EXPECT_FALSE(IsRunFirmware(nullptr));
    EXPECT_FALSE(IsBootLoader(nullptr));
    EXPECT_EQ(FindBySerial(2000008), nullptr);
}

TEST_F(Enumeration, BoundDevicesAreNotOfferedAgain) {
    const int32_t a = 20000101, b = 20000102;
    Attach(a);
    Attach(b);
    EXPECT_EQ(ListSerials({kProductId}), (std::vector<int32_t>{a, b}));
    {
        UsbTransport t;
        ASSERT_EQ(t.OpenWithCalibration(a), lxNoError);
        EXPECT_EQ(ListSerials({kProductId}), std::vector<int32_t>{b});
        const std::vector<BootCandidate> boot = ListBootCandidates();
        ASSERT_EQ(boot.size(), 1u);
        EXPECT_EQ(boot[0].serial, b);
        // Binding a second transport does not make the first one's serial free
        // when it closes.
        UsbTransport second;
        ASSERT_TRUE(second.BindEndpoints(FindBySerial(a)));
        second.Close();
        EXPECT_EQ(ListSerials({kProductId}), std::vector<int32_t>{b});
        EXPECT_FALSE(t.BindEndpoints(FindBySerial(b))) << "a bound transport takes no second device";
    }
    EXPECT_EQ(ListSerials({kProductId}), (std::vector<int32_t>{a, b}));
}

TEST_F(Enumeration, WaitNotBusyGivesUpAfterTenSeconds) {
    const int32_t serial = 20000201;
    int32_t id = 0;
    ASSERT_EQ(lxSimAttachRaw(kBootLoaderProduct, "20000201", nullptr, &id), lxNoError);
    std::unique_ptr<UsbDevice> dev = FindBySerial(serial);
    ASSERT_NE(dev, nullptr);
    ASSERT_EQ(lxSimInjectFault(serial, lxSimFaultStayBusy, -1), lxNoError);
    const uint64_t v0 = VirtualMs();
    EXPECT_FALSE(WaitNotBusy(dev.get()));
    const uint64_t waited = VirtualMs() - v0;
    EXPECT_GE(waited, 10000u);
    EXPECT_LE(waited, 10100u);
    ASSERT_EQ(lxSimInjectFault(serial, lxSimFaultNone, 0), lxNoError);
    EXPECT_TRUE(WaitNotBusy(dev.get()));
    EXPECT_FALSE(WaitNotBusy(nullptr));
}

// The simulator's analyzers come first; libusb on a machine without the
// instrument finds nothing and says nothing.
TEST(Backends, SimulatorFirstAndLibusbQuietWithoutHardware) {
    const std::vector<UsbBackend*> backends = Backends();
    ASSERT_EQ(backends.size(), 2u);
    EXPECT_EQ(backends[0], &lx::sim::Backend());
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    UsbBackend& usb = LibusbBackend();
    EXPECT_EQ(usb.DeviceCount(), 0);
    EXPECT_EQ(usb.Open(0), nullptr);
    EXPECT_EQ(usb.Open(-1), nullptr);
    EXPECT_EQ(::testing::internal::GetCapturedStdout() + ::testing::internal::GetCapturedStderr(), "");
}

} // namespace
} // namespace lx::usb
