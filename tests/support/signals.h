// Seeded test signals: noise with the tilt and the rhythm of speech, and echo paths.
#pragma once

#include "support.h"

#include <numbers>

// White noise through a one-pole low-pass at 800 Hz, in syllables of a quarter of a
// second of random loudness, one in five of them silent. About -20 dB of full scale.
class Speech {
public:
    Speech(int32_t sample_rate, uint32_t seed)
        : noise_(seed), syllable_(sample_rate / 4),
          pole_(std::exp(-2.0 * std::numbers::pi * 800.0 / sample_rate)),
          // Keeps the power behind the low-pass the same at every rate.
          peak_(12000.0 * std::sqrt((1.0 + pole_) / (1.0 - pole_)))
    {}

    double next()
    {
        if (at_ == 0) loudness_ = noise_.next(1.0) < -0.6 ? 0.0 : 0.6 + noise_.next(0.4);
        const double phase = std::numbers::pi * at_ / syllable_;
        at_ = (at_ + 1) % syllable_;
        low_ = pole_ * low_ + (1.0 - pole_) * noise_.next(peak_);
        return low_ * loudness_ * std::sin(phase);
    }

private:
    Noise noise_;
    int32_t syllable_;
    double pole_, peak_;
    int32_t at_ = 0;
    double low_ = 0.0, loudness_ = 0.0;
};

// A sample of 16 bits, saturated.
inline int16_t to_sample(double value)
{
    return static_cast<int16_t>(std::lrint(std::fmax(-32768.0, std::fmin(32767.0, value))));
}

// What a microphone hears of one loudspeaker: the last samples played, through an
// impulse response that starts delay samples late.
class EchoPath {
public:
    EchoPath(int32_t delay, std::vector<double> response)
        : length_(static_cast<size_t>(delay) + response.size()),
          response_(response.rbegin(), response.rend()), played_(2 * length_)
    {}

    // A plain echo of half the amplitude.
    explicit EchoPath(int32_t delay) : EchoPath(delay, {0.5}) {}

    double next(double played)
    {
        // Kept twice, a length apart, so that the past is always in one piece.
        played_[at_] = played_[at_ + length_] = played;
        at_ = (at_ + 1) % length_;
        double heard = 0.0;
        for (size_t tap = 0; tap < response_.size(); tap++)
            heard += response_[tap] * played_[at_ + tap];
        return heard;
    }

private:
    size_t length_;
    std::vector<double> response_; // latest tap first
    std::vector<double> played_;
    size_t at_ = 0;
};

// A direct sound and a tail that decays by 60 dB in 60 ms, cut after 24 ms: late
// enough to be a room, short enough for a filter of 32 ms.
inline std::vector<double> room_response(int32_t sample_rate, uint32_t seed)
{
    Noise noise(seed);
    std::vector<double> response(static_cast<size_t>(sample_rate) * 24 / 1000);
    for (size_t i = 0; i < response.size(); i++) {
        const double seconds = static_cast<double>(i) / sample_rate;
        response[i] =
            noise.next(3.0 / std::sqrt(sample_rate)) * std::pow(10.0, -3.0 * seconds / 0.060);
    }
    response[0] = 0.3;
    return response;
}
