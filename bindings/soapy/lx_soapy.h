// SoapySDR device for the LX530, built on the public C API only (lx_api.h,
// lx_sim.h) and linked against liblx_api.so as any application is.
//
// Threads: none of its own. SoapySDR applications call in from any thread,
// typically one reading the stream and another changing settings.
//   mutex_        guards the handle: every lx_api call on it, the stream's
//                 read state and the settings. readStream holds it for one
//                 lxGetIQ, which it sizes to end within the caller's time-out,
//                 so a setter waits at most one read. A read of a stream not
//                 yet active waits on activeCv_ (releasing mutex_).
//   eventsMutex_  guards the stream's event queue (losses, trigger edges,
//                 input overloads) that readStreamStatus drains; it waits on
//                 eventsCv_ without holding mutex_.
// Lock order: mutex_, then eventsMutex_; never the reverse.
#pragma once

#include <SoapySDR/Device.hpp>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace lxsoapy {

constexpr double kAdcRate = 61.44e6;
constexpr int kMaxDecimationLog2 = 13;

// Gain = 30 dB minus the attenuation in use; the reference level that picks
// an attenuation automatically is 10 dBm minus the gain (see docs/soapy.md).
constexpr double kMaxGainDb = 30.0;
constexpr double kRefAtFullGainDbm = 10.0;

// readStreamStatus flags beside SOAPY_SDR_HAS_TIME (SoapySDR 0.8.1 names no
// driver-defined bits; these are the first two above its own).
constexpr int kTriggerFlag = 1 << 16;      // an external trigger edge at timeNs
constexpr int kAdcOverloadFlag = 1 << 17;  // the input overloaded the ADC before timeNs

struct StreamEvent {
    int ret;        // SOAPY_SDR_OVERFLOW or 0
    int flags;      // SOAPY_SDR_HAS_TIME, plus kTriggerFlag or kAdcOverloadFlag
    long long timeNs;
};

struct LxStream {
    int dataType = 0;             // 0 CF32, 1 CS16 (lxSetIQDataType)
    size_t bytesPerSample = 8;
    bool active = false;
    int32_t remaining = 0;        // samples the library held after the last read
    long long nextTimeNs = 0;     // time of the next sample to read (0: unknown)
    std::vector<uint8_t> held;    // samples read with a loss, handed out after the OVERFLOW
    size_t heldOffset = 0;
    long long heldTimeNs = 0;
    std::vector<double> triggers; // positions lxGetIQ reports, -1 when unused
};

class LxDevice final : public SoapySDR::Device {
public:
    LxDevice(int32_t handle, int32_t serial, bool simulated);
    ~LxDevice() override;

    // identification
    std::string getDriverKey() const override { return "lx530"; }
    std::string getHardwareKey() const override { return "LX530"; }
    SoapySDR::Kwargs getHardwareInfo() const override;
    size_t getNumChannels(int direction) const override;

    // streams
    std::vector<std::string> getStreamFormats(int direction, size_t channel) const override;
    std::string getNativeStreamFormat(int direction, size_t channel, double& fullScale) const override;
    SoapySDR::Stream* setupStream(int direction, const std::string& format,
                                  const std::vector<size_t>& channels,
                                  const SoapySDR::Kwargs& args) override;
    void closeStream(SoapySDR::Stream* stream) override;
    size_t getStreamMTU(SoapySDR::Stream* stream) const override;
    int activateStream(SoapySDR::Stream* stream, int flags, long long timeNs, size_t numElems) override;
    int deactivateStream(SoapySDR::Stream* stream, int flags, long long timeNs) override;
    int readStream(SoapySDR::Stream* stream, void* const* buffs, size_t numElems, int& flags,
                   long long& timeNs, long timeoutUs) override;
    int readStreamStatus(SoapySDR::Stream* stream, size_t& chanMask, int& flags, long long& timeNs,
                         long timeoutUs) override;

