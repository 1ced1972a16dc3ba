// What several tests need: formats, states without their banner, captured standard
// error, seeded noise.
#pragma once

#include "nax_aec.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

using Samples = std::vector<int16_t>;

inline constexpr int32_t RATES[] = {8000, 16000, 32000, 48000};

// Samples per channel in the 16 ms of a frame.
inline int32_t frame_size(int32_t sample_rate) { return sample_rate * 16 / 1000; }

// Every byte that action writes to standard error.
template <typename Action> std::string standard_error_of(Action action)
{
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}

struct Release {
    void operator()(nax_aec_state *state) const { nax_aec_state_destroy(state); }
};
using State = std::unique_ptr<nax_aec_state, Release>;

// The words of a parameter block that tests set, by name; the others are 0.
struct Words {
    int32_t pos = 0;
    int32_t drop_channel = 0;
    int32_t model_aec_en = 0;
    int32_t delay_len = 0;
    int32_t look_ahead = 0;
    const int16_t *array_list = nullptr;

    operator nax_aec_param() const
    {
        return {pos, drop_channel, model_aec_en, delay_len, look_ahead, array_list};
    }
};

// A new state of 16 bits; its banner is kept off the test log.
inline State make_state(int32_t sample_rate, int32_t mics, int32_t refs, const Words &words)
{
    const nax_aec_param param = words;
    nax_aec_state *state = nullptr;
    standard_error_of([&] { state = nax_aec_state_init(sample_rate, 16, mics, refs, &param); });
    return State(state);
}

// 0, 1, 2, ... modulo 2^16: every sample tells where it came from.
inline Samples counting(size_t count, int32_t first = 0)
{
    Samples samples(count);
    for (size_t i = 0; i < count; i++)
        samples[i] = static_cast<int16_t>(first + static_cast<int32_t>(i));
    return samples;
}

// White noise, uniform in [-peak, peak], the same on every platform.
class Noise {
public:
    explicit Noise(uint32_t seed) : engine_(seed) {}
    double next(double peak)
    {
        return (static_cast<double>(engine_()) / 2147483647.5 - 1.0) * peak;
    }
    Samples frame(int32_t count, double peak)
    {
        Samples samples(static_cast<size_t>(count));
        for (int16_t &sample : samples)
            sample = static_cast<int16_t>(std::lrint(next(peak)));
        return samples;
    }

private:
    std::mt19937 engine_;
};
