// Opening with the calibration record: from cache or flash, and the settle waits.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include "cal/cal_record.h"
#include "lx_lib/cal_files.h"
#include "usb/usb_transport.h"
#include "usb_test_support.h"

namespace lx::usb {
namespace {

using testing::SimBus;

using Image = std::vector<uint8_t>;

// Bytes 8..15 of the record are reserved and outside the checksum: a mark
// there tells a cached image from the flash record without making it invalid.
constexpr size_t kMarkOffset = 8;
constexpr uint8_t kMark = 0x5A;

enum class Start { RunFirmware, BootLoader };
enum class Cache {
    None,          // no cache file
    AsNew,         // the flash record, marked
    Newer,         // marked, dated one second after the flash record
    Older,         // marked, dated before the flash record
    BadChecksum,   // marked, one checksummed byte changed
};
enum class Expect { Flash, Cache, Blank };

struct OpenCase {
    const char* name;
    int32_t serial;
    const char* scene;
    Start start;
    Cache cache;
    uint64_t flashReads;   // 32 KiB reads during the open
    int invalid;           // calibration-invalid flag afterwards
    Expect image;          // where the transport's image came from, and what the cache holds after (Blank: no file)
    uint64_t minVirtualMs; // settle waits the open must have gone through
};

// The whole record is 64 reads; opening through the boot loader reads the
// first block once more beforehand to look at the record's date.
constexpr uint64_t kWholeRecord = 64;
const char* kUnprogrammed = R"({"calibration": "unprogrammed"})";
const char* kCorrupt = R"({"calibration": "corrupt"})";

const OpenCase kOpenCases[] = {
    // reboot to the loader (3000 ms) + start of the run image (3000 ms)
    {"FirstOpen", 10000101, nullptr, Start::RunFirmware, Cache::None, 1 + kWholeRecord, 0, Expect::Flash, 6000},
    {"CachedRunFirmware", 10000102, nullptr, Start::RunFirmware, Cache::AsNew, 0, 0, Expect::Cache, 0},
    {"CachedBadChecksum", 10000104, nullptr, Start::RunFirmware, Cache::BadChecksum, 0, 1, Expect::Cache, 0},
    {"LoaderCacheAsNew", 10000105, nullptr, Start::BootLoader, Cache::AsNew, 1, 0, Expect::Cache, 3000},
    {"LoaderCacheNewer", 10000106, nullptr, Start::BootLoader, Cache::Newer, 1, 0, Expect::Cache, 3000},
    {"LoaderCacheOlder", 10000107, nullptr, Start::BootLoader, Cache::Older, 1 + kWholeRecord, 0, Expect::Flash, 3000},
    {"LoaderNoCache", 10000108, nullptr, Start::BootLoader, Cache::None, 1 + kWholeRecord, 0, Expect::Flash, 3000},
    {"Unprogrammed", 10000109, kUnprogrammed, Start::RunFirmware, Cache::None, 1, 0, Expect::Blank, 6000},
    {"Corrupt", 10000110, kCorrupt, Start::RunFirmware, Cache::None, 1 + kWholeRecord, 1, Expect::Flash, 6000},
};

class OpenWithCalibration : public SimBus, public ::testing::WithParamInterface<OpenCase> {};

void SetNewestDate(uint8_t* img, uint64_t date) {
    SetCalDate(img, date);
    SetCalTuneValue(img, 0, kCalTuneListEnd); // no tune times: the date alone counts
}

TEST_P(OpenWithCalibration, TakesTheRecordFromWhereItIsNewest) {
    const OpenCase& c = GetParam();
    const int32_t serial = c.serial;
    Attach(serial, c.scene);

    // The flash record as the device delivers it, taken by an open without a
    // cache: the truth the other cases are compared with.
    Image flash;
    if (c.cache != Cache::None || c.start == Start::BootLoader) {
        UsbTransport first;
        ASSERT_EQ(first.OpenWithCalibration(serial), lxNoError);
        flash.assign(first.CalImage(), first.CalImage() + calSizeBytes);
        if (c.start == Start::BootLoader) first.RebootToLoader();
        first.Close();
        if (c.cache == Cache::None) std::remove(CalFilePath(serial).c_str());
    }
    ASSERT_EQ(Get(lxSimGetPersonality, serial), c.start == Start::RunFirmware ? 1 : 0);

    Image cached;
    if (c.cache != Cache::None) {
        cached = flash;
        cached[kMarkOffset] = kMark;
        const uint64_t flashDate = CalNewestDate(flash.data());
        if (c.cache == Cache::Newer) SetNewestDate(cached.data(), flashDate + 1);
        if (c.cache == Cache::Older) SetNewestDate(cached.data(), flashDate - 86400);
        if (c.cache == Cache::BadChecksum) cached[kCalAmplitudeOffset + 40] ^= 0x01;
        SaveCalFile(serial, cached.data());
    }

    ASSERT_EQ(lxSimResetCounters(serial), lxNoError);
    const uint64_t virtualBefore = VirtualMs();
    const auto wallBefore = std::chrono::steady_clock::now();
    UsbTransport t;
    ASSERT_EQ(t.OpenWithCalibration(serial), lxNoError);
    const uint64_t elapsed = VirtualMs() - virtualBefore;
    const auto wallMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                            std::chrono::steady_clock::now() - wallBefore).count();

