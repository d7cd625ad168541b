// The LX530 SoapySDR device: discovery, identity, tuning, gain, time,
// sensors and settings. Streaming is in lx_soapy_stream.cpp.
#include "lx_soapy.h"

#include <SoapySDR/Logger.hpp>
#include <SoapySDR/Registry.hpp>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>

#include "lx_api.h"
#include "lx_sim.h"

namespace lxsoapy {
namespace {

constexpr int32_t kDefaultSimSerial = 10000001;
constexpr double kMinFreqHz = 9e3;
constexpr double kMaxFreqHz = 15e9;

std::string StatusText(LxStatus s) {
    return std::string(lxGetErrorString(s)) + " (" + std::to_string(static_cast<int>(s)) + ")";
}

void Check(LxStatus s, const char* what) {
    if (s < 0) throw std::runtime_error(std::string("lx530: ") + what + ": " + StatusText(s));
}

// Serial from the "serial" argument: 8 digits. Empty when absent.
bool ParseSerial(const SoapySDR::Kwargs& args, int32_t* serial) {
    auto it = args.find("serial");
    if (it == args.end() || it->second.empty()) return false;
    const std::string& s = it->second;
    if (s.size() != 8 || s.find_first_not_of("0123456789") != std::string::npos || s[0] == '0')
        throw std::invalid_argument("lx530: serial must be 8 digits (10000000..99999999): " + s);
    *serial = static_cast<int32_t>(std::stol(s));
    return true;
}

std::string ReadSceneFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::invalid_argument("lx530: cannot read scene file " + path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Simulated analyzers this module plugged in, so that two devices of one
// process never share a serial.
std::mutex gSimMutex;
std::set<int32_t> gSimSerials;

std::vector<SoapySDR::Kwargs> FindLx530(const SoapySDR::Kwargs& args) {
    std::vector<SoapySDR::Kwargs> found;
    auto driver = args.find("driver");
    if (driver != args.end() && driver->second != "lx530") return found;
    int32_t wanted = 0;
    bool bySerial = false;
    try {
        bySerial = ParseSerial(args, &wanted);
    } catch (const std::exception& e) {
        SoapySDR::log(SOAPY_SDR_ERROR, e.what());
        return found;
    }
    auto scene = args.find("scene");
    if (scene != args.end()) {
        // A simulated analyzer exists only once a device is made from this
        // result; here the scene file only has to be readable.
        try {
            ReadSceneFile(scene->second);
        } catch (const std::exception& e) {
            SoapySDR::log(SOAPY_SDR_ERROR, e.what());
            return found;
        }
        const int32_t serial = bySerial ? wanted : kDefaultSimSerial;
        found.push_back({{"driver", "lx530"}, {"serial", std::to_string(serial)},
                         {"scene", scene->second},
                         {"label", "LX530 " + std::to_string(serial) + " (simulated)"}});
        return found;
    }
    int32_t serials[64];
    int32_t count = 64;
    if (lxGetDeviceList(serials, &count) < 0) return found;
    for (int32_t i = 0; i < count; ++i) {
        int32_t personality = -1;
        if (lxGetDevicePersonality(serials[i], &personality) < 0 || personality < 0) continue;
        if (bySerial && serials[i] != wanted) continue;
        found.push_back({{"driver", "lx530"}, {"serial", std::to_string(serials[i])},
                         {"label", "LX530 " + std::to_string(serials[i])}});
    }
    return found;
}

SoapySDR::Device* MakeLx530(const SoapySDR::Kwargs& args) {
    int32_t serial = 0;
    const bool bySerial = ParseSerial(args, &serial);
    bool simulated = false;
    auto scene = args.find("scene");
    if (scene != args.end()) {
        if (!bySerial) serial = kDefaultSimSerial;
        const std::string json = ReadSceneFile(scene->second);
        std::lock_guard<std::mutex> lock(gSimMutex);
        if (gSimSerials.count(serial))
            throw std::runtime_error("lx530: simulated LX530 " + std::to_string(serial) +
                                     " is in use; give another serial=");
        const LxStatus s = lxSimAttach(serial, json.c_str());
        if (s < 0) {
            char why[512] = "";
            lxSimGetSceneError(why, sizeof why);
            throw std::invalid_argument("lx530: scene " + scene->second + " refused: " +
                                        (why[0] ? std::string(why) : StatusText(s)));
        }
        gSimSerials.insert(serial);
        simulated = true;
    }
    int32_t handle = -1;
    LxStatus s = bySerial || simulated ? lxOpenDeviceBySerial(&handle, serial) : lxOpenDevice(&handle);
    if (s < 0) {
        if (simulated) {
            std::lock_guard<std::mutex> lock(gSimMutex);
            lxSimDetach(serial);
            gSimSerials.erase(serial);
        }
        throw std::runtime_error("lx530: cannot open " +
                                 (bySerial || simulated ? std::to_string(serial) : std::string("an analyzer")) +
                                 ": " + StatusText(s));
    }
    if (s == lxInvalidCalData)
        SoapySDR::log(SOAPY_SDR_WARNING, "lx530: invalid calibration data; levels use neutral corrections");
    if (!bySerial && !simulated) {
        uint32_t sn = 0;
        lxGetSerialNumber(handle, &sn);
        serial = static_cast<int32_t>(sn);
    }
    return new LxDevice(handle, serial, simulated);
}

SoapySDR::Registry gRegistry("lx530", &FindLx530, &MakeLx530, SOAPY_SDR_ABI_VERSION);

} // namespace

int32_t AutoAttenuatorStep(double refLevelDbm) {
    for (int32_t step = 0; step < 6; ++step)
        if (refLevelDbm <= -20.0 + 5.0 * step) return step;
    return 6;
}

LxDevice::LxDevice(int32_t handle, int32_t serial, bool simulated)
    : handle_(handle), serial_(serial), simulated_(simulated) {}

LxDevice::~LxDevice() {
    if (stream_) closeStream(reinterpret_cast<SoapySDR::Stream*>(stream_));
    lxCloseDevice(handle_);
    if (simulated_) {
        std::lock_guard<std::mutex> lock(gSimMutex);
        lxSimDetach(serial_);
        gSimSerials.erase(serial_);
    }
}

SoapySDR::Kwargs LxDevice::getHardwareInfo() const {
    std::lock_guard<std::mutex> lock(mutex_);
    uint32_t major = 0, minor = 0, revision = 0, calDate = 0;
    lxGetFirmwareVersion(handle_, &major, &minor, &revision);
    lxGetCalDate(handle_, &calDate);
    return {{"serial", std::to_string(serial_)},
            {"firmware", std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(revision)},
            {"calibration_date", std::to_string(calDate)},
            {"simulated", simulated_ ? "true" : "false"},
            {"lx_api", lxGetAPIVersion()}};
}

size_t LxDevice::getNumChannels(int direction) const { return direction == SOAPY_SDR_RX ? 1 : 0; }

void LxDevice::CheckChannel(int direction, size_t channel) const {
    if (direction != SOAPY_SDR_RX || channel != 0)
        throw std::invalid_argument("lx530: one receive channel (RX 0) only");
}

// ---- antenna -----------------------------------------------------------------

std::vector<std::string> LxDevice::listAntennas(int direction, size_t channel) const {
    CheckChannel(direction, channel);
    return {"RF"};
}

void LxDevice::setAntenna(int direction, size_t channel, const std::string& name) {
    CheckChannel(direction, channel);
    if (name != "RF") throw std::invalid_argument("lx530: the only antenna port is RF, not " + name);
}

std::string LxDevice::getAntenna(int direction, size_t channel) const {
    CheckChannel(direction, channel);
    return "RF";
}

// ---- gain: the attenuator, through the reference level ------------------------

std::vector<std::string> LxDevice::listGains(int direction, size_t channel) const {
    CheckChannel(direction, channel);
    return {"ATT"};
}

SoapySDR::Range LxDevice::getGainRange(int direction, size_t channel) const {
    CheckChannel(direction, channel);
    return SoapySDR::Range(0.0, kMaxGainDb, 5.0);
}

SoapySDR::Range LxDevice::getGainRange(int direction, size_t channel, const std::string& name) const {
    CheckChannel(direction, channel);
    if (name != "ATT") throw std::invalid_argument("lx530: no gain element " + name);
    return SoapySDR::Range(-kMaxGainDb, 0.0, 5.0);
}

namespace {
// Nearest 5 dB step within 0..30 dB; NaN refused.
double GainStep(double gainDb) {
    if (std::isnan(gainDb)) throw std::invalid_argument("lx530: gain is NaN");
    const double g = std::round(std::min(std::max(gainDb, 0.0), kMaxGainDb) / 5.0) * 5.0;
    if (g != gainDb)
        SoapySDR::logf(SOAPY_SDR_INFO, "lx530: gain %.2f dB set as %.0f dB (0..30 dB in 5 dB steps)", gainDb, g);
    return g;
}
} // namespace

void LxDevice::setGain(int direction, size_t channel, double value) {
    CheckChannel(direction, channel);
    const double g = GainStep(value);
    std::lock_guard<std::mutex> lock(mutex_);
    refLevelDbm_ = kRefAtFullGainDbm - g;
    attenuator_ = -1;
    Restart();
}

void LxDevice::setGain(int direction, size_t channel, const std::string& name, double value) {
    CheckChannel(direction, channel);
    if (name != "ATT") throw std::invalid_argument("lx530: no gain element " + name);
    const double g = GainStep(value + kMaxGainDb);
    std::lock_guard<std::mutex> lock(mutex_);
    attenuator_ = static_cast<int32_t>((kMaxGainDb - g) / 5.0);
    Restart();
}

double LxDevice::getGain(int direction, size_t channel) const {
    CheckChannel(direction, channel);
    std::lock_guard<std::mutex> lock(mutex_);
    const int32_t step = attenuator_ >= 0 ? attenuator_ : AutoAttenuatorStep(refLevelDbm_);
    return kMaxGainDb - 5.0 * step;
}

double LxDevice::getGain(int direction, size_t channel, const std::string& name) const {
    if (name != "ATT") throw std::invalid_argument("lx530: no gain element " + name);
    return getGain(direction, channel) - kMaxGainDb;
}

// ---- frequency -------------------------------------------------------------------

void LxDevice::setFrequency(int direction, size_t channel, double frequency, const SoapySDR::Kwargs&) {
    CheckChannel(direction, channel);
    if (!(frequency >= kMinFreqHz && frequency <= kMaxFreqHz))
        throw std::invalid_argument("lx530: frequency outside 9 kHz .. 15 GHz");
    std::lock_guard<std::mutex> lock(mutex_);
    centreHz_ = frequency;
    Restart();
}

void LxDevice::setFrequency(int direction, size_t channel, const std::string& name, double frequency,
                            const SoapySDR::Kwargs& args) {
    if (name != "RF") throw std::invalid_argument("lx530: no frequency element " + name);
    setFrequency(direction, channel, frequency, args);
}

double LxDevice::getFrequency(int direction, size_t channel) const {
    CheckChannel(direction, channel);
    std::lock_guard<std::mutex> lock(mutex_);
    return centreHz_;
}

double LxDevice::getFrequency(int direction, size_t channel, const std::string& name) const {
    if (name != "RF") throw std::invalid_argument("lx530: no frequency element " + name);
    return getFrequency(direction, channel);
}

std::vector<std::string> LxDevice::listFrequencies(int direction, size_t channel) const {
    CheckChannel(direction, channel);
    return {"RF"};
}

SoapySDR::RangeList LxDevice::getFrequencyRange(int direction, size_t channel) const {
    CheckChannel(direction, channel);
    return {SoapySDR::Range(kMinFreqHz, kMaxFreqHz)};
}

SoapySDR::RangeList LxDevice::getFrequencyRange(int direction, size_t channel, const std::string& name) const {
    if (name != "RF") throw std::invalid_argument("lx530: no frequency element " + name);
    return getFrequencyRange(direction, channel);
}

// ---- sample rate and bandwidth -----------------------------------------------------

void LxDevice::setSampleRate(int direction, size_t channel, double rate) {
    CheckChannel(direction, channel);
    for (int k = 0; k <= kMaxDecimationLog2; ++k) {
        const double r = kAdcRate / (1 << k);
        if (std::fabs(rate - r) <= 1e-6 * r) {
            std::lock_guard<std::mutex> lock(mutex_);
            decimation_ = 1 << k;
            Restart();
            return;
        }
    }
    throw std::invalid_argument("lx530: sample rate " + std::to_string(rate) +
                                " not offered; 61.44e6 / 2^k, k = 0..13");
}

double LxDevice::getSampleRate(int direction, size_t channel) const {
    CheckChannel(direction, channel);
    std::lock_guard<std::mutex> lock(mutex_);
    return RateLocked();
}

std::vector<double> LxDevice::listSampleRates(int direction, size_t channel) const {
    CheckChannel(direction, channel);
    std::vector<double> rates;
    for (int k = kMaxDecimationLog2; k >= 0; --k) rates.push_back(kAdcRate / (1 << k));
    return rates;
}

SoapySDR::RangeList LxDevice::getSampleRateRange(int direction, size_t channel) const {
    SoapySDR::RangeList ranges;
    for (double r : listSampleRates(direction, channel)) ranges.emplace_back(r, r);
    return ranges;
}

double LxDevice::BandwidthLimitLocked() const { return decimation_ == 1 ? 41.5e6 : 50e6 / decimation_; }

void LxDevice::setBandwidth(int direction, size_t channel, double bw) {
    CheckChannel(direction, channel);
    if (!(bw >= 0.0) || std::isinf(bw))
        throw std::invalid_argument("lx530: bandwidth must be 0 (widest) or a positive number of Hz");
    std::lock_guard<std::mutex> lock(mutex_);
    bandwidthHz_ = bw;
    Restart();
}

double LxDevice::getBandwidth(int direction, size_t channel) const {
    CheckChannel(direction, channel);
    std::lock_guard<std::mutex> lock(mutex_);
    double used = 0.0;
    if (stream_ && stream_->active && lxGetIQParameters(handle_, nullptr, &used) == lxNoError) return used;
    const double limit = BandwidthLimitLocked();
    return bandwidthHz_ <= 0.0 ? limit : std::min(std::max(bandwidthHz_, 1e3), limit);
}

SoapySDR::RangeList LxDevice::getBandwidthRange(int direction, size_t channel) const {
    CheckChannel(direction, channel);
    std::lock_guard<std::mutex> lock(mutex_);
    return {SoapySDR::Range(1e3, BandwidthLimitLocked())};
}

// ---- time ------------------------------------------------------------------------------

bool LxDevice::HasGpsFixLocked() const {
    uint32_t state = 0;
    return lxGetGPSState(handle_, &state) >= 0 && state >= lxGPSFix;
}

std::vector<std::string> LxDevice::listTimeSources() const { return {"host", "gps"}; }

std::string LxDevice::getTimeSource() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return HasGpsFixLocked() ? "gps" : "host";
}

void LxDevice::setTimeSource(const std::string&) {
    throw std::runtime_error("lx530: the time source follows the GPS fix (gps, else host); it cannot be chosen");
}

bool LxDevice::hasHardwareTime(const std::string& what) const { return what.empty(); }

long long LxDevice::getHardwareTime(const std::string& what) const {
    if (!what.empty()) throw std::invalid_argument("lx530: no time register " + what);
    std::lock_guard<std::mutex> lock(mutex_);
    // While streaming: the time of the newest sample the library holds.
    if (stream_ && stream_->active && stream_->nextTimeNs > 0)
        return stream_->nextTimeNs +
               static_cast<long long>(std::llround(stream_->remaining * 1e9 / RateLocked()));
    int64_t gpsTime = 0;
    if (HasGpsFixLocked() &&
        lxGetGPSInfo(handle_, 1, nullptr, &gpsTime, nullptr, nullptr, nullptr, nullptr, nullptr) >= 0 &&
        gpsTime > 0)
        return (gpsTime + 1) * 1000000000LL;  // the second the last message described has ended
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::system_clock::now().time_since_epoch()).count();
}

