// The receive stream over the library's I/Q mode: lxGetIQ straight into the
// caller's buffer, its time stamps, losses and trigger edges.
#include <SoapySDR/Formats.hpp>
#include <SoapySDR/Logger.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>

#include "lx_api.h"
#include "lx_soapy.h"

namespace lxsoapy {
namespace {

constexpr size_t kMtu = 65536;
constexpr int32_t kTriggersPerRead = 256;
constexpr size_t kMaxEvents = 4096;

int SoapyError(LxStatus s) {
    switch (s) {
    case lxFramingErr: return SOAPY_SDR_CORRUPTION;
    case lxInvalidParameterErr:
    case lxNullPtrErr: return SOAPY_SDR_NOT_SUPPORTED;
    default: return SOAPY_SDR_STREAM_ERROR;
    }
}

} // namespace

std::vector<std::string> LxDevice::getStreamFormats(int direction, size_t channel) const {
    CheckChannel(direction, channel);
    return {SOAPY_SDR_CF32, SOAPY_SDR_CS16};
}

std::string LxDevice::getNativeStreamFormat(int direction, size_t channel, double& fullScale) const {
    CheckChannel(direction, channel);
    fullScale = 32768.0;
    return SOAPY_SDR_CS16;
}

LxStream* LxDevice::Checked(SoapySDR::Stream* stream) const {
    auto* s = reinterpret_cast<LxStream*>(stream);
    if (!s || s != stream_) throw std::invalid_argument("lx530: not a stream of this device");
    return s;
}

SoapySDR::Stream* LxDevice::setupStream(int direction, const std::string& format,
                                        const std::vector<size_t>& channels, const SoapySDR::Kwargs& args) {
    if (direction != SOAPY_SDR_RX) throw std::invalid_argument("lx530: receive streams only");
    if (channels.size() > 1 || (channels.size() == 1 && channels[0] != 0))
        throw std::invalid_argument("lx530: one channel (0) only");
    // The stream has no arguments of its own; others' (SoapyRemote passes
    // its "remote:" ones through) are left alone.
    for (const auto& [key, value] : args)
        SoapySDR::logf(SOAPY_SDR_DEBUG, "lx530: stream argument %s=%s ignored", key.c_str(), value.c_str());
    if (format != SOAPY_SDR_CF32 && format != SOAPY_SDR_CS16)
        throw std::invalid_argument("lx530: stream format CF32 or CS16, not " + format);
    std::lock_guard<std::mutex> lock(mutex_);
    if (stream_) throw std::runtime_error("lx530: a stream is already set up; close it first");
    stream_ = new LxStream;
    stream_->dataType = format == SOAPY_SDR_CF32 ? 0 : 1;
    stream_->bytesPerSample = format == SOAPY_SDR_CF32 ? 8 : 4;
    stream_->triggers.resize(kTriggersPerRead);
    return reinterpret_cast<SoapySDR::Stream*>(stream_);
}

void LxDevice::closeStream(SoapySDR::Stream* stream) {
    LxStream* s = Checked(stream);
    deactivateStream(stream, 0, 0);
    std::lock_guard<std::mutex> lock(mutex_);
    delete s;
    stream_ = nullptr;
}

size_t LxDevice::getStreamMTU(SoapySDR::Stream* stream) const {
    Checked(stream);
    return kMtu;
}

int LxDevice::StartLocked(LxStream& s) {
    // The library takes the settings at configure; all of them are handed
    // over here so that this module's copy is the only truth.
    lxSetIQDataType(handle_, s.dataType);
    lxSetIQCenterFreq(handle_, centreHz_);
    lxSetIQSampleRate(handle_, decimation_);
    lxSetIQBandwidth(handle_, bandwidthHz_ > 0.0 ? bandwidthHz_ : 1e9);  // 1e9: limited to the widest
    lxSetIQSoftwareFilter(handle_, softwareFilter_ ? 1 : 0);
    lxSetRefLevel(handle_, refLevelDbm_);
    lxSetAttenuator(handle_, attenuator_);
    lxSetIQExtTriggerEdge(handle_, triggerEdge_);
    // NaN marks the unused entries, as the Python package sets it: the
    // sentinel is process-wide and both may be loaded into one interpreter.
    lxSetIQTriggerSentinel(std::numeric_limits<double>::quiet_NaN());
    s.remaining = 0;
    s.nextTimeNs = 0;
    s.held.clear();
    s.heldOffset = 0;
    const LxStatus st = lxConfigure(handle_, lxModeIQ);
    if (st < 0) {
        s.active = false;
        SoapySDR::logf(SOAPY_SDR_ERROR, "lx530: starting the I/Q stream failed: %s (%d)", lxGetErrorString(st),
                       static_cast<int>(st));
        return SoapyError(st);
    }
    s.active = true;
    activeCv_.notify_all();
    return 0;
}

void LxDevice::Restart() {
    if (stream_ && stream_->active && StartLocked(*stream_) != 0)
        throw std::runtime_error("lx530: the stream could not be restarted with the new setting; it is stopped");
}

int LxDevice::activateStream(SoapySDR::Stream* stream, int flags, long long, size_t numElems) {
    LxStream* s = Checked(stream);
    if (flags != 0 || numElems != 0) return SOAPY_SDR_NOT_SUPPORTED;  // timed starts and bursts
    std::lock_guard<std::mutex> lock(mutex_);
    {
        std::lock_guard<std::mutex> events(eventsMutex_);
        events_.clear();
    }
    return StartLocked(*s);
}

int LxDevice::deactivateStream(SoapySDR::Stream* stream, int flags, long long) {
    LxStream* s = Checked(stream);
    if (flags != 0) return SOAPY_SDR_NOT_SUPPORTED;
    std::lock_guard<std::mutex> lock(mutex_);
    if (s->active) lxAbort(handle_);
    s->active = false;
    s->held.clear();
    return 0;
}

void LxDevice::PushEvent(const StreamEvent& e) {
    {
        std::lock_guard<std::mutex> lock(eventsMutex_);
        if (events_.size() >= kMaxEvents) events_.pop_front();  // the oldest go first
        events_.push_back(e);
    }
    eventsCv_.notify_all();
}

int LxDevice::readStream(SoapySDR::Stream* stream, void* const* buffs, size_t numElems, int& flags,
                         long long& timeNs, long timeoutUs) {
    LxStream* s = Checked(stream);
    flags = 0;
    std::unique_lock<std::mutex> lock(mutex_);
    // Not started: wait for an activate as long as the caller waits for samples
    // (SoapyRemote's server reads from the moment the stream is set up).
    if (!activeCv_.wait_for(lock, std::chrono::microseconds(std::max(timeoutUs, 0L)), [s] { return s->active; }))
        return SOAPY_SDR_TIMEOUT;
    if (numElems == 0) return 0;
    const double rate = RateLocked();
    const double nsPerSample = 1e9 / rate;

    // Samples that followed a loss, read before the OVERFLOW was returned.
    if (s->heldOffset < s->held.size()) {
        const size_t n = std::min(numElems, (s->held.size() - s->heldOffset) / s->bytesPerSample);
        std::memcpy(buffs[0], s->held.data() + s->heldOffset, n * s->bytesPerSample);
        timeNs = s->heldTimeNs + std::llround(static_cast<double>(s->heldOffset / s->bytesPerSample) * nsPerSample);
        flags = SOAPY_SDR_HAS_TIME;
        s->heldOffset += n * s->bytesPerSample;
        if (s->heldOffset >= s->held.size()) s->held.clear(), s->heldOffset = 0;
        return static_cast<int>(n);
    }

    // lxGetIQ blocks until it has every sample asked for: ask for what is
    // stored or what arrives within the time-out, whichever is more.
    const double inTime = std::floor(rate * static_cast<double>(std::max(timeoutUs, 0L)) * 1e-6);
    size_t n = std::max<size_t>(static_cast<size_t>(s->remaining), static_cast<size_t>(inTime));
    n = std::clamp<size_t>(n, 1, std::min<size_t>(numElems, INT32_MAX));

    uint64_t ts = 0;
    int32_t loss = 0, remaining = 0;
    std::fill(s->triggers.begin(), s->triggers.end(), std::numeric_limits<double>::quiet_NaN());
    const LxStatus st = lxGetIQ(handle_, buffs[0], static_cast<int32_t>(n), s->triggers.data(), kTriggersPerRead,
                                &ts, 0, &loss, &remaining);
    if (st < 0) {
        SoapySDR::logf(SOAPY_SDR_ERROR, "lx530: reading I/Q failed: %s (%d)", lxGetErrorString(st),
                       static_cast<int>(st));
        return SoapyError(st);
    }
    s->remaining = remaining;
    const long long t0 = static_cast<long long>(ts);
    s->nextTimeNs = t0 + std::llround(static_cast<double>(n) * nsPerSample);
    const bool lost = loss || st == lxUncalData;
    if (lost) PushEvent({SOAPY_SDR_OVERFLOW, SOAPY_SDR_HAS_TIME, t0});
    for (double pos : s->triggers) {
        if (!(pos >= 0.0)) break; // unused: NaN, or a negative sentinel another user of the library set
        PushEvent({0, SOAPY_SDR_HAS_TIME | kTriggerFlag, t0 + std::llround(pos * nsPerSample)});
    }
    if (st == lxADCOverflow) PushEvent({0, SOAPY_SDR_HAS_TIME | kAdcOverloadFlag, t0});
    flags = SOAPY_SDR_HAS_TIME;
    timeNs = t0;
    if (lost) {
        // These samples go out with the next call, so that the caller sees
        // the OVERFLOW first and nothing is thrown away.
        const auto* bytes = static_cast<const uint8_t*>(buffs[0]);
        s->held.assign(bytes, bytes + n * s->bytesPerSample);
        s->heldOffset = 0;
        s->heldTimeNs = t0;
        return SOAPY_SDR_OVERFLOW;
    }
    return static_cast<int>(n);
}

int LxDevice::readStreamStatus(SoapySDR::Stream* stream, size_t& chanMask, int& flags, long long& timeNs,
                               long timeoutUs) {
    Checked(stream);
    std::unique_lock<std::mutex> lock(eventsMutex_);
    if (!eventsCv_.wait_for(lock, std::chrono::microseconds(std::max(timeoutUs, 0L)),
                            [this] { return !events_.empty(); }))
        return SOAPY_SDR_TIMEOUT;
    const StreamEvent e = events_.front();
    events_.pop_front();
    chanMask = 1;
    flags = e.flags;
    timeNs = e.timeNs;
    return e.ret;
}

} // namespace lxsoapy
