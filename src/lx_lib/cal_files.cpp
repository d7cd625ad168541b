#include "lx_lib/cal_files.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <system_error>

#include "cal/cal_record.h"
#include "common/lx_assert.h"

namespace lx {

namespace {

constexpr const char* kModule = "src/lx_lib";

std::string WithoutTrailingSlashes(std::string s) {
    while (s.size() > 1 && s.back() == '/') s.pop_back();
    return s;
}

std::string HomeFolder() {
    if (const char* home = std::getenv("HOME"); home && *home) return home;
    // No HOME (daemons, some service managers): ask the password database.
    long bufSize = sysconf(_SC_GETPW_R_SIZE_MAX);
    if (bufSize <= 0) bufSize = 16384;
    auto buf = std::make_unique<char[]>(static_cast<size_t>(bufSize));
    struct passwd pw;
    struct passwd* result = nullptr;
    if (getpwuid_r(getuid(), &pw, buf.get(), static_cast<size_t>(bufSize), &result) == 0 && result &&
        result->pw_dir && *result->pw_dir)
        return result->pw_dir;
    return {};
}

void MakeFolder(const std::string& folder) {
    std::error_code ec;
    std::filesystem::create_directories(folder, ec); // failure shows up as a failed open later
}

} // namespace

std::string CacheFolderFor(const char* xdgCacheHome, const char* home) {
    // A relative XDG_CACHE_HOME is invalid and ignored, as the XDG rules say.
    if (xdgCacheHome && xdgCacheHome[0] == '/')
        return WithoutTrailingSlashes(xdgCacheHome) + "/halvorn/cal_files/";
    if (home && home[0] != '\0') return WithoutTrailingSlashes(home) + "/.cache/halvorn/cal_files/";
    return {};
}

std::string CacheFolder() {
    static const std::string folder = [] {
        const std::string home = HomeFolder();
        std::string f = CacheFolderFor(std::getenv("XDG_CACHE_HOME"), home.c_str());
        if (!f.empty()) MakeFolder(f);
        return f;
    }();
    return folder;
}

std::string CalFilePathIn(const std::string& folder, int32_t serial) {
    char name[32];
    std::snprintf(name, sizeof name, "lx%08d.bin", static_cast<int>(serial));
    return folder + name;
}

bool CalFileExistsIn(const std::string& folder, int32_t serial) {
    if (folder.empty()) return false;
    struct stat st;
    return ::stat(CalFilePathIn(folder, serial).c_str(), &st) == 0 && !S_ISDIR(st.st_mode);
}

bool LoadCalFileIn(const std::string& folder, int32_t serial, uint8_t* image) {
    if (folder.empty()) return false;
    std::FILE* f = std::fopen(CalFilePathIn(folder, serial).c_str(), "rbe");
    if (!f) return false;
    struct stat st;
    if (::fstat(fileno(f), &st) != 0 || S_ISDIR(st.st_mode)) {
        std::fclose(f);
        return false;
    }
    // Read aside: a short file must not leave a half-overwritten image behind.
    // One already short by its size is not read at all.
    std::unique_ptr<uint8_t[]> staging;
    size_t read = 0;
    if (static_cast<uint64_t>(st.st_size) >= calSizeBytes) {
        staging = std::make_unique_for_overwrite<uint8_t[]>(calSizeBytes);
        read = std::fread(staging.get(), 1, calSizeBytes, f);
    }
    std::fclose(f);
    LX_ASSERT(read == calSizeBytes, kModule);
    if (read != calSizeBytes) return false;
    std::memcpy(image, staging.get(), calSizeBytes);
    return true;
}

void SaveCalFileIn(const std::string& folder, int32_t serial, const uint8_t* image) {
    if (folder.empty()) return;
    MakeFolder(folder); // it may have been removed since the process worked it out
    const std::string path = CalFilePathIn(folder, serial);
    // Each save writes its own temporary file and renames it over the cache
    // file only once complete and on disk: a crash, a full disk or a second
    // writer never leaves a torn record under the name the next open reads.
    std::string tmp = path + ".XXXXXX";
    const int fd = ::mkostemp(tmp.data(), O_CLOEXEC);
    if (fd < 0) return;
    ::fchmod(fd, 0644);

    size_t written = 0;
    while (written < calSizeBytes) {
        const ssize_t n = ::write(fd, image + written, calSizeBytes - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        written += static_cast<size_t>(n);
    }
    LX_ASSERT(written == calSizeBytes, kModule);
    bool ok = written == calSizeBytes && ::fsync(fd) == 0;
    ok = (::close(fd) == 0) && ok;
    if (!ok || std::rename(tmp.c_str(), path.c_str()) != 0) ::unlink(tmp.c_str());
}

std::string CalFilePath(int32_t serial) { return CalFilePathIn(CacheFolder(), serial); }
bool CalFileExists(int32_t serial) { return CalFileExistsIn(CacheFolder(), serial); }
bool LoadCalFile(int32_t serial, uint8_t* image) { return LoadCalFileIn(CacheFolder(), serial, image); }
void SaveCalFile(int32_t serial, const uint8_t* image) { SaveCalFileIn(CacheFolder(), serial, image); }

} // namespace lx
