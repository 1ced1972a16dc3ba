// The floating-point mode that the libraries compute in, for the length of a scope. The
// caller's mode comes back at the end of the scope.
//
// Denormal numbers are flushed to zero: filters that decay in silence fill with them, and many
// processors handle them many times slower than other numbers. Underflow, inexact results and
// denormal operands raise no exception, because ordinary arithmetic has them all the time. The
// caller's traps for invalid operations, division by zero and overflow stay as they are.
#pragma once

#include <cstdint>

#if defined(__SSE2__)
#include <xmmintrin.h>
#endif

namespace nax {

class FloatMode {
public:
    FloatMode() : caller_mode_(read_mode()) { write_mode((caller_mode_ | SET) & ~CLEARED); }
    ~FloatMode() { write_mode(caller_mode_); }
    FloatMode(const FloatMode &) = delete;
    FloatMode &operator=(const FloatMode &) = delete;

private:
#if defined(__SSE2__)
    // MXCSR: flush to zero, denormals are zero; inexact, underflow and denormal masked
    static constexpr uint32_t SET = 0x8040 | 0x1900;
    static constexpr uint32_t CLEARED = 0;
    static uint32_t read_mode() { return _mm_getcsr(); }
    static void write_mode(uint32_t mode) { _mm_setcsr(mode); }
#elif defined(__arm__) && defined(__ARM_FP)
    static constexpr uint32_t SET = 1u << 24;                           // FPSCR: FZ
    static constexpr uint32_t CLEARED = 1u << 11 | 1u << 12 | 1u << 15; // UFE, IXE, IDE
    static uint32_t read_mode()
    {
        uint32_t mode;
        __asm__ volatile("vmrs %0, fpscr" : "=r"(mode));
        return mode;
    }
    static void write_mode(uint32_t mode) { __asm__ volatile("vmsr fpscr, %0" : : "r"(mode)); }
#elif defined(__aarch64__)
    static constexpr uint64_t SET = 1u << 24;                           // FPCR: FZ
    static constexpr uint64_t CLEARED = 1u << 11 | 1u << 12 | 1u << 15; // UFE, IXE, IDE
    static uint64_t read_mode()
    {
        uint64_t mode;
        __asm__ volatile("mrs %0, fpcr" : "=r"(mode));
        return mode;
    }
    static void write_mode(uint64_t mode) { __asm__ volatile("msr fpcr, %0" : : "r"(mode)); }
#else
    static constexpr uint32_t SET = 0, CLEARED = 0;
    static uint32_t read_mode() { return 0; }
    static void write_mode(uint32_t) {}
#endif
    decltype(read_mode()) caller_mode_;
};

} // namespace nax
