// Flushing of denormal numbers to zero for the length of a scope. Filters that decay
// in silence fill with denormals, which many processors handle many times slower
// than other numbers. The caller's mode comes back at the end of the scope.
#pragma once

#include <cstdint>

#if defined(__SSE2__)
#include <xmmintrin.h>
#endif

namespace nax {

class FlushDenormals {
public:
    FlushDenormals() : caller_mode_(read_mode()) { write_mode(caller_mode_ | FLUSH_BITS); }
    ~FlushDenormals() { write_mode(caller_mode_); }
    FlushDenormals(const FlushDenormals &) = delete;
    FlushDenormals &operator=(const FlushDenormals &) = delete;

private:
#if defined(__SSE2__)
    static constexpr uint32_t FLUSH_BITS = 0x8040; // MXCSR: flush to zero, denormals are zero
    static uint32_t read_mode() { return _mm_getcsr(); }
    static void write_mode(uint32_t mode) { _mm_setcsr(mode); }
#elif defined(__arm__) && defined(__ARM_FP)
    static constexpr uint32_t FLUSH_BITS = 1u << 24; // FPSCR: FZ
    static uint32_t read_mode()
    {
        uint32_t mode;
        __asm__ volatile("vmrs %0, fpscr" : "=r"(mode));
        return mode;
    }
    static void write_mode(uint32_t mode) { __asm__ volatile("vmsr fpscr, %0" : : "r"(mode)); }
#elif defined(__aarch64__)
    static constexpr uint64_t FLUSH_BITS = 1u << 24; // FPCR: FZ
    static uint64_t read_mode()
    {
        uint64_t mode;
        __asm__ volatile("mrs %0, fpcr" : "=r"(mode));
        return mode;
    }
    static void write_mode(uint64_t mode) { __asm__ volatile("msr fpcr, %0" : : "r"(mode)); }
#else
    static constexpr uint32_t FLUSH_BITS = 0;
    static uint32_t read_mode() { return 0; }
    static void write_mode(uint32_t) {}
#endif
    decltype(read_mode()) caller_mode_;
};

} // namespace nax
