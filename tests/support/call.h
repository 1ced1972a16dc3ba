// A call over the whole front end whose echo comes late, for the tests of the delay
// that is found.
#pragma once

#include "signals.h"

#include <algorithm>

// A call over the front end: references that speak, microphones that hear them late.
class Call {
public:
    Call(int32_t sample_rate, int32_t mics, int32_t refs, int32_t delay, int32_t delay_len = 0)
        : Call(sample_rate, mics, refs, EchoPath(delay), delay_len)
    {}

    Call(int32_t sample_rate, int32_t mics, int32_t refs, const EchoPath &path,
         int32_t delay_len = 0)
        : rate_(sample_rate), frame_(frame_size(sample_rate)), mics_(mics), refs_(refs),
          state_(make_state(sample_rate, mics, refs, {.model_aec_en = 1, .delay_len = delay_len})),
          near_(sample_rate, 99), noise_(98)
    {
        for (int32_t k = 0; k < refs; k++) {
            far_.emplace_back(sample_rate, 1 + static_cast<uint32_t>(k));
            paths_.push_back(path);
        }
    }

    void move_echo(int32_t delay)
    {
        for (EchoPath &path : paths_)
            path = EchoPath(delay);
    }

    // What sounds while the call goes on, as amplitudes; 1 is the signal's own.
    struct Mix {
        double far = 1.0;   // the references
        double echo = 1.0;  // their echo in the microphones
        double near = 0.0;  // speech in the room
        double noise = 0.0; // steady noise in the room
    };

    // Runs for a time; returns the least and the largest delay applied meanwhile.
    std::pair<int32_t, int32_t> run(double seconds, const Mix &mix)
    {
        std::pair<int32_t, int32_t> range = {INT32_MAX, INT32_MIN};
        for (double t = 0.0; t < seconds; t += 0.016) {
            const int32_t delay = frame(mix);
            range = {std::min(range.first, delay), std::max(range.second, delay)};
        }
        return range;
    }

    int32_t applied() const { return applied_; }

    // The canceller covers an echo that arrives inside its filter of two frames. An
    // applied delay above the true one puts the start of the echo before the filter;
    // a quarter of a millisecond of it is the resolution of a search at 4 kHz. One
    // that is more than a frame and an eighth below loses over half of the tail.
    void expect_found(int32_t delay) const
    {
        EXPECT_LE(applied_, delay + rate_ / 4000);
        EXPECT_GE(applied_, delay - frame_ * 9 / 8);
    }

private:
    int32_t frame(const Mix &mix)
    {
        Samples in;
        for (int32_t i = 0; i < frame_; i++) {
            double heard = mix.near * near_.next() + noise_.next(mix.noise);
            Samples refs;
            for (size_t k = 0; k < far_.size(); k++) {
                refs.push_back(to_sample(mix.far * far_[k].next()));
                heard += mix.echo * paths_[k].next(refs.back());
            }
            for (int32_t m = 0; m < mics_; m++)
                in.push_back(to_sample(heard));
            in.insert(in.end(), refs.begin(), refs.end());
        }
        applied_ =
            nax_aec_short(state_.get(), in.data(), nullptr, nullptr, frame_ * (mics_ + refs_));
        return applied_;
    }

    int32_t rate_, frame_, mics_, refs_;
    State state_;
    std::vector<Speech> far_;
    std::vector<EchoPath> paths_;
    Speech near_;
    Noise noise_;
    int32_t applied_ = 0;
};
