#include "dsp_vector/aligned_vector.h"

#include <limits>
#include <new>

namespace lx {

template <typename T>
void AlignedVector<T>::resize(int64_t count) {
    if (count < 0) {
        LX_ASSERT(false, "src/dsp_vector");
        return;
    }
    release();
    if (count == 0) return;
    if (static_cast<uint64_t>(count) > std::numeric_limits<std::size_t>::max() / sizeof(T) - kSampleAlignment)
        throw std::bad_alloc();
    const std::size_t bytes = static_cast<std::size_t>(count) * sizeof(T);
    mem_ = static_cast<T*>(::operator new(bytes, std::align_val_t{kSampleAlignment}));
    capacity_ = count;
    // Touched now, at set-up: the first write to a fresh page is a page
    // fault, and a stream's first pass through a 245 MB sample store put the
    // filter thread more than its 20-block ring behind at 61.44 MS/s.
    zero();
}

template <typename T>
void AlignedVector<T>::release() noexcept {
    if (!mem_) return;
    const int64_t capacity = capacity_;
    LX_ASSERT(capacity > 0, "src/dsp_vector");
    ::operator delete(static_cast<void*>(mem_), std::align_val_t{kSampleAlignment});
    mem_ = nullptr;
    capacity_ = 0;
}

template class AlignedVector<std::complex<float>>;
template class AlignedVector<std::complex<double>>;
template class AlignedVector<float>;
template class AlignedVector<double>;
template class AlignedVector<uint8_t>;
template class AlignedVector<int16_t>;
template class AlignedVector<uint16_t>;
template class AlignedVector<uint32_t>;

} // namespace lx
