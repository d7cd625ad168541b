#include "sim/factory_image.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "cal/cal_record.h"
#include "lx_command/little_endian.h"
#include "sim/front_end.h"

namespace lx::sim {

namespace {

constexpr int kSlots = 7;
constexpr int kSteps = 7;
constexpr int kFreqs = 490;

void Put32(std::vector<uint8_t>& v, size_t at, uint32_t x) { StoreLE<uint32_t>(v.data() + at, x); }

double SlotTemperature(int slot) { return -30.0 + 15.0 * slot; }

} // namespace

std::vector<uint8_t> BuildFactoryCalRecord() {
    std::vector<uint8_t> r(kCalRecordBytes, 0xFF);

    Put32(r, kCalMagicOffset, 0xF0000000);
    Put32(r, kCalFormatOffset, 1);
    std::memset(r.data() + kCalReserved8Offset, 0, 8);
    StoreLE<uint64_t>(r.data() + kCalDateOffset, kFactoryCalDate);
    Put32(r, kCalTempRangeOffset, kFactoryTempRangeCode);

    // Tune history: the crystal was trimmed three times; the last entry is
    // the word that puts it on frequency at 25 degrees.
    const uint16_t tunes[] = {fe::kFactoryTuneWord - 3, fe::kFactoryTuneWord + 1, fe::kFactoryTuneWord};
    const uint64_t times[] = {kFactoryCalDate - 300 * 86400, kFactoryCalDate - 120 * 86400, kFactoryCalDate - 3600};
    for (int i = 0; i < 3; ++i) {
        StoreLE<uint16_t>(r.data() + kCalTuneValuesOffset + 2 * i, tunes[i]);
        StoreLE<uint64_t>(r.data() + kCalTuneTimesOffset + 8 * i, times[i]);
    }

    for (int s = 0; s < kSlots; ++s) {
        const double t = SlotTemperature(s);
        StoreLE<int16_t>(r.data() + kCalTuneOffsetsOffset + 2 * s,
                         static_cast<int16_t>(std::lround(fe::TuneDriftCounts(t))));
        StoreLE<float>(r.data() + kCalTempPointsOffset + 4 * s, static_cast<float>(t));
    }

    // Frequency index i is calibrated at the centre of grid row i + 1, through
    // the path that centre selects.
    for (int i = 0; i < kFreqs; ++i) {
        const double centre = fe::GridRowCentreHz(i + 1);
        const int band = fe::BandForFrequency(centre);
        const int ifLevel = fe::FactoryIfLevel(band);
        r[kCalIfLevelsOffset + i] = static_cast<uint8_t>(ifLevel);
        for (int s = 0; s < kSlots; ++s) {
            for (int a = 0; a < kSteps; ++a) {
                const double g = fe::GainDb(band, centre, 5.0 * a, SlotTemperature(s), ifLevel);
                const size_t at = kCalAmplitudeOffset + 4 * ((size_t(s) * kSteps + a) * kFreqs + i);
                StoreLE<float>(r.data() + at, static_cast<float>(-g));
            }
        }
    }

    // Response tables, as the factory measures them around each calibration
    // point: A and B the IF ripple's magnitude and phase at the 13 baseband
    // offsets (the taper left out), C the RF flatness at the RF frequency
    // each offset sees relative to the point itself (band 0's rise left out:
    // the host's roll-off curve owns it).
    for (int i = 0; i < kFreqs; ++i) {
        const double centre = fe::GridRowCentreHz(i + 1);
        const int band = fe::BandForFrequency(centre);
        for (int s = 0; s < kSlots; ++s) {
            const double t = SlotTemperature(s);
            const double flatCentre = fe::RfFlatnessDb(centre, t);
            for (int k = 0; k < kCalResponsePoints; ++k) {
                const double offset = fe::ResponsePointOffsetHz(k);
                const double rf = fe::BandMirrored(band) ? centre - offset : centre + offset;
                const size_t at = 4 * ResponseIndex(s, i, k);
                StoreLE<float>(r.data() + kCalResponseAOffset + at,
                               static_cast<float>(std::pow(10.0, fe::IfRippleDb(band, offset, t) / 20.0)));
                StoreLE<float>(r.data() + kCalResponseBOffset + at, static_cast<float>(fe::IfRipplePhase(offset, t)));
                StoreLE<float>(r.data() + kCalResponseCOffset + at,
                               static_cast<float>(fe::RfFlatnessDb(std::max(rf, 0.0), t) - flatCentre));
            }
        }
    }
    // D: the RF flatness at the middle of each 3.75 MHz cell relative to the
    // calibration point of the grid row holding it; E: no service trim.
    for (int s = 0; s < kSlots; ++s) {
        const double t = SlotTemperature(s);
        for (int j = 0; j < fe::kFineCells; ++j) {
            const double f = (j + 0.5) * fe::kFineCellHz;
            const double point = fe::GridRowCentreHz(fe::GridRowForFrequency(f));
            const double db = fe::RfFlatnessDb(f, t) - fe::RfFlatnessDb(point, t);
            StoreLE<float>(r.data() + kCalResponseDOffset + 4 * ResponseDEIndex(s, j),
                           static_cast<float>(std::pow(10.0, db / 20.0)));
            StoreLE<float>(r.data() + kCalResponseEOffset + 4 * ResponseDEIndex(s, j), 0.0f);
        }
    }

    uint32_t sum = 0;
    for (size_t at = 672; at < r.size(); at += 4) sum += LoadLE<uint32_t>(r.data() + at);
    Put32(r, kCalChecksumOffset, sum);
    return r;
}

std::vector<uint8_t> BuildFirmwareImage(bool bootImage, const std::string& serial) {
    // Section data: the product and serial string descriptors (UTF-16LE),
    // then, in the boot image, the version marker.
    std::vector<uint8_t> data;
    auto descriptor = [&data](const std::string& s) {
        data.push_back(static_cast<uint8_t>(2 + 2 * s.size()));
        data.push_back(3);
        for (char c : s) {
            data.push_back(static_cast<uint8_t>(c));
            data.push_back(0);
        }
    };
    descriptor(bootImage ? "LX530 Boot" : "LX530");
    descriptor(serial);
    if (bootImage) {
        for (char c : std::string("FW Ver")) data.push_back(static_cast<uint8_t>(c));
        data.push_back(0x01);
        data.push_back(0x07);
    }
    while (data.size() % 4) data.push_back(0);

    std::vector<uint8_t> img{'C', 'Y', 0x1C, 0xB0};
    auto word = [&img](uint32_t w) {
        const size_t at = img.size();
        img.resize(at + 4);
        StoreLE<uint32_t>(img.data() + at, w);
    };
    uint32_t checksum = 0;
    word(static_cast<uint32_t>(data.size() / 4));
    word(0x40030000);
    for (size_t i = 0; i < data.size(); i += 4) {
        const uint32_t w = LoadLE<uint32_t>(data.data() + i);
        checksum += w;
        word(w);
    }
    word(0);
    word(0x40030100);
    word(checksum);
    return img;
}

void ProgramCalibration(NorFlash& flash, CalibrationContent cal) {
    for (uint32_t s = 0; s < kCalRecordBytes / NorFlash::kPageBytes; s += NorFlash::kSectorPages)
        flash.EraseSector(kCalFirstPage + s);
    if (cal == CalibrationContent::Unprogrammed) return;
    std::vector<uint8_t> rec = BuildFactoryCalRecord();
    if (cal == CalibrationContent::Corrupt) {
        // One amplitude value damaged after the checksum was taken.
        rec[kCalAmplitudeOffset + 4 * 1000] ^= 0x10;
    }
    for (uint32_t p = 0; p < kCalRecordBytes / NorFlash::kPageBytes; ++p) {
        const uint8_t* page = rec.data() + size_t{p} * NorFlash::kPageBytes;
        bool blank = true;
        for (uint32_t i = 0; i < NorFlash::kPageBytes && blank; ++i) blank = page[i] == 0xFF;
        if (!blank) flash.Program(kCalFirstPage + p, {page, NorFlash::kPageBytes});
    }
}

void ProgramFactoryFlash(NorFlash& flash, const std::string& serial, CalibrationContent cal) {
    flash.Clear();
    const auto program = [&flash](uint32_t page, const std::vector<uint8_t>& bytes) {
        for (size_t off = 0; off < bytes.size(); off += NorFlash::kPageBytes) {
            const size_t n = std::min<size_t>(NorFlash::kPageBytes, bytes.size() - off);
            flash.Program(page + static_cast<uint32_t>(off / NorFlash::kPageBytes), {bytes.data() + off, n});
        }
    };
    program(kBootImagePage, BuildFirmwareImage(true, serial));
    // An FPGA bitstream starts with its sync word; the rest of the program is
    // of no interest to the host.
    std::vector<uint8_t> fpga(4096, 0);
    const uint8_t sync[] = {0xFF, 0xFF, 0xFF, 0xFF, 0xAA, 0x99, 0x55, 0x66};
    std::memcpy(fpga.data(), sync, sizeof sync);
    program(kFpgaProgramPage, fpga);
    ProgramCalibration(flash, cal);
    program(kRunImagePage, BuildFirmwareImage(false, serial));
}

std::string FirmwareSerial(std::span<const uint8_t> data, const std::string& product) {
    std::vector<uint8_t> want{static_cast<uint8_t>(2 + 2 * product.size()), 3};
    for (char c : product) {
        want.push_back(static_cast<uint8_t>(c));
        want.push_back(0);
    }
    const auto it = std::search(data.begin(), data.end(), want.begin(), want.end());
    if (it == data.end()) return {};
    const size_t d = static_cast<size_t>(it - data.begin()) + want.size();
    if (d + 2 > data.size() || data[d + 1] != 3 || data[d] < 2 || d + data[d] > data.size()) return {};
    std::string serial;
    for (size_t k = d + 2; k + 1 < d + data[d]; k += 2) serial.push_back(static_cast<char>(data[k]));
    return serial;
}

FirmwareInfo InspectFirmware(std::span<const uint8_t> image, const std::string& product) {
    FirmwareInfo info;
    if (image.size() < 4 || image[0] != 'C' || image[1] != 'Y') return info;
    // Sections of [length in words, load address, data]; length 0 ends them.
    std::vector<uint8_t> data;
    uint32_t sum = 0;
    size_t at = 4;
    for (;;) {
        if (at + 8 > image.size()) return info;
        const uint32_t words = LoadLE<uint32_t>(image.data() + at);
        at += 8;
        if (words == 0) break;
        if (words > (image.size() - at) / 4) return info;
        for (uint32_t k = 0; k < words; ++k) sum += LoadLE<uint32_t>(image.data() + at + 4 * k);
        data.insert(data.end(), image.begin() + static_cast<std::ptrdiff_t>(at),
                    image.begin() + static_cast<std::ptrdiff_t>(at + 4 * size_t{words}));
        at += 4 * size_t{words};
    }
    if (at + 4 > image.size() || LoadLE<uint32_t>(image.data() + at) != sum) return info;
    info.valid = true;
    info.serial = FirmwareSerial(data, product);
    return info;
}

FirmwareInfo InspectFlashImage(const NorFlash& flash, uint32_t page, const std::string& product) {
    std::vector<uint8_t> sector(size_t{NorFlash::kSectorPages} * NorFlash::kPageBytes);
    flash.Read(page, sector);
    return InspectFirmware(sector, product);
}

int32_t FlashFirmwareVersion(const NorFlash& flash) {
    uint8_t last[NorFlash::kPageBytes];
    flash.Read(kBootImagePage + NorFlash::kSectorPages - 1, last);
    const uint8_t hi = last[NorFlash::kPageBytes - 2], lo = last[NorFlash::kPageBytes - 1];
    if (hi == 0xFF && lo == 0xFF) return -1;
    return hi << 8 | lo;
}

} // namespace lx::sim
