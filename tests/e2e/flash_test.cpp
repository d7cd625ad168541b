// Flash programming on simulated analyzers: what flash holds and what the
// analyzer reports after a restart, against the images the test built.
#include <cstring>
#include <functional>
#include <string>

#include "../boot/test_image.h"
#include "e2e_support.h"

namespace {

constexpr uint32_t kBootPage = 0, kFpgaPage = 1024, kCalPage = 4096, kRunPage = 49152;
constexpr size_t kSectorBytes = 256 * 1024;
constexpr size_t kCalBytes = sizeof(LX530CalData);

class Flash : public e2e::SimTest {
protected:
    void TearDown() override {
        lxBootCloseDevice(0);
        SimTest::TearDown();
    }

    static std::vector<uint8_t> Read(uint32_t firstPage, size_t bytes) {
        std::vector<uint8_t> out(bytes);
        for (size_t off = 0; off < bytes; off += 32768)
            EXPECT_EQ(lxBootReadFlashPage(0, firstPage + static_cast<uint32_t>(off / 1024), out.data() + off),
                      lxNoError);
        return out;
    }

    // What a sector holds after an image was programmed into it.
    static std::vector<uint8_t> Sector(const std::vector<uint8_t>& image, int hi = -1, int lo = -1) {
        std::vector<uint8_t> s(kSectorBytes, 0);
        std::copy(image.begin(), image.end(), s.begin());
        if (hi >= 0) {
            s[kSectorBytes - 2] = static_cast<uint8_t>(hi);
            s[kSectorBytes - 1] = static_cast<uint8_t>(lo);
        }
        return s;
    }

    // The slot's factory record, one second newer and one amplitude value
    // changed, with a checksum of the test's own arithmetic.
    static LX530CalData NewRecord() {
        LX530CalData rec;
        const auto flash = Read(kCalPage, kCalBytes);
        std::copy(flash.begin(), flash.end(), rec.raw);
        rec.raw[16] += 1;            // calibration date, one second later
        rec.raw[1208 + 4 * 77] ^= 0x20; // an amplitude value
        uint32_t sum = 0;
        for (size_t at = 672; at < kCalBytes; at += 4) sum += testimage::Get32({rec.raw + at, rec.raw + at + 4}, 0);
        for (int b = 0; b < 4; ++b) rec.raw[28 + b] = static_cast<uint8_t>(sum >> (8 * b));
        return rec;
    }

