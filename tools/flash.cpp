#include "flash.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "cli_support.h"
#include "lx_api.h"

namespace lx::cli {
namespace {

namespace fs = std::filesystem;

constexpr size_t kBlockBytes = 32768;
constexpr uint32_t kBlockPages = 32;

struct Region {
    const char* name;
    uint32_t firstPage;
    size_t bytes;
};
constexpr Region kRegions[] = {{"boot", 0, 0x40000}, {"fpga", 1024, 0x200000}, {"cal", 4096, 0x200000},
                               {"run", 49152, 0x40000}};

uint32_t Crc32(const std::vector<uint8_t>& data) {
    uint32_t crc = 0xFFFFFFFFu;
    for (uint8_t b : data) {
        crc ^= b;
        for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

uint32_t Le32(const uint8_t* p) { return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24; }

std::vector<uint8_t> ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw Failure(kExitUsage, "cannot read " + path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void WriteFile(const fs::path& path, const std::vector<uint8_t>& data) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
    if (!out.flush()) throw Failure(kExitFailure, "cannot write " + path.string());
}

// What a firmware image must be before anything is erased for it: the boot
// format with a checksum that holds, the serial placeholder, and for a boot
// image the version marker. Returns the reason it is refused, or "".
std::string ImageProblem(const std::vector<uint8_t>& img, bool bootImage) {
    if (img.size() > 0x40000) return "larger than the 256 KiB sector";
    if (img.size() < 4 || img[0] != 'C' || img[1] != 'Y') return "not a boot-format image (no \"CY\" header)";
    uint32_t sum = 0;
    size_t at = 4;
    for (;;) {
        if (img.size() - at < 8) return "its sections run past the end of the file";
        const uint32_t words = Le32(&img[at]);
        at += 8;
        if (words == 0) break;
        if (words > (img.size() - at) / 4) return "its sections run past the end of the file";
        for (uint32_t k = 0; k < words; ++k) sum += Le32(&img[at + 4 * k]);
        at += 4 * size_t{words};
    }
    if (img.size() - at < 4 || Le32(&img[at]) != sum) return "its checksum is wrong";
    bool placeholder = false;
    for (size_t i = 0; i + 15 <= img.size() && !placeholder; ++i) {
        placeholder = true;
        for (size_t c = 0; c < 8 && placeholder; ++c) placeholder = img[i + 2 * c] == '1';
    }
    if (!placeholder) return "it has no serial placeholder (\"11111111\" in 16-bit characters)";
    if (bootImage && std::search(img.begin(), img.end(), "FW Ver", "FW Ver" + 6) == img.end())
        return "it has no \"FW Ver\" version marker";
    return "";
}

// A calibration record passes when its magic is right and, for format 1, its
// checksum holds.
bool RecordValid(const LX530CalData& rec) {
    if (Le32(rec.raw) != 0xF0000000u) return false;
    if (Le32(rec.raw + 4) != 1) return Le32(rec.raw + 28) == 0;
    uint32_t sum = 0;
    for (size_t at = 672; at < sizeof rec.raw; at += 4) sum += Le32(rec.raw + at);
    return sum == Le32(rec.raw + 28);
}

std::string CacheFile(int32_t serial) {
    const char* xdg = std::getenv("XDG_CACHE_HOME");
    const char* home = std::getenv("HOME");
    const std::string base = xdg && *xdg ? xdg : std::string(home ? home : "") + "/.cache";
    char name[32];
    std::snprintf(name, sizeof name, "lx%08d.bin", serial);
    return base + "/halvorn/cal_files/" + name;
}

// The analyzer in the boot slot for the life of this object; leaving sends it
// back through a restart.
class BootSession {
public:
    explicit BootSession(const std::optional<int32_t>& serial) {
        const LxStatus s = serial ? lxBootOpenDeviceBySerial(&handle_, *serial) : lxBootOpenDevice(&handle_);
        Check(s, serial ? "taking analyzer " + std::to_string(*serial) + " into its boot loader"
                        : std::string("taking the first analyzer into its boot loader"));
        Check(lxBootGetSerial(handle_, &serial_), "reading the serial");
    }
    explicit BootSession(const std::string& strapImage) {
        Check(lxBootStrap(&handle_, strapImage.c_str()), "starting " + strapImage + " in the ROM loader");
        Check(lxBootGetSerial(handle_, &serial_), "reading the serial");
    }
    ~BootSession() { (void)lxBootCloseDevice(handle_); }
    BootSession(const BootSession&) = delete;
    BootSession& operator=(const BootSession&) = delete;
    int32_t Handle() const { return handle_; }
    int32_t Serial() const { return serial_; }

private:
    int32_t handle_ = -1;
    int32_t serial_ = -1;
};

// Runs a call while a bar on a terminal follows its progress (stderr only).
LxStatus WithProgress(const std::string& label, const std::function<LxStatus(double*)>& call) {
    double progress = 0;
    std::atomic<bool> done{false};
    std::thread bar;
    if (isatty(STDERR_FILENO)) {
        bar = std::thread([&] {
            while (!done.load()) {
                const double p = std::atomic_ref<double>(progress).load(std::memory_order_relaxed);
                const int filled = static_cast<int>(p * 30);
                std::fprintf(stderr, "\r%-18s [%s%s] %3d%%", label.c_str(), std::string(filled, '#').c_str(),
                             std::string(30 - filled, '.').c_str(), static_cast<int>(p * 100));
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            }
            std::fprintf(stderr, "\r%-18s done%40s\n", label.c_str(), "");
        });
    }
    const LxStatus s = call(&progress);
    done = true;
    if (bar.joinable()) bar.join();
    return s;
}

std::vector<uint8_t> ReadRegion(int32_t handle, const Region& r) {
    std::vector<uint8_t> out(r.bytes);
    WithProgress(std::string("reading ") + r.name, [&](double* progress) {
        for (size_t off = 0; off < r.bytes; off += kBlockBytes) {
            const auto page = r.firstPage + static_cast<uint32_t>(off / kBlockBytes) * kBlockPages;
            Check(lxBootReadFlashPage(handle, page, out.data() + off), std::string("reading the ") + r.name + " region");
            std::atomic_ref<double>(*progress).store(static_cast<double>(off + kBlockBytes) / r.bytes);
        }
        return lxNoError;
    });
    return out;
}

// A failed write leaves the region half written: say so and how to go on.
void CheckWrite(LxStatus s, const std::string& what, const std::string& again) {
    if (s >= 0) return;
    throw Failure(kExitFailure, what + " failed: " + lxGetErrorString(s) + " (" + std::to_string(s) + ")",
                  "the region may be half written. Write it again: " + again + " (see docs/flash.md)");
}

int Backup(const FlashOptions& o, bool json) {
    std::error_code ec;
    fs::create_directories(o.path, ec);
    if (ec) throw Failure(kExitUsage, "cannot create " + o.path + ": " + ec.message());
    BootSession session(o.serial);
    nlohmann::json manifest{{"serial", session.Serial()}, {"regions", nlohmann::json::array()}};
    for (const Region& r : kRegions) {
        const auto data = ReadRegion(session.Handle(), r);
        const std::string file = std::string(r.name) + ".bin";
        WriteFile(fs::path(o.path) / file, data);
        manifest["regions"].push_back(
            {{"name", r.name}, {"file", file}, {"first_page", r.firstPage}, {"bytes", r.bytes}, {"crc32", Crc32(data)}});
    }
    std::ofstream(fs::path(o.path) / "manifest.json") << manifest.dump(2) << "\n";
    if (json) {
        std::printf("%s\n", manifest.dump(2).c_str());
    } else {
        std::printf("Backed up analyzer %08d into %s:\n", session.Serial(), o.path.c_str());
        for (const auto& r : manifest["regions"])
            std::printf("  %-4s  page %5u  %7zu bytes  crc32 %08x\n", r["name"].get<std::string>().c_str(),
                        r["first_page"].get<uint32_t>(), r["bytes"].get<size_t>(), r["crc32"].get<uint32_t>());
    }
    return kExitOk;
}

int Verify(const FlashOptions& o, bool json) {
    nlohmann::json manifest;
    try {
        std::ifstream in(fs::path(o.path) / "manifest.json");
        manifest = nlohmann::json::parse(in);
    } catch (const std::exception&) {
        throw Failure(kExitUsage, "no readable manifest.json in " + o.path, "make one with 'lx530 flash backup DIR'");
    }
    BootSession session(o.serial);
    const int32_t backupSerial = manifest.value("serial", -1);
    if (backupSerial != session.Serial())
        std::fprintf(stderr, "lx530: warning: the backup is of analyzer %08d, this is %08d\n", backupSerial,
                     session.Serial());
    nlohmann::json report = nlohmann::json::array();
    bool allMatch = true;
    for (const Region& r : kRegions) {
        std::string verdict = "missing from the backup";
        for (const auto& m : manifest.value("regions", nlohmann::json::array())) {
            if (m.value("name", "") != r.name) continue;
            std::vector<uint8_t> file;
            try {
                file = ReadFile((fs::path(o.path) / m.value("file", "")).string());
            } catch (const Failure&) {
            }
            if (file.size() != r.bytes || Crc32(file) != m.value("crc32", 0u)) {
                verdict = "backup file damaged (size or crc32 differs from the manifest)";
            } else {
                const auto flash = ReadRegion(session.Handle(), r);
                size_t diff = 0;
                while (diff < flash.size() && flash[diff] == file[diff]) ++diff;
                verdict = diff == flash.size() ? "matches"
                                               : "differs from byte " + std::to_string(diff) + " (page " +
                                                     std::to_string(r.firstPage + diff / 1024) + ")";
            }
        }
        allMatch = allMatch && verdict == "matches";
        report.push_back({{"name", r.name}, {"verdict", verdict}});
    }
    if (json) {
        std::printf("%s\n", nlohmann::json{{"serial", session.Serial()}, {"match", allMatch}, {"regions", report}}
                                .dump(2)
                                .c_str());
    } else {
        std::printf("Analyzer %08d against %s:\n", session.Serial(), o.path.c_str());
        for (const auto& r : report)
            std::printf("  %-4s  %s\n", r["name"].get<std::string>().c_str(), r["verdict"].get<std::string>().c_str());
    }
    if (!allMatch) throw Failure(kExitFailure, "the flash and the backup do not match (see the verdicts above)");
    return kExitOk;
}

void CheckImage(const std::string& path, bool bootImage, const std::vector<uint8_t>& img) {
    const std::string problem = ImageProblem(img, bootImage);
    if (!problem.empty())
        throw Failure(kExitUsage, "refusing " + path + ": " + problem + "; nothing was erased");
}

void WriteBoot(BootSession& session, const FlashOptions& o) {
    const int32_t serial = o.newSerial.value_or(session.Serial());
    Check(lxBootClearBootSector(session.Handle()), "erasing the boot sector");
    CheckWrite(WithProgress("writing boot", [&](double*) { return lxBootWriteBootSector(session.Handle(), o.path.c_str(), serial); }),
               "writing the boot image", "lx530 flash write-boot " + o.path + " --yes, or lx530 flash bootstrap " +
                                              o.path + " --yes once the analyzer is in its ROM loader");
}

int Write(const FlashOptions& o) {
    const std::string& a = o.action;
    if (a == "write-boot" || a == "write-run" || a == "bootstrap") {
        const auto img = ReadFile(o.path);
        CheckImage(o.path, a != "write-run", img);
        if (a != "write-run" && !o.yes)
            throw Failure(kExitUsage, "writing the boot image erases the boot sector; give --yes to go on",
                          "an analyzer whose boot image is lost starts in the chip's ROM loader (docs/flash.md)");
        if (a == "bootstrap") {
            BootSession session(o.path);
            WriteBoot(session, o);
            std::printf("Started %s in the ROM loader and wrote it to analyzer %08d\n", o.path.c_str(),
                        o.newSerial.value_or(session.Serial()));
            return kExitOk;
        }
        BootSession session(o.serial);
        if (a == "write-boot") {
            WriteBoot(session, o);
        } else {
            Check(lxBootClearRunSector(session.Handle()), "erasing the run image sector");
            CheckWrite(WithProgress("writing run", [&](double*) {
                           return lxBootWriteRunSector(session.Handle(), o.path.c_str(), o.newSerial.value_or(0));
                       }),
                       "writing the run image", "lx530 flash write-run " + o.path);
        }
        std::printf("Wrote and verified %s on analyzer %08d\n", o.path.c_str(), session.Serial());
        return kExitOk;
    }
    BootSession session(o.serial);
    if (a == "write-fpga") {
        if (ReadFile(o.path).size() > 0x200000) throw Failure(kExitUsage, "refusing " + o.path + ": larger than 2 MiB");
        Check(WithProgress("erasing fpga", [&](double* p) { return lxBootClearFPGAProgram(session.Handle(), p); }),
              "erasing the FPGA program");
        CheckWrite(WithProgress("writing fpga",
                                [&](double* p) { return lxBootWriteFPGAProgram(session.Handle(), o.path.c_str(), p); }),
                   "writing the FPGA program", "lx530 flash write-fpga " + o.path);
    } else { // write-cal
        auto rec = std::make_unique<LX530CalData>();
        const std::string file = o.fromCache ? CacheFile(session.Serial()) : o.path;
        if (!lxCalCorrectionLoadFromFile(file.c_str(), rec.get()))
            throw Failure(kExitUsage, "cannot read a 2 MiB calibration record from " + file);
        if (!RecordValid(*rec))
            throw Failure(kExitUsage, "refusing " + file + ": its magic or checksum is wrong; nothing was erased");
        Check(WithProgress("erasing cal", [&](double* p) { return lxBootClearCorrections(session.Handle(), p); }),
              "erasing the calibration record");
        CheckWrite(WithProgress("writing cal", [&](double* p) { return lxBootWriteCorrections(session.Handle(), rec.get(), p); }),
                   "writing the calibration record", "lx530 flash write-cal " + (o.fromCache ? std::string("--from-cache") : file));
    }
    std::printf("Wrote and verified the %s on analyzer %08d\n", a == "write-fpga" ? "FPGA program" : "calibration record",
                session.Serial());
    return kExitOk;
}

} // namespace

CLI::App* AddFlashCommand(CLI::App& app, FlashOptions& o) {
    auto* flash = app.add_subcommand("flash", "Back up, verify and rewrite an analyzer's flash (docs/flash.md)");
    flash->require_subcommand(1);
    flash->footer("The analyzer passes through its boot loader; it restarts when the command ends.");
    const auto action = [&](const char* name, const char* help) {
        auto* c = flash->add_subcommand(name, help);
        c->callback([&o, name] { o.action = name; });
        c->add_option("--serial", o.serial, "Analyzer to use (default: the first found)")->type_name("SERIAL");
        return c;
    };
    action("backup", "Read all four regions into DIR, with manifest.json (sizes, CRC-32)")
        ->add_option("DIR", o.path, "Folder for the backup")->required();
    action("verify", "Compare the flash with a backup made by 'flash backup'")
        ->add_option("DIR", o.path, "Folder of the backup")->required();
    for (const char* name : {"write-run", "write-boot", "bootstrap"}) {
        auto* c = action(name, std::strcmp(name, "write-run") == 0    ? "Erase and write the run image, then verify it"
                               : std::strcmp(name, "write-boot") == 0 ? "Erase and write the boot image (needs --yes)"
                                                                      : "Start a boot image in an analyzer's ROM loader "
                                                                        "and write it to its boot sector (needs --yes)");
        c->add_option("FILE", o.path, "Image in the boot format with the serial placeholder")->required();
        c->add_option("--new-serial", o.newSerial, "Serial to put into the image (default: the analyzer's)")
            ->type_name("SERIAL")
            ->check(CLI::Range(10000000, 99999999));
        if (std::strcmp(name, "write-run") != 0) c->add_flag("--yes", o.yes, "Agree to erasing the boot sector");
    }
    action("write-fpga", "Erase and write the FPGA program (at most 2 MiB), then verify it")
        ->add_option("FILE", o.path, "FPGA program file")->required();
    auto* cal = action("write-cal", "Erase and write the calibration record, then verify it");
    auto* file = cal->add_option("FILE", o.path, "A 2 MiB calibration record file");
    auto* cache = cal->add_flag("--from-cache", o.fromCache, "Take the record from this computer's calibration cache");
    file->excludes(cache);
    cal->require_option(1);
    return flash;
}

int RunFlash(const FlashOptions& o, bool json) {
    if (o.action == "backup") return Backup(o, json);
    if (o.action == "verify") return Verify(o, json);
    return Write(o);
}

} // namespace lx::cli