void LxDevice::setHardwareTime(long long, const std::string&) {
    throw std::runtime_error("lx530: the time follows the GPS receiver (host clock without a fix); it cannot be set");
}

// ---- sensors ----------------------------------------------------------------------------

namespace {
struct SensorRow {
    const char* key;
    const char* name;
    SoapySDR::ArgInfo::Type type;
    const char* units;
    const char* description;
};
const SensorRow kSensors[] = {
    {"temperature", "Temperature", SoapySDR::ArgInfo::FLOAT, "C", ""},
    {"supply_voltage", "Supply voltage", SoapySDR::ArgInfo::FLOAT, "V", ""},
    {"supply_current", "Supply current", SoapySDR::ArgInfo::FLOAT, "A", ""},
    {"gps_locked", "GPS fix", SoapySDR::ArgInfo::BOOL, "", "the GPS receiver has a valid fix"},
    {"gps_position", "GPS position", SoapySDR::ArgInfo::STRING, "",
     "latitude,longitude (degrees, north and east positive),altitude (m); empty without a fix"},
    {"gps_time", "GPS time", SoapySDR::ArgInfo::INT, "s", "UTC seconds since 1970 of the last fix; 0 without a fix"},
};
} // namespace

std::vector<std::string> LxDevice::listSensors() const {
    std::vector<std::string> keys;
    for (const SensorRow& s : kSensors) keys.emplace_back(s.key);
    return keys;
}

