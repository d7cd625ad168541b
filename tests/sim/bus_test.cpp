// The simulated device on the bus.
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

// What the bad-input table (tests/e2e) cannot pose: a serial already
// attached, a fault number in the gap of the enumeration. Bad scenes:
// tests/sim/emitters_test.cpp.
TEST_F(BusTest, AttachRejectsBadArgumentsAndChangesNothing) {
    ASSERT_EQ(lxSimAttach(40000000, nullptr), lxNoError);
    EXPECT_EQ(lxSimAttach(40000000, nullptr), lxInvalidParameterErr);
    EXPECT_EQ(lxSimSetScene(40000009, nullptr), lxDeviceNotFoundErr);
    EXPECT_EQ(lxSimInjectFault(40000000, 6, 1), lxInvalidParameterErr);
    const uint64_t v = VirtualMs();
    EXPECT_EQ(lxSimAdvanceTimeMs(1000000001), lxInvalidParameterErr);
    EXPECT_EQ(VirtualMs(), v);
    EXPECT_EQ(EnumeratedSerials(), std::vector<std::string>{"40000000"});
}

// Vendor request 0xE0 re-enumerates: the device is gone until a virtual
// second has passed (no real sleep), comes back in the other personality, and
// a handle of the old enumeration is dead for good. Unknown requests stall.
TEST_F(BusTest, PersonalityChangeReEnumeratesInVirtualTime) {
    ASSERT_EQ(lxSimAttach(50000001, nullptr), lxNoError);
    auto run = Open(50000001);
    ASSERT_NE(run, nullptr);
    uint8_t reply[4];
    EXPECT_EQ(run->ControlIn(0x55, 0, 0, reply, 4, 1000), -1);
    EXPECT_EQ(run->ControlOut(0x55, 0, 0, nullptr, 0, 1000), -1);
    const uint64_t t0 = VirtualMs();
    ASSERT_EQ(run->ControlOut(0xE0, 0, 0, nullptr, 0, 1000), 0);
    Bus().Sleep(999);
    EXPECT_EQ(Open(50000001), nullptr) << "present again before it could have re-enumerated";
    Bus().Sleep(1);
    auto boot = Open(50000001);
    ASSERT_NE(boot, nullptr);
    EXPECT_EQ(boot->Identity().product, "LX530 Boot");
    EXPECT_EQ(VirtualMs() - t0, 1000u); // (no other test runs in this process concurrently)
    EXPECT_EQ(run->ControlIn(0xC2, 0, 0, reply, 4, 1000), -1);
    EXPECT_FALSE(run->SelectAltSetting0());
}

// The log keeps the most recent 262144 words, oldest first, across its wrap.
TEST_F(BusTest, CommandLogKeepsTheNewestWordsInOrder) {
    ASSERT_EQ(lxSimAttach(50000001, nullptr), lxNoError);
    auto d = Open(50000001);
    ASSERT_TRUE(d);
    constexpr uint32_t kKept = 262144, kSent = kKept + 1000;
    std::vector<uint32_t> words(kSent);
    for (uint32_t k = 0; k < kSent; ++k) words[k] = 0x80000000u + k; // words the device ignores
    ASSERT_EQ(lxSimClearCommandLog(50000001), lxNoError);
    ASSERT_TRUE(Send(*d, words));
    std::vector<uint32_t> log(kKept + 1);
    int32_t count = 0;
    ASSERT_EQ(lxSimGetCommandLog(50000001, log.data(), static_cast<int32_t>(log.size()), &count), lxNoError);
    ASSERT_EQ(count, static_cast<int32_t>(kKept));
    EXPECT_TRUE(std::equal(words.end() - kKept, words.end(), log.begin()));
}

} // namespace
