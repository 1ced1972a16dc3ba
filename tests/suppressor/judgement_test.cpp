// What the network judges behind the canceller, where the truth is known.
#include "suppressor/state.h"

#include "nax_aec.h"
#include "signals.h"

#include <memory>

namespace nax::res {

struct ReleaseSuppressor {
    void operator()(nax_res_state *state) const { nax_res_state_destroy(state); }
};

// A sawtooth of a gliding pitch in syllables of a quarter of a second of random
// loudness, one in five of them silent.
class Voice {
public:
    Voice(int32_t rate, double pitch, uint32_t seed) : rate_(rate), pitch_(pitch), noise_(seed) {}

    double next()
    {
        const int32_t syllable = rate_ / 4;
        if (at_ % syllable == 0) {
            loudness_ = noise_.next(1) < -0.6 ? 0 : 0.6 + noise_.next(0.4);
            glide_ = noise_.next(0.2);
        }
        const double within = static_cast<double>(at_++ % syllable) / syllable;
        phase_ += pitch_ * (1 + glide_ * within) / rate_;
        phase_ -= std::floor(phase_);
        return 9000 * loudness_ * std::sin(std::numbers::pi * within) * (phase_ - 0.5);
    }

private:
    int32_t rate_, at_ = 0;
    double pitch_, phase_ = 0, loudness_ = 0, glide_ = 0;
    ::Noise noise_;
};

// A call in which each microphone hears so much of echo, talker and noise.
class Judgement {
public:
    struct Heard {
        double echo, near;
    };

    Judgement(int32_t rate, std::vector<Heard> heard)
        : rate_(rate), mics_(static_cast<int32_t>(heard.size())), heard_(std::move(heard)),
          aec_(make_state(rate, mics_, 1, {.pos = 1, .model_aec_en = 1})),
          res_(nax_res_state_init(rate, mics_, 1)), far_(rate, 110, 41), near_(rate, 190, 42)
    {
        for (int32_t i = 0; i < 80; i++) { // past the canceller's 32 ms as well
            const double ms = 20 + i + noise_.next(1), gain = 0.3 * std::exp(-i / 15.0);
            paths_.emplace_back(static_cast<int32_t>(ms * rate / 1000),
                                std::vector<double>{noise_.next(gain)});
        }
    }

    // Goes on for some seconds. Returns for each microphone the mean judgement over the last
    // two and the bands from 250 Hz to 3.75 kHz, weighted by their power.
    std::vector<double> run(double seconds, double far = 1)
    {
        const int32_t frame = rate_ * 16 / 1000, frames = static_cast<int32_t>(seconds / 0.016);
        const size_t count = static_cast<size_t>(frame), mics = heard_.size();
        Samples in(count * (mics + 1)), out(in.size()), echo(count * mics),
            suppressed(count * mics);
        std::vector<double> sums(mics), weights(mics);
        for (int32_t t = 0; t < frames; t++) {
            for (size_t i = 0; i < count; i++)
                instant(&in[i * (mics + 1)], far);
            nax_aec_short(aec_.get(), in.data(), out.data(), echo.data(),
                          static_cast<int32_t>(in.size()));
            nax_res_short(res_.get(), out.data(), echo.data(), suppressed.data());
            for (size_t m = 0; t > frames - 125 && m < mics; m++) {
                const Microphone &mic = res_->microphones[m];
                for (int32_t b = 2; b < 15; b++) {
                    const double feature = mic.presence.inputs[b * FEATURES]; // of the power
                    const double weight = std::exp2(10 * (feature / INPUT_ONE + 0.9));
                    sums[m] += weight * static_cast<double>(mic.presence.talker[b]);
                    weights[m] += weight;
                }
            }
        }
        for (size_t m = 0; m < mics; m++)
            sums[m] /= weights[m];
        return sums;
    }

private:
    void instant(int16_t *samples, double far)
    {
        const int16_t played = to_sample(far * far_.next());
        double echo = 0;
        for (EchoPath &path : paths_)
            echo += path.next(played);
        const double near = near_.next();
        for (const Heard &heard : heard_)
            *samples++ = to_sample(heard.echo * echo + heard.near * near + noise_.next(10));
        *samples = played;
    }

    ::Noise noise_{43};
    std::vector<EchoPath> paths_;
    int32_t rate_, mics_;
    std::vector<Heard> heard_;
    State aec_;
    std::unique_ptr<nax_res_state, ReleaseSuppressor> res_;
    Voice far_, near_;
};

struct Case {
    const char *heard;
    double echo, near, far;
    double least, most; // of the judgement
};

static void judge(int32_t rate, const Case &row)
{
    const double judged = Judgement(rate, {{row.echo, row.near}}).run(5, row.far)[0];
    EXPECT_GE(judged, row.least) << row.heard << ", " << rate;
    EXPECT_LE(judged, row.most) << row.heard << ", " << rate;
}

TEST(TheJudgement, IsNearZeroOnEchoAloneAndNearOneOnATalkerAlone)
{
    for (const Case &row : std::initializer_list<Case>{
             {"echo alone", 1, 0, 1, 0, 0.2},
             {"echo alone, from afar", 0.3, 0, 1, 0, 0.2},
             {"a talker, the far end plays into headphones", 0, 0.5, 1, 0.85, 1},
             {"a faint talker, the far end plays into headphones", 0, 0.05, 1, 0.8, 1},
             {"a talker, the far end is silent", 1, 0.5, 0, 1, 1},
             {"a talker far above the echo", 0.1, 1, 1, 0.7, 1},
         })
        judge(16000, row);
}

TEST(TheJudgement, IsTheSameAtEveryRate)
{
    for (const int32_t rate : {8000, 32000, 48000}) {
        judge(rate, {"echo alone", 1, 0, 1, 0, 0.2});
        judge(rate, {"a talker, the far end plays into headphones", 0, 0.5, 1, 0.85, 1});
    }
}

TEST(TheJudgement, IsOneForEachMicrophone)
{
    const std::vector<double> judged = Judgement(16000, {{1, 0}, {0, 0.5}}).run(5);
    EXPECT_LT(judged[0], 0.2);
    EXPECT_GT(judged[1], 0.85);
}

} // namespace nax::res