SoapySDR::ArgInfo LxDevice::getSensorInfo(const std::string& key) const {
    for (const SensorRow& s : kSensors) {
        if (key != s.key) continue;
        // Built, then moved in: assigning a literal to the strings trips
        // GCC 12's -Wrestrict false positive at -O3.
        SoapySDR::ArgInfo info;
        info.key = key;
        info.name = std::string(s.name);
        info.type = s.type;
        info.units = std::string(s.units);
        info.description = std::string(s.description);
        return info;
    }
    throw std::invalid_argument("lx530: no sensor " + key);
}

std::string LxDevice::readSensor(const std::string& key) const {
    std::lock_guard<std::mutex> lock(mutex_);
    char text[96];
    if (key == "temperature" || key == "supply_voltage" || key == "supply_current") {
        float v = 0, a = 0, t = 0;
        Check(lxGetDeviceDiagnostics(handle_, &v, &a, &t), "diagnostics");
        std::snprintf(text, sizeof text, "%.3f", key == "temperature" ? t : key == "supply_voltage" ? v : a);
        return text;
    }
    const bool streaming = stream_ && stream_->active;
    if (key == "gps_locked") return HasGpsFixLocked() ? "true" : "false";
    if (key == "gps_position" || key == "gps_time") {
        int64_t time = 0;
        double lat = 0, lon = 0, alt = 0;
        Check(lxGetGPSInfo(handle_, streaming ? 0 : 1, nullptr, &time, &lat, &lon, &alt, nullptr, nullptr),
              "GPS info");
        if (key == "gps_time") return std::to_string(time);
        if (!HasGpsFixLocked()) return "";
        std::snprintf(text, sizeof text, "%.6f,%.6f,%.1f", lat, lon, alt);
        return text;
    }
    throw std::invalid_argument("lx530: no sensor " + key);
}