    const std::vector<uint8_t> boot_ = testimage::Build({.versionHi = 3, .versionLo = 17});
    const std::vector<uint8_t> run_ = testimage::Build({.boot = false});
    const std::string bootPath_ = testimage::WriteFile("boot.img", boot_), runPath_ = testimage::WriteFile("run.img", run_);
};

// No analyzer in the slot: not found, whatever the handle. With one: the
// handle, then the arguments; nothing refused reaches the flash.
TEST_F(Flash, ChecksInOrder) {
    uint8_t buf[32768] = {};
    double progress = 0;
    LX530CalData rec{};
    int32_t h = -1, serial = 0;
    const std::function<LxStatus(int32_t)> calls[] = {
        [&](int32_t k) { return lxBootReadFlashPage(k, 0, buf); },
        [&](int32_t k) { return lxBootWriteFlashPage(k, 8192, buf); },
        [&](int32_t k) { return lxBootClearFlashPage(k, 8192); },
        [&](int32_t k) { return lxBootClearBootSector(k); },
        [&](int32_t k) { return lxBootClearRunSector(k); },
        [&](int32_t k) { return lxBootClearFPGAProgram(k, &progress); },
        [&](int32_t k) { return lxBootClearCorrections(k, &progress); },
        [&](int32_t k) { return lxBootWriteFPGAProgram(k, bootPath_.c_str(), &progress); },
        [&](int32_t k) { return lxBootWriteCorrections(k, &rec, &progress); },
        [&](int32_t k) { return lxBootWriteRunSector(k, runPath_.c_str(), 0); },
        [&](int32_t k) { return lxBootWriteBootSector(k, bootPath_.c_str(), 0); },
    };
    for (const auto& call : calls) EXPECT_EQ(call(1), lxDeviceNotFoundErr);
    EXPECT_EQ(lxBootCloseDevice(0), lxInvalidDeviceErr);
    EXPECT_EQ(lxBootGetSerial(1, &serial), lxInvalidDeviceErr); // the handle before the slot here
    EXPECT_EQ(lxBootGetSerial(0, &serial), lxDeviceNotFoundErr);
    EXPECT_EQ(lxBootOpenDevice(&h), lxDeviceNotFoundErr);

    ASSERT_EQ(lxSimAttach(75000001, nullptr), lxNoError);
    ASSERT_EQ(lxBootOpenDevice(&h), lxNoError);
    EXPECT_EQ(h, 0);
    for (const auto& call : calls) EXPECT_EQ(call(1), lxInvalidDeviceErr);
    EXPECT_EQ(lxBootCloseDevice(1), lxInvalidDeviceErr);
    const std::string noMarker = testimage::WriteFile("nomarker.img", testimage::Build({.marker = false}));
    const std::string empty = testimage::WriteFile("empty.img", {});
    const std::pair<LxStatus, std::function<LxStatus()>> refused[] = {
        {lxNullPtrErr, [&] { return lxBootReadFlashPage(0, 0, nullptr); }},
        {lxNullPtrErr, [&] { return lxBootWriteFlashPage(0, 8192, nullptr); }},
        {lxNullPtrErr, [&] { return lxBootClearFPGAProgram(0, nullptr); }},
        {lxNullPtrErr, [&] { return lxBootWriteCorrections(0, nullptr, &progress); }},
        {lxNullPtrErr, [&] { return lxBootWriteFPGAProgram(0, nullptr, &progress); }},
        {lxNullPtrErr, [&] { return lxBootWriteRunSector(0, nullptr, 0); }},
        {lxNullPtrErr, [&] { return lxBootGetSerial(0, nullptr); }},
        {lxMaxDevicesConnectedErr, [&] { return lxBootOpenDevice(&h); }}, // the slot is taken
        {lxMaxDevicesConnectedErr, [&] { return lxBootOpenDeviceBySerial(&h, 75000001); }},
        {lxMaxDevicesConnectedErr, [&] { return lxBootStrap(nullptr, bootPath_.c_str()); }},
        {lxFileIOErr, [&] { return lxBootWriteBootSector(0, noMarker.c_str(), 75000001); }},
        {lxFileIOErr, [&] { return lxBootWriteBootSector(0, empty.c_str(), 75000001); }},
        {lxFileIOErr, [&] { return lxBootWriteRunSector(0, "/nonexistent/run.img", 0); }},
        {lxFileIOErr, [&] { return lxBootWriteFPGAProgram(0, empty.c_str(), &progress); }},
        {lxInvalidParameterErr, [&] { return lxBootReadFlashPage(0, 0x10000, buf); }}, // beyond the flash
        {lxInvalidParameterErr, [&] { return lxBootWriteFlashPage(0, 0x10000, buf); }},
    };
    for (size_t i = 0; i < std::size(refused); ++i) EXPECT_EQ(refused[i].second(), refused[i].first) << i;
    EXPECT_EQ(Get(lxSimGetCounters, 75000001).flashPageWrites, 0u);
    EXPECT_EQ(Get(lxSimGetCounters, 75000001).flashPageErases, 0u);
    EXPECT_EQ(e2e::Get(lxBootGetSerial, 0), 75000001);
}

TEST_F(Flash, EveryRegionRoundTripsAndTheAnalyzerRestartsWithIt) {
    constexpr int32_t kOld = 75000002, kNew = 75000099;
    ASSERT_EQ(lxSimAttach(kOld, nullptr), lxNoError);
    int32_t h = -1;
    ASSERT_EQ(lxBootOpenDeviceBySerial(&h, kOld), lxNoError);
    ASSERT_EQ(h, 0);

    // Run image: serial 0 stands for the analyzer's own; then the new one.
    ASSERT_EQ(lxBootClearRunSector(0), lxNoError);
    ASSERT_EQ(lxBootWriteRunSector(0, runPath_.c_str(), 0), lxNoError);
    EXPECT_EQ(Read(kRunPage, kSectorBytes), Sector(testimage::Patched(run_, kOld)));
    ASSERT_EQ(lxBootClearRunSector(0), lxNoError);
    ASSERT_EQ(lxBootWriteRunSector(0, runPath_.c_str(), kNew), lxNoError);
    EXPECT_EQ(Read(kRunPage, kSectorBytes), Sector(testimage::Patched(run_, kNew)));

    ASSERT_EQ(lxBootClearBootSector(0), lxNoError);
    ASSERT_EQ(lxBootWriteBootSector(0, bootPath_.c_str(), kNew), lxNoError);
    EXPECT_EQ(Read(kBootPage, kSectorBytes), Sector(testimage::Patched(boot_, kNew), 3, 17));

    std::vector<uint8_t> fpga(700 * 1024 + 100);
    for (size_t i = 0; i < fpga.size(); ++i) fpga[i] = static_cast<uint8_t>(i * 13 + i / 4099);
    double progress = -1;
    ASSERT_EQ(lxBootClearFPGAProgram(0, &progress), lxNoError);
    EXPECT_EQ(progress, 0.875);
    ASSERT_EQ(lxBootWriteFPGAProgram(0, testimage::WriteFile("fpga.bit", fpga).c_str(), &progress), lxNoError);
    EXPECT_DOUBLE_EQ(progress, 1.0);
    fpga.resize(8 * kSectorBytes, 0);
    EXPECT_EQ(Read(kFpgaPage, fpga.size()), fpga);

    const LX530CalData rec = NewRecord();
    ASSERT_EQ(lxBootClearCorrections(0, &progress), lxNoError);
    EXPECT_EQ(progress, 0.875);
    ASSERT_EQ(lxBootWriteCorrections(0, &rec, &progress), lxNoError);
    EXPECT_DOUBLE_EQ(progress, 1.0);
    EXPECT_EQ(Read(kCalPage, kCalBytes), std::vector<uint8_t>(rec.raw, rec.raw + kCalBytes));

    // Restarted, the analyzer is what its flash now says.
    ASSERT_EQ(lxBootCloseDevice(0), lxNoError);
    EXPECT_EQ(e2e::Get(lxSimGetPersonality, kOld), 0);
    ASSERT_EQ(lxOpenDeviceBySerial(&h, kNew), lxNoError);
    EXPECT_EQ(e2e::Get(lxGetSerialNumber, h), static_cast<uint32_t>(kNew));
    uint32_t major = 0, minor = 0, revision = 0;
    EXPECT_EQ(lxGetFirmwareVersion(h, &major, &minor, &revision), lxNoError);
    EXPECT_EQ(major * 100 + minor, 317u);
    LX530CalData cached;
    ASSERT_TRUE(e2e::CachedRecord(kNew, &cached));
    EXPECT_EQ(std::memcmp(cached.raw, rec.raw, kCalBytes), 0);
}

enum Region { kBoot, kRun, kCal };
struct FaultCase {
    int32_t fault;
    Region region;
    LxStatus status;
    bool damaged; // the region no longer holds a whole image or record
};

class FlashFaults : public Flash, public ::testing::WithParamInterface<FaultCase> {
protected:
    double progress_ = 0;
    LxStatus Clear(Region r) {
        return r == kBoot ? lxBootClearBootSector(0) : r == kRun ? lxBootClearRunSector(0) : lxBootClearCorrections(0, &progress_);
    }
    LxStatus Write(Region r, int32_t serial, const LX530CalData& rec) {
        return r == kBoot  ? lxBootWriteBootSector(0, bootPath_.c_str(), serial)
               : r == kRun ? lxBootWriteRunSector(0, runPath_.c_str(), serial)
                           : lxBootWriteCorrections(0, &rec, &progress_);
    }
    // What the region reads after a good write.
    bool Holds(Region r, int32_t serial, const LX530CalData& rec) {
        if (r == kCal) return Read(kCalPage, kCalBytes) == std::vector<uint8_t>(rec.raw, rec.raw + kCalBytes);
        if (r == kBoot) return Read(kBootPage, kSectorBytes) == Sector(testimage::Patched(boot_, serial), 3, 17);
        return Read(kRunPage, kSectorBytes) == Sector(testimage::Patched(run_, serial));
    }
};

TEST_P(FlashFaults, ReportedRecoverableAndNeverTakenAsValid) {
    const FaultCase c = GetParam();
    static int32_t next = 76000000;
    const int32_t serial = ++next;
    ASSERT_EQ(lxSimAttach(serial, nullptr), lxNoError);
    int32_t h = -1;
    ASSERT_EQ(lxBootOpenDeviceBySerial(&h, serial), lxNoError);
    const LX530CalData rec = NewRecord();

    ASSERT_EQ(lxSimInjectFault(serial, c.fault, 1), lxNoError);
    LxStatus st = Clear(c.region);
    if (st == lxNoError) st = Write(c.region, serial, rec);
    EXPECT_EQ(st, c.status);
    ASSERT_EQ(lxSimInjectFault(serial, lxSimFaultNone, 0), lxNoError);
    EXPECT_EQ(lxBootCloseDevice(0), lxNoError);
    ASSERT_EQ(lxSimAdvanceTimeMs(6000), lxNoError); // power comes back after a power loss

    // What an application meets now.
    if (c.region != kBoot) {
        const LxStatus open = lxOpenDeviceBySerial(&h, serial);
        if (c.region == kRun) {
            EXPECT_EQ(open, c.damaged ? lxBootErr : lxNoError); // a broken run image never starts
        } else {
            bool has = false;
            if (open >= 0) {
                EXPECT_EQ(lxAdminDeviceHasCorrections(h, &has), lxNoError);
            }
            EXPECT_EQ(c.damaged, open == lxInvalidCalData || (open == lxNoError && !has)) << open;
        }
        if (open >= 0) lxCloseDevice(h);
    }

    // It still reaches a boot loader: its own, or through the ROM loader (no
    // serial, not listed) when the boot image is broken.
    int32_t count = 8, serials[8];
    if (lxBootOpenDeviceBySerial(&h, serial) != lxNoError) {
        EXPECT_EQ(e2e::Get(lxSimGetPersonality, serial), 2);
        EXPECT_TRUE(c.damaged && c.region == kBoot);
        ASSERT_EQ(lxGetDeviceList(serials, &count), lxNoError);
        EXPECT_EQ(count, 0);
        EXPECT_EQ(lxBootStrap(&h, "/nonexistent/boot.img"), lxFileIOErr);
        ASSERT_EQ(lxBootStrap(&h, bootPath_.c_str()), lxNoError);
    } else {
        EXPECT_FALSE(c.damaged && c.region == kBoot);
    }
    // And the region can be written again.
    ASSERT_EQ(Clear(c.region), lxNoError);
    ASSERT_EQ(Write(c.region, serial, rec), lxNoError);
    EXPECT_TRUE(Holds(c.region, serial, rec));
    ASSERT_EQ(lxBootCloseDevice(0), lxNoError);
    ASSERT_EQ(lxOpenDeviceBySerial(&h, serial), lxNoError);
}

std::vector<FaultCase> AllFaults() {
    std::vector<FaultCase> v;
    for (Region r : {kBoot, kRun, kCal}) {
        const LxStatus write = r == kRun ? lxFlashTransferErr : lxFileIOErr;
        v.push_back({lxSimFaultFlashErase, r, lxFlashTransferErr, false});
        v.push_back({lxSimFaultOutStall, r, lxFlashTransferErr, false});
        v.push_back({lxSimFaultFlashProgram, r, write, true});
        v.push_back({lxSimFaultFlashBitFlip, r, write, true});
        v.push_back({lxSimFaultPowerLoss, r, write, true});
        // Link faults meet the read-back, the only IN transfers of a write:
        // the region is whole, but the call cannot know it.
        v.push_back({lxSimFaultShortTransfer, r, write, false});
        v.push_back({lxSimFaultStall, r, write, false});
    }
    return v;
}

std::string CaseName(const ::testing::TestParamInfo<FaultCase>& info) {
    const char* region[] = {"Boot", "Run", "Cal"};
    const char* fault[] = {"Program", "Erase", "OutStall", "BitFlip", "PowerLoss"};
    const int32_t f = info.param.fault;
    return std::string(region[info.param.region]) + (f == lxSimFaultShortTransfer ? "ShortRead"
                                                      : f == lxSimFaultStall       ? "StalledRead"
                                                                                   : fault[f - lxSimFaultFlashProgram]);
}

INSTANTIATE_TEST_SUITE_P(Matrix, FlashFaults, ::testing::ValuesIn(AllFaults()), CaseName);

} // namespace
