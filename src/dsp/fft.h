// Complex single-precision FFTs: the process-wide plan cache and the windowed
// FFT object the spectrum engines use.
//
// Valid argument ranges
//   FftPlan::Get(n)          n a power of two, 1 <= n <= kMaxFftSize; otherwise nullptr.
//   FftPlan::Execute(in,out) in != out, both n complex values, both FftAligned();
//                            otherwise kBadArgument and nothing is written.
//   WindowedFft(type, option, n, pad)
//                            n a power of two, 1 <= n <= kMaxFftSize; anything else
//                            reports "IsPowerOf2(n)" and leaves an object whose run
//                            calls answer kNotInitialised. 0 <= pad < n (else
//                            unusable too, without a report). type as GenerateWindow.
//   Transform/Forward/Inverse(src, dst)
//                            src and dst non-null, dst FftAligned() (any
//                            AlignedVector element at an even index is). src may be
//                            unaligned and may equal dst (no other overlap).
//                            Otherwise kBadArgument.
//
// Threads: construction plans under one process-wide lock (FFTW's planner is not
// thread-safe), so engines may build FFT objects on several threads at once.
// A plan is shared by every object of its size; running it is thread-safe as long
// as each thread uses its own arrays. One WindowedFft object belongs to one thread.
// Lock order: the planner lock is a leaf; nothing else is taken while it is held.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "dsp/dsp_status.h"
#include "dsp_vector/aligned_vector.h"

namespace lx::dsp {

inline constexpr int kMaxFftSize = 1 << 27;

bool IsPowerOf2(int64_t n) noexcept;

// True when p may be handed to FftPlan::Execute (16-byte alignment, the SIMD
// alignment FFTW's plans are made for).
bool FftAligned(const void* p) noexcept;

// A forward (e^-j) out-of-place transform of one size, unscaled. Plans are made
// once per size and kept for the life of the process. Plans come from the
// built-in FFTW wisdom when it fits this FFTW build and CPU (sizes 8192..65536,
// found by FFTW's patient search: 1.2-1.3x faster than measured plans; sizes
// 2^17..2^20 found by its measuring search: 2-3x faster than estimated ones;
// planning then takes a few ms); otherwise sizes up to 65536 are measured
// (0.4-0.6 s cold at 65536) and larger ones estimated, since measuring them
// takes seconds. Below 8192 the patient search gains nothing over measuring.
// Inverse transforms reuse the forward plan: IDFT(x)[k] = DFT(x)[-k mod n].
class FftPlan {
public:
    static std::shared_ptr<const FftPlan> Get(int n);

    int size() const noexcept { return n_; }
    DspStatus Execute(const cf32* in, cf32* out) const noexcept;
    // The fftwf_plan, for code that calls FFTW itself (benchmarks).
    void* native() const noexcept { return plan_; }

    ~FftPlan();
    FftPlan(const FftPlan&) = delete;
    FftPlan& operator=(const FftPlan&) = delete;

private:
    FftPlan(int n, void* plan) noexcept : n_(n), plan_(plan) {}

    int n_;
    void* plan_; // fftwf_plan
};

// Drops the cached plans and FFTW's accumulated wisdom, so that the next Get of a
// size plans from cold: with the built-in wisdom loaded again, or without it.
// Objects that hold a plan keep it. For benchmarks and tests.
void ForgetFftPlans(bool keepBuiltInWisdom = true);

// Runs FFTW's patient search (or, patient false, its measuring search with the
// flags the cache uses above 65536 points) for every power of two in
// [minSize, maxSize] with the arrays the cache uses and returns the wisdom, in
// FFTW's text form, that src/dsp/fft_wisdom.cpp (fft_wisdom_large.cpp) holds;
// bench_dsp --lx_write_fft_wisdom (--lx_write_large_fft_wisdom) regenerates it.
// Slow: about 30 s for 8192..65536 patient, minutes for 2^17..2^20 measured.
std::string SearchFftWisdom(int minSize, int maxSize, bool patient = true);

// The lock every FFTW planner call in the process must hold (plan creation and
// destruction; execution needs no lock).
std::mutex& FftwPlannerMutex() noexcept;

// Window + forward FFT of n points with 1/n scaling:
//   Transform(x) = DFT(w .* x) / n, w the window of length L = n - pad normalised
//   to mean 1 over all n points and followed by pad zeros, so a full-scale tone
//   keeps its amplitude in its bin. Only the first L samples of src are read.
// Forward(x) = DFT(x) / n on n samples; Inverse(X) = IDFT(X), unscaled.
class WindowedFft {
public:
    WindowedFft(int windowType, int option, int n, int pad);

    bool valid() const noexcept { return plan_ != nullptr; }
    int order() const noexcept { return order_; }
    int size() const noexcept { return n_; }
    int pad() const noexcept { return pad_; }
    int windowLength() const noexcept { return windowLength_; }
    int windowType() const noexcept { return windowType_; }
    // Stored for the owning engine; the object itself does not use it.
    int option() const noexcept { return option_; }

    // n complex entries: the normalised window in the real parts, imaginary parts 0.
    const ComplexVector& window() const noexcept { return window_; }

    DspStatus Transform(const cf32* src, cf32* dst) noexcept;
    DspStatus Forward(const cf32* src, cf32* dst) noexcept;
    DspStatus Inverse(const cf32* src, cf32* dst) noexcept;

private:
    int order_ = 0;
    int windowType_ = 0;
    int windowLength_ = 0;
    int n_ = 0;
    int pad_ = 0;
    int option_ = 0;
    bool padClean_ = false; // work_ holds zeros beyond the window
    ComplexVector work_;
    ComplexVector window_;
    FloatVector scaledWindow_; // first L window values / n, the run path's copy
    std::shared_ptr<const FftPlan> plan_;
};

} // namespace lx::dsp
