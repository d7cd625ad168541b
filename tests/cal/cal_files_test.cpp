// The calibration cache files: no failure ever leaves a torn file.
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "common/lx_assert.h"
#include "lx_lib/cal_files.h"

namespace {

namespace fs = std::filesystem;
constexpr size_t kSize = 2097152;
constexpr const char* kModule = "src/lx_lib";

// The folder made under XDG_CACHE_HOME and the files' names: tests/e2e, which
// reads the records the library cached there.
TEST(CacheFolder, XdgThenHome) {
    struct Case { const char* xdg; const char* home; const char* folder; };
    const Case cases[] = {
        {"/var/c", "/home/u", "/var/c/halvorn/cal_files/"},
        {"/var/c//", "/home/u", "/var/c/halvorn/cal_files/"},
        {"", "/home/u", "/home/u/.cache/halvorn/cal_files/"},
        {nullptr, "/home/u/", "/home/u/.cache/halvorn/cal_files/"},
        {"relative/c", "/home/u", "/home/u/.cache/halvorn/cal_files/"}, // not absolute: ignored
        {nullptr, "", ""},
        {nullptr, nullptr, ""},
    };
    for (const Case& c : cases)
        EXPECT_EQ(lx::CacheFolderFor(c.xdg, c.home), c.folder) << (c.xdg ? c.xdg : "null");
}

class CalFiles : public testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/lx_cal_files_XXXXXX";
        ASSERT_NE(::mkdtemp(tmpl), nullptr);
        root_ = tmpl;
        folder_ = root_ + "/cal_files/";
        a_.resize(kSize);
        b_.resize(kSize);
        for (size_t i = 0; i < kSize; ++i) {
            a_[i] = uint8_t(i * 31 + 7);
            b_[i] = uint8_t(i * 17 + 3);
        }
    }
    void TearDown() override { fs::remove_all(root_); }
    std::vector<std::string> FolderEntries() const {
        std::vector<std::string> names;
        for (const auto& e : fs::directory_iterator(folder_)) names.push_back(e.path().filename().string());
        return names;
    }
    void WriteRaw(const std::string& path, size_t bytes) {
        std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(a_.data()), long(bytes));
    }
    std::string root_, folder_;
    std::vector<uint8_t> a_, b_;
};

TEST_F(CalFiles, MissingShortOrDirectoryIsNoCache) {
    fs::create_directories(folder_);
    WriteRaw(folder_ + "lx00000001.bin", kSize - 1);
    fs::create_directory(folder_ + "lx00000003.bin");
    struct Case { int32_t serial; bool exists; bool asserts; };
    for (const Case& c : {Case{1, true, true}, Case{3, false, false}, Case{4, false, false}}) {
        lx::AssertionCapture cap;
        std::vector<uint8_t> got(kSize, 0xEE);
        EXPECT_EQ(lx::CalFileExistsIn(folder_, c.serial), c.exists) << c.serial;
        EXPECT_FALSE(lx::LoadCalFileIn(folder_, c.serial, got.data())) << c.serial;
        EXPECT_EQ(cap.saw("read == calSizeBytes", kModule), c.asserts) << c.serial;
        EXPECT_EQ(got, std::vector<uint8_t>(kSize, 0xEE)) << "image touched, serial " << c.serial;
    }
}

TEST_F(CalFiles, UncreatableFolderIsSkippedSilently) {
    // A regular file where a folder should be: fails even with root's rights.
    WriteRaw(root_ + "/plainfile", 10);
    const std::string folder = root_ + "/plainfile/cal_files/";
    lx::AssertionCapture cap;
    lx::SaveCalFileIn(folder, 7, a_.data());
    EXPECT_EQ(cap.count(), 0u);
    EXPECT_FALSE(lx::CalFileExistsIn(folder, 7));
    std::vector<uint8_t> got(kSize);
    EXPECT_FALSE(lx::LoadCalFileIn(folder, 7, got.data()));
    lx::SaveCalFileIn("", 7, a_.data()); // no cache folder at all
}

TEST_F(CalFiles, WriteFailingPartWayLeavesThePreviousFile) {
    lx::SaveCalFileIn(folder_, 9, a_.data());
    // Let the next file stop growing at 1 MiB, as a full disk would stop it.
    struct rlimit old;
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
    auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
    struct rlimit lim = old;
    lim.rlim_cur = kSize / 2;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &lim), 0);
    {
        lx::AssertionCapture cap;
        lx::SaveCalFileIn(folder_, 9, b_.data());
        lx::SaveCalFileIn(folder_, 10, b_.data());
        EXPECT_TRUE(cap.saw("written == calSizeBytes", kModule));
    }
    ::setrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, oldHandler);

    std::vector<uint8_t> got(kSize);
    ASSERT_TRUE(lx::LoadCalFileIn(folder_, 9, got.data()));
    EXPECT_EQ(got, a_);
    EXPECT_FALSE(lx::CalFileExistsIn(folder_, 10));
    EXPECT_EQ(FolderEntries(), std::vector<std::string>{"lx00000009.bin"}); // no temporary left behind
}

TEST_F(CalFiles, ConcurrentSavesNeverTear) {
    lx::SaveCalFileIn(folder_, 5, a_.data());
    std::atomic<int> running{2};
    auto writer = [&](const std::vector<uint8_t>& image) {
        for (int i = 0; i < 4; ++i) lx::SaveCalFileIn(folder_, 5, image.data());
        --running;
    };
    std::thread wa(writer, std::cref(a_));
    std::thread wb(writer, std::cref(b_));
    std::vector<uint8_t> got(kSize);
    int torn = 0, loads = 0; // counted, not asserted: the writers must be joined first
    do {
        torn += !lx::LoadCalFileIn(folder_, 5, got.data()) || !(got == a_ || got == b_);
        ++loads;
    } while (running > 0);
    wa.join();
    wb.join();
    EXPECT_EQ(torn, 0) << "of " << loads << " loads";
    EXPECT_EQ(FolderEntries(), std::vector<std::string>{"lx00000005.bin"});
}

} // namespace
