// Signals that a device meets when something is off: muted, unplugged, overdriven,
// hung. Every one is a function of the sample instant alone, microphone and reference.
#pragma once

#include <cmath>
#include <cstdint>

struct Instant {
    int16_t mic, ref;
};

struct Extreme {
    const char *name;
    bool mic_is_silent;
    Instant (*at)(int64_t n, int32_t sample_rate);
};

// Uniform in [-peak, peak], unrelated from one instant to the next.
inline double scatter(int64_t n, double peak)
{
    uint64_t x = static_cast<uint64_t>(n) * 0x9e3779b97f4a7c15u;
    x = (x ^ x >> 30) * 0xbf58476d1ce4e5b9u;
    x = (x ^ x >> 27) * 0x94d049bb133111ebu;
    return (static_cast<double>(x >> 40) / 8388607.5 - 1.0) * peak;
}

inline int16_t square(int64_t n, int64_t period)
{
    return n % period < period / 2 ? 32767 : -32768;
}

// Noise in syllables of a quarter of a second.
inline int16_t talker(int64_t n, int32_t sample_rate)
{
    const double loudness =
        std::sin(M_PI * static_cast<double>(n % (sample_rate / 4)) / (sample_rate / 4));
    return static_cast<int16_t>(scatter(n, 9000.0) * loudness);
}

inline constexpr int64_t LAG = 100; // samples by which a microphone hears the reference late

inline constexpr Extreme EXTREMES[] = {
    {"digital silence", true,
     [](int64_t, int32_t) {
         return Instant{0, 0};
     }},
    {"one bit now and then", false,
     [](int64_t n, int32_t) {
         return Instant{int16_t{n % 1001 == 0}, int16_t{n % 1009 == 0}};
     }},
    {"one bit of noise", false,
     [](int64_t n, int32_t) {
         return Instant{static_cast<int16_t>(scatter(n, 1.9)),
                        static_cast<int16_t>(scatter(~n, 1.9))};
     }},
    {"microphone muted, far end talks", true,
     [](int64_t n, int32_t rate) {
         return Instant{0, talker(n, rate)};
     }},
    {"reference muted, echo goes on", false,
     [](int64_t n, int32_t rate) {
         return Instant{talker(n, rate), 0};
     }},
    {"impulses, one a second", false,
     [](int64_t n, int32_t rate) {
         return Instant{static_cast<int16_t>(n % rate == LAG ? 32767 : 0),
                        static_cast<int16_t>(n % rate == 0 ? 32767 : 0)};
     }},
    {"constant at full scale", false,
     [](int64_t, int32_t) {
         return Instant{32767, -32768};
     }},
    {"square waves of 100 Hz at full scale", false,
     [](int64_t n, int32_t rate) {
         return Instant{square(n + rate - LAG, rate / 100), square(n, rate / 100)};
     }},
    {"noise at full scale, unrelated", false,
     [](int64_t n, int32_t) {
         return Instant{static_cast<int16_t>(scatter(n, 32767.0)),
                        static_cast<int16_t>(scatter(~n, 32767.0))};
     }},
    {"microphone clipped", false,
     [](int64_t n, int32_t rate) {
         const double heard = 20.0 * talker(n + rate - LAG, rate);
         return Instant{static_cast<int16_t>(std::fmax(-32768.0, std::fmin(32767.0, heard))),
                        talker(n, rate)};
     }},
    {"microphone alternates between the extremes", false,
     [](int64_t n, int32_t) {
         return Instant{square(n, 2), 0};
     }},
    {"reference alternates between the extremes", true,
     [](int64_t n, int32_t) {
         return Instant{0, square(n, 2)};
     }},
    {"both alternate between the extremes", false,
     [](int64_t n, int32_t) {
         return Instant{square(n, 2), square(n, 2)};
     }},
    {"bursts of random extremes", false,
     [](int64_t n, int32_t rate) {
         const bool on = n / rate % 2 == 0;
         return Instant{static_cast<int16_t>(on ? (scatter(n, 1.0) > 0 ? 32767 : -32768) : 0),
                        static_cast<int16_t>(on ? (scatter(~n, 1.0) > 0 ? 32767 : -32768) : 0)};
     }},
};
