// Little-endian loads and stores of fixed-width values at byte addresses.
//
// The instrument's records (status packets, the calibration record) are
// little-endian byte images with fields at arbitrary, often unaligned, offsets.
// memcpy keeps the access free of alignment and aliasing traps; the byte swap
// only exists on big-endian hosts.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace lx {

namespace detail {
template <typename U>
constexpr U ByteSwap(U v) {
    U r = 0;
    for (size_t i = 0; i < sizeof(U); ++i) {
        r = static_cast<U>((r << 8) | (v & 0xFF));
        v = static_cast<U>(v >> 8);
    }
    return r;
}
template <size_t N> struct UintOfSize;
template <> struct UintOfSize<1> { using type = uint8_t; };
template <> struct UintOfSize<2> { using type = uint16_t; };
template <> struct UintOfSize<4> { using type = uint32_t; };
template <> struct UintOfSize<8> { using type = uint64_t; };
} // namespace detail

// T: any integer or floating-point type of 1, 2, 4 or 8 bytes.
template <typename T>
inline T LoadLE(const uint8_t* p) {
    static_assert(std::is_arithmetic_v<T>);
    using U = typename detail::UintOfSize<sizeof(T)>::type;
    U u;
    std::memcpy(&u, p, sizeof(U));
    if constexpr (std::endian::native == std::endian::big) u = detail::ByteSwap(u);
    T v;
    std::memcpy(&v, &u, sizeof(T));
    return v;
}

template <typename T>
inline void StoreLE(uint8_t* p, T value) {
    static_assert(std::is_arithmetic_v<T>);
    using U = typename detail::UintOfSize<sizeof(T)>::type;
    U u;
    std::memcpy(&u, &value, sizeof(T));
    if constexpr (std::endian::native == std::endian::big) u = detail::ByteSwap(u);
    std::memcpy(p, &u, sizeof(U));
}

} // namespace lx
