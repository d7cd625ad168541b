// The simulated device on the bus: enumeration, identity, personalities,
// re-enumeration in virtual time, vendor requests, and the attach calls.
#include <atomic>
#include <thread>

#include "sim_test_util.h"

using namespace simtest;

namespace {

using BusTest = SimTest;

TEST_F(BusTest, EnumeratesInAttachOrderAndDetachedDevicesVanish) {
    ASSERT_EQ(lxSimAttach(30000001, nullptr), lxNoError);
    ASSERT_EQ(lxSimAttach(20000002, nullptr), lxNoError);
    int32_t rawId = 0;
    ASSERT_EQ(lxSimAttachRaw("LX530 Boot", "1234", nullptr, &rawId), lxNoError);
    ASSERT_EQ(lxSimAttach(10000003, ""), lxNoError);
    EXPECT_EQ(EnumeratedSerials(), (std::vector<std::string>{"30000001", "20000002", "1234", "10000003"}));

    ASSERT_EQ(lxSimDetach(20000002), lxNoError);
    ASSERT_EQ(lxSimDetachId(rawId), lxNoError);
    EXPECT_EQ(EnumeratedSerials(), (std::vector<std::string>{"30000001", "10000003"}));
    EXPECT_EQ(lxSimDetach(20000002), lxDeviceNotFoundErr);
    EXPECT_EQ(lxSimDetachId(rawId), lxDeviceNotFoundErr);
}

// Bad scenes: tests/sim/emitters_test.cpp.
TEST_F(BusTest, AttachRejectsBadArgumentsAndChangesNothing) {
    ASSERT_EQ(lxSimAttach(40000000, nullptr), lxNoError);
    for (int32_t serial : {40000000, 9999999, 100000000}) EXPECT_EQ(lxSimAttach(serial, nullptr), lxInvalidParameterErr);
    int32_t id = 0;
    EXPECT_EQ(lxSimAttachRaw(nullptr, "1", nullptr, &id), lxNullPtrErr);
    EXPECT_EQ(lxSimAttachRaw("LX530", nullptr, nullptr, &id), lxNullPtrErr);
    EXPECT_EQ(lxSimAttachRaw("LX530", "1", nullptr, nullptr), lxNullPtrErr);
    EXPECT_EQ(lxSimSetScene(40000009, nullptr), lxDeviceNotFoundErr);
    EXPECT_EQ(lxSimInjectFault(40000000, 6, 1), lxInvalidParameterErr);
    EXPECT_EQ(lxSimGetCounters(40000000, nullptr), lxNullPtrErr);
    EXPECT_EQ(EnumeratedSerials(), std::vector<std::string>{"40000000"});
}

// Vendor request 0xE0 and the word 0xFFFA0003 each re-enumerate: the device
// is gone until a virtual second has passed, comes back in the other
// personality, and a handle of the old enumeration is dead for good.
TEST_F(BusTest, PersonalityChangesReEnumerateInVirtualTime) {
    ASSERT_EQ(lxSimAttach(50000001, nullptr), lxNoError);
    auto run = Open(50000001);
    ASSERT_NE(run, nullptr);
    EXPECT_EQ(run->Identity().product, "LX530");

    const uint64_t t0 = VirtualMs();
    const auto wallStart = std::chrono::steady_clock::now();
    ASSERT_EQ(run->ControlOut(0xE0, 0, 0, nullptr, 0, 1000), 0);
    EXPECT_EQ(Open(50000001), nullptr) << "present again before it could have re-enumerated";
    Bus().Sleep(999);
    EXPECT_EQ(Open(50000001), nullptr);
    Bus().Sleep(1);
    auto boot = Open(50000001);
    ASSERT_NE(boot, nullptr);
    EXPECT_EQ(boot->Identity().product, "LX530 Boot");
    EXPECT_EQ(VirtualMs() - t0, 1000u); // (no other test runs in this process concurrently)
    EXPECT_LT(std::chrono::steady_clock::now() - wallStart, std::chrono::milliseconds(500)) << "slept for real";

    uint8_t reply[4];
    EXPECT_EQ(run->ControlIn(0xC2, 0, 0, reply, 4, 1000), -1);
    EXPECT_FALSE(run->SelectAltSetting0());
    uint8_t buf[8192];
    auto dead = run->BeginBulk(Endpoint::BulkIn, buf, sizeof buf);
    EXPECT_EQ(run->WaitBulk(*dead, 100), WaitResult::Failed);

    // Busy right after it came back, then idle.
    ASSERT_EQ(boot->ControlIn(0xC2, 0, 0, reply, 4, 1000), 4);
    EXPECT_EQ(reply[1], 1);
    Bus().Sleep(300);
    ASSERT_EQ(boot->ControlIn(0xC2, 0, 0, reply, 4, 1000), 4);
    EXPECT_EQ(reply[1], 0);

    ASSERT_TRUE(Send(*boot, {0xFFFA0003}));
    EXPECT_EQ(Open(50000001), nullptr);
    Bus().Sleep(1000);
    auto again = Open(50000001);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->Identity().product, "LX530");
    int32_t personality = -1;
    ASSERT_EQ(lxSimGetPersonality(50000001, &personality), lxNoError);
    EXPECT_EQ(personality, 1);
    // Unknown requests stall.
    EXPECT_EQ(again->ControlIn(0x55, 0, 0, reply, 4, 1000), -1);
    EXPECT_EQ(again->ControlOut(0x55, 0, 0, nullptr, 0, 1000), -1);
}