    // antenna, gain, frequency, rate, bandwidth
    std::vector<std::string> listAntennas(int direction, size_t channel) const override;
    void setAntenna(int direction, size_t channel, const std::string& name) override;
    std::string getAntenna(int direction, size_t channel) const override;
    std::vector<std::string> listGains(int direction, size_t channel) const override;
    void setGain(int direction, size_t channel, double value) override;
    void setGain(int direction, size_t channel, const std::string& name, double value) override;
    double getGain(int direction, size_t channel) const override;
    double getGain(int direction, size_t channel, const std::string& name) const override;
    SoapySDR::Range getGainRange(int direction, size_t channel) const override;
    SoapySDR::Range getGainRange(int direction, size_t channel, const std::string& name) const override;
    void setFrequency(int direction, size_t channel, double frequency, const SoapySDR::Kwargs& args) override;
    void setFrequency(int direction, size_t channel, const std::string& name, double frequency,
                      const SoapySDR::Kwargs& args) override;
    double getFrequency(int direction, size_t channel) const override;
    double getFrequency(int direction, size_t channel, const std::string& name) const override;
    std::vector<std::string> listFrequencies(int direction, size_t channel) const override;
    SoapySDR::RangeList getFrequencyRange(int direction, size_t channel) const override;
    SoapySDR::RangeList getFrequencyRange(int direction, size_t channel, const std::string& name) const override;
    void setSampleRate(int direction, size_t channel, double rate) override;
    double getSampleRate(int direction, size_t channel) const override;
    std::vector<double> listSampleRates(int direction, size_t channel) const override;
    SoapySDR::RangeList getSampleRateRange(int direction, size_t channel) const override;
    void setBandwidth(int direction, size_t channel, double bw) override;
    double getBandwidth(int direction, size_t channel) const override;
    SoapySDR::RangeList getBandwidthRange(int direction, size_t channel) const override;

    // time, sensors, settings
    std::vector<std::string> listTimeSources() const override;
    std::string getTimeSource() const override;
    void setTimeSource(const std::string& source) override;
    bool hasHardwareTime(const std::string& what) const override;
    long long getHardwareTime(const std::string& what) const override;
    void setHardwareTime(long long timeNs, const std::string& what) override;
    std::vector<std::string> listSensors() const override;
    SoapySDR::ArgInfo getSensorInfo(const std::string& key) const override;
    std::string readSensor(const std::string& key) const override;
    SoapySDR::ArgInfoList getSettingInfo() const override;
    void writeSetting(const std::string& key, const std::string& value) override;
    std::string readSetting(const std::string& key) const override;

private:
    void CheckChannel(int direction, size_t channel) const;
    LxStream* Checked(SoapySDR::Stream* stream) const;
    // Restarts a running stream so that a changed setting takes effect.
    void Restart();
    int StartLocked(LxStream& s);
    void PushEvent(const StreamEvent& e);
    double RateLocked() const { return kAdcRate / decimation_; }
    double BandwidthLimitLocked() const;
    bool HasGpsFixLocked() const;

    mutable std::mutex mutex_;
    int32_t handle_;
    int32_t serial_;
    bool simulated_;
    // Settings as given; the library only takes them at configure.
    double centreHz_ = 1e9;
    int32_t decimation_ = 1;
    double bandwidthHz_ = 0.0;    // 0: the widest for the rate
    double refLevelDbm_ = -20.0;
    int32_t attenuator_ = -1;     // -1: chosen from the reference level
    int32_t triggerEdge_ = 0;     // 0 rising, 1 falling
    bool softwareFilter_ = true;
    LxStream* stream_ = nullptr;
    std::condition_variable activeCv_;  // with mutex_: the stream was activated

    mutable std::mutex eventsMutex_;
    std::condition_variable eventsCv_;
    std::deque<StreamEvent> events_;
};

// The attenuator step the library picks for a reference level when the
// attenuator is automatic.
int32_t AutoAttenuatorStep(double refLevelDbm);

} // namespace lxsoapy