    EXPECT_EQ(Get(lxSimGetPersonality, serial), 1) << "the device must be left in its run firmware";
    EXPECT_EQ(Get(lxSimGetCounters, serial).flashReads, c.flashReads);
    EXPECT_EQ(t.CalInvalid(), c.invalid);
    EXPECT_GE(elapsed, c.minVirtualMs);
    // The settle waits are the simulator's virtual time: one real 3000 ms
    // re-enumeration wait alone would exceed this.
    EXPECT_LT(wallMs, 3000);

    const Image image(t.CalImage(), t.CalImage() + calSizeBytes);
    Image onDisk(calSizeBytes);
    if (!LoadCalFile(serial, onDisk.data())) onDisk.clear(); // no cache file
    switch (c.image) {
    case Expect::Flash:
        // A factory record is self-consistent; the corrupt one is the flash's
        // own (damaged) bytes, compared with the cache written from it.
        EXPECT_TRUE(CalIsProgrammed(image.data()));
        if (!flash.empty()) {
            EXPECT_TRUE(image == flash);
        }
        EXPECT_TRUE(onDisk == image) << "the cache must hold the record read from flash";
        break;
    case Expect::Cache:
        EXPECT_TRUE(image == cached);
        EXPECT_TRUE(onDisk == cached) << "a cache at least as new as the flash is left alone";
        break;
    case Expect::Blank:
        EXPECT_TRUE(std::all_of(image.begin(), image.end(), [](uint8_t b) { return b == 0xFF; }));
        EXPECT_TRUE(onDisk.empty()) << "an unprogrammed record is never cached";
        break;
    }
}

INSTANTIATE_TEST_SUITE_P(Cases, OpenWithCalibration, ::testing::ValuesIn(kOpenCases),
                         [](const auto& info) { return std::string(info.param.name); });

class OpenFailures : public SimBus {};

TEST_F(OpenFailures, HandshakeWithoutAnswerSendsTheDeviceBackToItsLoader) {
    const int32_t serial = 10000202;
    Attach(serial);
    ASSERT_EQ(lxSimInjectFault(serial, lxSimFaultNoAnswer, -1), lxNoError);
    UsbTransport t;
    EXPECT_EQ(t.OpenWithCalibration(serial), lxConnectionLostErr);
    EXPECT_FALSE(t.IsOpen());
    EXPECT_FALSE(t.IsBound());
    EXPECT_EQ(Get(lxSimGetPersonality, serial), 0);
    // The failed open leaves nothing bound: the device is offered again.
    EXPECT_EQ(std::ranges::count(ListSerials({kProductId}), serial), 1);
}

TEST_F(OpenFailures, StatusesForDevicesThatCannotBeOpened) {
    const int32_t wrongProduct = 10000203;
    int32_t id = 0;
    ASSERT_EQ(lxSimAttachRaw("LX530X", "10000203", nullptr, &id), lxNoError);
    const int32_t staysBusy = 10000204;
    Attach(staysBusy);
    ASSERT_EQ(lxSimInjectFault(staysBusy, lxSimFaultStayBusy, -1), lxNoError);

    struct { int32_t serial; LxStatus expected; } cases[] = {
        {10000299, lxDeviceNotFoundErr}, // nothing with that serial
        {wrongProduct, lxBootErr},
        {staysBusy, lxBootErr}, // its loader never reports ready
    };
    for (const auto& c : cases) {
        UsbTransport t;
        EXPECT_EQ(t.OpenWithCalibration(c.serial), c.expected) << c.serial;
        EXPECT_FALSE(t.IsBound()) << c.serial;
    }
}

} // namespace
} // namespace lx::usb
