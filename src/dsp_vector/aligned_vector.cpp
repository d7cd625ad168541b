#include "dsp_vector/aligned_vector.h"

#include <sys/mman.h>

#include <limits>
#include <new>

namespace lx {

namespace {
// Blocks of this size and more are mapped from the kernel and unmapped on
// release. Taken from the heap, the 20 MiB rings that every reconfigure frees
// and takes again fragmented it: resident memory swung by 50 MiB between two
// identical configures and was not given back.
// Not under AddressSanitizer, which guards heap blocks only: there every
// block comes from the heap, so that an overrun of a large one is caught.
#if defined(__SANITIZE_ADDRESS__)
#define LX_MAP_LARGE_BLOCKS 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define LX_MAP_LARGE_BLOCKS 0
#endif
#endif
#ifndef LX_MAP_LARGE_BLOCKS
#define LX_MAP_LARGE_BLOCKS 1
#endif
constexpr std::size_t kMapBytes = LX_MAP_LARGE_BLOCKS ? std::size_t{1} << 20 : ~std::size_t{0};
} // namespace

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
    if (bytes >= kMapBytes) {
        // Page aligned, zero, and (MAP_POPULATE) already faulted in, which is
        // all that zero() below is for.
        void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
        if (p == MAP_FAILED) throw std::bad_alloc();
        mem_ = static_cast<T*>(p);
        capacity_ = count;
        return;
    }
    mem_ = static_cast<T*>(::operator new(bytes, std::align_val_t{kSampleAlignment}));
    capacity_ = count;
    // Touched now, at set-up: the first write to a fresh page is a page
    // fault, and a stream's first pass through a 245 MB sample store put the
    // filter thread a whole ring of blocks behind at 61.44 MS/s.
    zero();
}

template <typename T>
void AlignedVector<T>::release() noexcept {
    if (!mem_) return;
    const int64_t capacity = capacity_;
    LX_ASSERT(capacity > 0, "src/dsp_vector");
    const std::size_t bytes = static_cast<std::size_t>(capacity) * sizeof(T);
    if (bytes >= kMapBytes)
        munmap(static_cast<void*>(mem_), bytes);
    else
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