// The run image is started only when its sector holds an image.
TEST_F(BusTest, BootLoaderStaysWhenTheRunSectorIsErased) {
    int32_t id = 0;
    ASSERT_EQ(lxSimAttachRaw("LX530 Boot", "50000002", nullptr, &id), lxNoError);
    auto boot = Open(50000002);
    ASSERT_NE(boot, nullptr);
    ASSERT_TRUE(Send(*boot, {0xFFFC0000u | 49152, 0xFFFA0003}));
    Bus().Sleep(2000);
    auto still = Open(50000002);
    ASSERT_NE(still, nullptr);
    EXPECT_EQ(still->Identity().product, "LX530 Boot");
    EXPECT_TRUE(boot->SelectAltSetting0()) << "nothing re-enumerated: the first handle still works";
}

TEST_F(BusTest, OpenHandleOfUnpluggedDeviceFailsEverything) {
    ASSERT_EQ(lxSimAttach(50000004, nullptr), lxNoError);
    auto d = Open(50000004);
    ASSERT_NE(d, nullptr);
    const int count = Bus().DeviceCount();
    ASSERT_EQ(lxSimDetach(50000004), lxNoError);
    EXPECT_EQ(Bus().Open(count - 1), nullptr) << "a device that vanished after the count opens as null";
    uint8_t reply[4];
    EXPECT_EQ(d->ControlIn(0xC2, 0, 0, reply, 4, 1000), -1);
    EXPECT_FALSE(Send(*d, Request(0, 1)));
    // Re-attaching the same serial gives a new device; the old handle stays dead.
    ASSERT_EQ(lxSimAttach(50000004, nullptr), lxNoError);
    EXPECT_FALSE(d->SelectAltSetting0());
    EXPECT_NE(Open(50000004), nullptr);
}

// A transport's USB thread streams while the application's thread attaches
// and detaches other devices, changes the scene, injects faults and reads
// counters, then unplugs the streaming device: the stream ends with a failed
// transfer, nothing hangs (and ThreadSanitizer sees no race).
TEST_F(BusTest, ControlCallsRaceAStreamSafely) {
    ASSERT_EQ(lxSimAttach(51000001, ToneScene(1e9, -30).c_str()), lxNoError);
    auto d = Open(51000001);
    ASSERT_NE(d, nullptr);
    std::atomic<int> blocks{0};
    std::atomic<bool> failed{false};
    std::thread usb([&] {
        std::vector<uint8_t> buf(1 << 20);
        while (!failed) {
            if (!Send(*d, Request(127, 1))) {
                failed = true;
                break;
            }
            auto t = d->BeginBulk(Endpoint::BulkIn, buf.data(), static_cast<uint32_t>(buf.size()));
            const WaitResult w = d->WaitBulk(*t, 2000);
            if (w == WaitResult::TimedOut) {
                d->AbortEndpoint(Endpoint::BulkIn);
                d->WaitBulk(*t, 2000);
            }
            if (w == WaitResult::Failed) failed = true;
            d->FinishBulk(*t);
            ++blocks;
        }
    });
    for (int i = 0; i < 20; ++i) {
        const int32_t other = 51000100 + i;
        ASSERT_EQ(lxSimAttach(other, nullptr), lxNoError);
        EXPECT_FALSE(EnumeratedSerials().empty());
        const std::string scene = R"({"temperature_c": )" + std::to_string(20 + i) + "}";
        ASSERT_EQ(lxSimSetScene(51000001, scene.c_str()), lxNoError);
        ASSERT_EQ(lxSimInjectFault(51000001, lxSimFaultBadMagic, 1), lxNoError);
        LxSimCounters c{};
        ASSERT_EQ(lxSimGetCounters(51000001, &c), lxNoError);
        int32_t n = 0;
        ASSERT_EQ(lxSimGetCommandLog(51000001, nullptr, 0, &n), lxNoError);
        ASSERT_EQ(lxSimDetach(other), lxNoError);
    }
    while (blocks < 5 && !failed) std::this_thread::yield();
    EXPECT_FALSE(failed) << "the stream broke before the unplug";
    ASSERT_EQ(lxSimDetach(51000001), lxNoError);
    usb.join();
    EXPECT_TRUE(failed);
}

} // namespace