// ---- settings ----------------------------------------------------------------------------

SoapySDR::ArgInfoList LxDevice::getSettingInfo() const {
    SoapySDR::ArgInfo edge;
    edge.key = "trigger_edge";
    edge.name = "Trigger edge";
    edge.type = SoapySDR::ArgInfo::STRING;
    edge.value = "rising";
    edge.options = {"rising", "falling"};
    edge.description = "edge of the external trigger input reported through readStreamStatus";
    SoapySDR::ArgInfo filter;
    filter.key = "software_filter";
    filter.name = "Host low-pass";
    filter.type = SoapySDR::ArgInfo::BOOL;
    filter.value = "true";
    filter.description = "false: the analyzer's own band limit only at 61.44, 30.72 and 15.36 MS/s";
    SoapySDR::ArgInfo correction;
    correction.key = "iq_correction_db";
    correction.name = "CS16 correction";
    correction.type = SoapySDR::ArgInfo::FLOAT;
    correction.units = "dB";
    correction.description = "read-only, while streaming: dB to add to the power of CS16 samples "
                             "(|x/32768|^2) for mW; CF32 samples have it applied";
    return {edge, filter, correction};
}

void LxDevice::writeSetting(const std::string& key, const std::string& value) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (key == "trigger_edge") {
        if (value != "rising" && value != "falling")
            throw std::invalid_argument("lx530: trigger_edge is rising or falling, not " + value);
        triggerEdge_ = value == "falling" ? 1 : 0;
    } else if (key == "software_filter") {
        if (value != "true" && value != "false")
            throw std::invalid_argument("lx530: software_filter is true or false, not " + value);
        softwareFilter_ = value == "true";
    } else if (key == "iq_correction_db") {
        throw std::invalid_argument("lx530: iq_correction_db is read-only");
    } else {
        throw std::invalid_argument("lx530: no setting " + key);
    }
    Restart();
}

std::string LxDevice::readSetting(const std::string& key) const {
    std::lock_guard<std::mutex> lock(mutex_);
    if (key == "trigger_edge") return triggerEdge_ ? "falling" : "rising";
    if (key == "software_filter") return softwareFilter_ ? "true" : "false";
    if (key == "iq_correction_db") {
        float db = 0;
        if (!stream_ || !stream_->active || lxGetIQCorrection(handle_, &db) != lxNoError)
            throw std::runtime_error("lx530: iq_correction_db is known while the stream runs");
        char text[32];
        std::snprintf(text, sizeof text, "%.4f", db);
        return text;
    }
    throw std::invalid_argument("lx530: no setting " + key);
}

} // namespace lxsoapy
