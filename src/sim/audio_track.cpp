#include "sim/audio_track.h"

#include <fftw3.h>
#include <samplerate.h>
#include <sndfile.h>

#include <cmath>
#include <complex>
#include <mutex>

#include "dsp/fft.h"

namespace lx::sim {

namespace {
constexpr sf_count_t kMaxFrames = 60 * 192000; // a minute at the highest common rate
}

std::shared_ptr<const AudioTrack> LoadAudioTrack(const std::string& path, std::string* why) {
    SF_INFO info{};
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    if (!f) {
        *why = "\"audio_file\": cannot read \"" + path + "\": " + sf_strerror(nullptr);
        return nullptr;
    }
    std::vector<float> in;
    const bool mono = info.channels == 1;
    if (mono && info.frames > 0 && info.frames <= kMaxFrames) {
        in.resize(static_cast<size_t>(info.frames));
        in.resize(static_cast<size_t>(sf_readf_float(f, in.data(), info.frames)));
    }
    sf_close(f);
    if (!mono) {
        *why = "\"audio_file\": \"" + path + "\" must be mono";
        return nullptr;
    }
    if (in.size() < 16) {
        *why = "\"audio_file\": \"" + path + "\" holds no audio or more than a minute";
        return nullptr;
    }

    auto t = std::make_shared<AudioTrack>();
    t->path = path;
    const double ratio = kAudioRateHz / info.samplerate;
    t->samples.resize(static_cast<size_t>(std::ceil(static_cast<double>(in.size()) * ratio)) + 64);
    SRC_DATA d{};
    d.data_in = in.data();
    d.input_frames = static_cast<long>(in.size());
    d.data_out = t->samples.data();
    d.output_frames = static_cast<long>(t->samples.size());
    d.src_ratio = ratio;
    if (const int e = src_simple(&d, SRC_SINC_MEDIUM_QUALITY, 1); e != 0) {
        *why = std::string("\"audio_file\": resampling failed: ") + src_strerror(e);
        return nullptr;
    }
    t->samples.resize(static_cast<size_t>(d.output_frames_gen));

    // The quadrature programme: the Hilbert transform of the looped track,
    // taken over exactly its length so that the loop joins.
    const int n = static_cast<int>(t->samples.size());
    std::vector<std::complex<float>> buf(t->samples.begin(), t->samples.end());
    fftwf_plan fwd, inv;
    {
        std::lock_guard lk(dsp::FftwPlannerMutex());
        auto* p = reinterpret_cast<fftwf_complex*>(buf.data());
        fwd = fftwf_plan_dft_1d(n, p, p, FFTW_FORWARD, FFTW_ESTIMATE);
        inv = fftwf_plan_dft_1d(n, p, p, FFTW_BACKWARD, FFTW_ESTIMATE);
    }
    fftwf_execute(fwd);
    // H{x} has the spectrum -j sgn(f) X(f).
    for (int k = 0; k < n; ++k) {
        const int signedK = k <= n / 2 ? k : k - n;
        const float s = signedK > 0 && 2 * signedK != n ? 1.0f : signedK < 0 ? -1.0f : 0.0f;
        buf[static_cast<size_t>(k)] *= std::complex<float>(0.0f, -s / static_cast<float>(n));
    }
    fftwf_execute(inv);
    {
        std::lock_guard lk(dsp::FftwPlannerMutex());
        fftwf_destroy_plan(fwd);
        fftwf_destroy_plan(inv);
    }
    t->quadrature.resize(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) t->quadrature[static_cast<size_t>(i)] = buf[static_cast<size_t>(i)].real();
    return t;
}

} // namespace lx::sim
