// Run-time selection of the vector width for the hot loops.
//
// Hot loops are plain C++ that gcc vectorises. LX_DSP_CLONES builds an AVX2 copy
// next to the baseline x86-64 one and the loader picks the copy the CPU can run.
// It also lifts the vectoriser's cost model for that function: at -O2 gcc only
// vectorises loops whose trip count it knows, which none of ours is.
// Check with -fopt-info-vec-optimized that a loop you touch still vectorises in
// both copies; a float select that depends on a division is the usual culprit
// (gcc sinks the division into a branch), blend with integer masks instead.
#pragma once

// ThreadSanitizer builds get the baseline copy only: the clone resolvers run
// while the dynamic loader relocates, before the TSan runtime is up, and an
// instrumented resolver crashes the program at start.
//
// They also leave the hot loops uninstrumented. A loop only touches the
// arrays its caller hands it, and every hand-over between threads (a ring
// slot with its stamp and flags, the sample store, a frame) is also written
// and read by instrumented code under the same synchronisation, which is
// where a missing one is reported. Instrumented, the loops made the paced
// streams (the simulator's synthesis runs in the acquisition thread) ten
// times slower than the analyzers they stand for, and lose samples.
#if defined(__SANITIZE_THREAD__) && defined(__GNUC__) && !defined(__clang__)
#define LX_DSP_CLONES __attribute__((optimize("vect-cost-model=dynamic"), no_sanitize("thread")))
#define LX_SQRT_CLONES __attribute__((optimize("vect-cost-model=dynamic", "no-math-errno"), no_sanitize("thread")))
#elif defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define LX_DSP_CLONES __attribute__((target_clones("avx2", "default"), optimize("vect-cost-model=dynamic")))
#elif defined(__GNUC__) && !defined(__clang__)
#define LX_DSP_CLONES __attribute__((optimize("vect-cost-model=dynamic")))
#else
#define LX_DSP_CLONES
#endif

// The same for loops that take a square root: without errno (the values are
// never negative), so that std::sqrt vectorises.
#if defined(__SANITIZE_THREAD__) && defined(__GNUC__) && !defined(__clang__)
#elif defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define LX_SQRT_CLONES \
    __attribute__((target_clones("avx2", "default"), optimize("vect-cost-model=dynamic", "no-math-errno")))
#elif defined(__GNUC__) && !defined(__clang__)
#define LX_SQRT_CLONES __attribute__((optimize("vect-cost-model=dynamic", "no-math-errno")))
#else
#define LX_SQRT_CLONES
#endif

// The same with an AVX-512 copy as well, for the loops of the real-time
// engine's per-bin path (the row pass, the min/max), where the 32 vector
// registers keep the row's constants and temporaries out of memory and the
// wider vectors halve the passes.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && !defined(__SANITIZE_THREAD__)
#define LX_WIDE_CLONES \
    __attribute__((target_clones("arch=x86-64-v4", "avx2", "default"), optimize("vect-cost-model=dynamic")))
#define LX_WIDE_SQRT_CLONES                                                 \
    __attribute__((target_clones("arch=x86-64-v4", "avx2", "default"), \
                   optimize("vect-cost-model=dynamic", "no-math-errno")))
#else
#define LX_WIDE_CLONES LX_DSP_CLONES
#define LX_WIDE_SQRT_CLONES LX_SQRT_CLONES
#endif
