// Aligned sample vector: the one owner of every sample block the engines use.
//
// Valid argument ranges
//   resize(count)      count >= 0. A negative count reports "false" and leaves the
//                      vector as it was. A resized vector holds zeros (its pages
//                      are in place before a streaming thread writes it). A block
//                      that cannot be allocated throws std::bad_alloc and leaves
//                      the vector empty (set-up code runs under the API guard).
//   operator[](pos)    0 <= pos < size(). Anything else reports
//                      "mem && pos < capacity" and yields a per-thread scratch
//                      element, so a bad index never reads or writes outside the block.
//   data()             non-empty vector; on an empty one it reports the same check
//                      and returns nullptr.
//   span(), size(), empty(), zero(), release()   always valid.
//
// Blocks are 64-byte aligned: good for every SIMD width and for FFTW's new-array
// execute, which wants the alignment the plan was made with.
// Blocks of 1 MiB and more are mapped from the kernel and unmapped on release
// (except under AddressSanitizer), so that freeing one gives its memory back.
#pragma once

#include <complex>
#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>
#include <utility>

#include "common/lx_assert.h"

namespace lx {

inline constexpr std::size_t kSampleAlignment = 64;

template <typename T>
class AlignedVector {
    static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>,
                  "sample vectors hold plain numbers");

public:
    using value_type = T;

    AlignedVector() noexcept = default;
    explicit AlignedVector(int64_t count) { resize(count); }
    ~AlignedVector() { release(); }

    AlignedVector(const AlignedVector&) = delete;
    AlignedVector& operator=(const AlignedVector&) = delete;
    AlignedVector(AlignedVector&& other) noexcept
        : mem_(std::exchange(other.mem_, nullptr)), capacity_(std::exchange(other.capacity_, 0)) {}
    AlignedVector& operator=(AlignedVector&& other) noexcept {
        if (this != &other) {
            release();
            mem_ = std::exchange(other.mem_, nullptr);
            capacity_ = std::exchange(other.capacity_, 0);
        }
        return *this;
    }

    void resize(int64_t count);
    void release() noexcept;

    T& operator[](int64_t pos) noexcept { return checked(pos) ? mem_[pos] : scratch(); }
    const T& operator[](int64_t pos) const noexcept { return checked(pos) ? mem_[pos] : scratch(); }

    T* data() noexcept { return checked(0) ? mem_ : nullptr; }
    const T* data() const noexcept { return checked(0) ? mem_ : nullptr; }

    // Unchecked view for kernels; empty when the vector is.
    std::span<T> span() noexcept { return {mem_, static_cast<std::size_t>(capacity_)}; }
    std::span<const T> span() const noexcept { return {mem_, static_cast<std::size_t>(capacity_)}; }

    int64_t size() const noexcept { return capacity_; }
    bool empty() const noexcept { return capacity_ == 0; }
    void zero() noexcept {
        if (mem_) std::memset(static_cast<void*>(mem_), 0, static_cast<std::size_t>(capacity_) * sizeof(T));
    }

private:
    bool checked(int64_t position) const noexcept {
        // Unsigned compare: a negative position fails the same check.
        const T* mem = mem_;
        const uint64_t pos = static_cast<uint64_t>(position);
        const uint64_t capacity = static_cast<uint64_t>(capacity_);
        LX_ASSERT(mem && pos < capacity, "src/dsp_vector");
        return mem && pos < capacity;
    }
    static T& scratch() noexcept {
        static thread_local T value{};
        return value;
    }

    T* mem_ = nullptr;
    int64_t capacity_ = 0;
};

using ComplexVector = AlignedVector<std::complex<float>>;
using FloatVector = AlignedVector<float>;
using DoubleVector = AlignedVector<double>;
using ByteVector = AlignedVector<uint8_t>;

extern template class AlignedVector<std::complex<float>>;
extern template class AlignedVector<std::complex<double>>;
extern template class AlignedVector<float>;
extern template class AlignedVector<double>;
extern template class AlignedVector<uint8_t>;
extern template class AlignedVector<int16_t>;
extern template class AlignedVector<uint16_t>;
extern template class AlignedVector<uint32_t>;

} // namespace lx
