// The calibration record as flash or the cache folder hands it over: a factory
// record with patches from the input (offset, bytes), then everything a
// configure derives from it: the temperature bracket, amplitude offsets, the
// equaliser design and the step gains at fuzzed rows, cells and attenuations.
// The same input is also written as a cache file and read back (short, long,
// empty files). The patches are undone after each run: copying and summing
// two megabytes per run would leave the fuzzer a few runs a second.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "cal/cal_record.h"
#include "cal/correction.h"
#include "lx_command/little_endian.h"
#include "lx_lib/cal_files.h"
#include "sim/factory_image.h"

namespace {

const std::vector<uint8_t>& Factory() {
    static const std::vector<uint8_t> record = lx::sim::BuildFactoryCalRecord();
    return record;
}

const std::string& Folder() {
    static const std::string folder = [] {
        std::string f = (std::filesystem::temp_directory_path() / ("lx_fuzz_cal_" + std::to_string(::getpid()))).string() + "/";
        std::filesystem::create_directories(f);
        return f;
    }();
    return folder;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace lx;
    if (size < 1) return 0;
    static std::vector<uint8_t> cal = Factory();
    static std::vector<uint8_t> image(calSizeBytes);
    struct Undo {
        size_t offset;
        std::vector<uint8_t> bytes;
    };
    std::vector<Undo> undo;
    const uint8_t flags = data[0];
    size_t i = 1;
    // Patches: u32 offset (taken modulo the record), u8 length, bytes.
    while (i + 5 <= size) {
        const size_t offset = LoadLE<uint32_t>(data + i) % calSizeBytes;
        size_t len = data[i + 4];
        i += 5;
        len = std::min(std::min(len, size - i), calSizeBytes - offset);
        if (len == 0) continue;
        undo.push_back({offset, std::vector<uint8_t>(cal.begin() + offset, cal.begin() + offset + len)});
        std::memcpy(cal.data() + offset, data + i, len);
        i += len;
    }
    (void)CalNewestDate(cal.data());
    (void)CalIsProgrammed(cal.data());

    const float temperature = static_cast<float>(static_cast<int8_t>(flags)) * 0.75f;
    const TemperatureBracketResult b = TemperatureBracket(cal.data(), temperature);
    if (b.slot < 0 || b.slot > 5 || !(b.fraction >= 0.0 && b.fraction <= 1.0)) std::abort();
    const CalBracket bracket{b.slot, static_cast<float>(b.fraction)};
    const int row = 1 + (flags * 7) % 490;
    const double centre = 9e3 + (flags * 58.6e6);
    for (int atten : {0, 3, 6}) (void)CalAmplitudeOffset(cal.data(), bracket.slot, bracket.fraction, atten, row);
    (void)StepGainDb(cal.data(), bracket, flags % 7, row, FineCell(centre));
    (void)BuildCaptureCorrection(cal.data(), bracket, row, centre);
    (void)FineMagnitudeAt(cal.data(), bracket, centre);
    for (auto u = undo.rbegin(); u != undo.rend(); ++u)
        if (!u->bytes.empty()) std::memcpy(cal.data() + u->offset, u->bytes.data(), u->bytes.size());

    // The cache file: the input itself, of whatever length.
    if ((flags & 0x0F) == 0x0F) { // one run in sixteen: file I/O costs more than the rest
        std::ofstream(CalFilePathIn(Folder(), 12345678), std::ios::binary | std::ios::trunc)
            .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
        if (LoadCalFileIn(Folder(), 12345678, image.data()) && size != calSizeBytes) std::abort();
        (void)ValidateCalImage(image.data());
    }
    return 0;
}
