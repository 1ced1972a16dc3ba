// libnax_res as an application sees it: behind the canceller, and on frames made up.
#include "nax_res.h"

#include "extremes.h"

#include "signals.h"

#include <algorithm>
#include <numbers>

struct ReleaseSuppressor {
    void operator()(nax_res_state *state) const { nax_res_state_destroy(state); }
};
using Suppressor = std::unique_ptr<nax_res_state, ReleaseSuppressor>;

static Suppressor make_suppressor(int32_t rate, int32_t mics, int32_t refs)
{
    Suppressor state(nax_res_state_init(rate, mics, refs));
    EXPECT_TRUE(state);
    return state;
}

// A frame made up, not of a canceller.
struct Frame {
    Frame(int32_t rate, int32_t mics, int32_t refs)
        : aec(static_cast<size_t>(frame_size(rate) * (mics + refs))),
          echo(static_cast<size_t>(frame_size(rate) * mics)), out(echo.size())
    {}
    Samples aec, echo, out;
};

TEST(SuppressorCreation, TakesTheFormatsOfTheFrontEndAndNoOther)
{
    for (const int32_t rate : RATES)
        for (const int32_t mics : {1, 2})
            for (const int32_t refs : {1, 2, 7})
                make_suppressor(rate, mics, refs);
    for (const int32_t rate : {-8000, 0, 7999, 11025, 22050, 24000, 44100, 96000})
        EXPECT_EQ(nax_res_state_init(rate, 1, 1), nullptr) << rate;
    for (const int32_t mics : {INT32_MIN, -1, 0, 3, INT32_MAX})
        EXPECT_EQ(nax_res_state_init(16000, mics, 1), nullptr) << mics;
    for (const int32_t refs : {INT32_MIN, -1, 0, INT32_MAX})
        EXPECT_EQ(nax_res_state_init(16000, 1, refs), nullptr) << refs;
    nax_res_state_destroy(nullptr);
}

TEST(SuppressorCall, RefusesNullArgumentsAndWritesNothing)
{
    const Suppressor state = make_suppressor(16000, 1, 1);
    Frame frame(16000, 1, 1);
    frame.out.assign(frame.out.size(), 7);
    int16_t *const aec = frame.aec.data(), *const echo = frame.echo.data(),
                   *const out = frame.out.data();
    EXPECT_EQ(nax_res_short(nullptr, aec, echo, out), -1);
    EXPECT_EQ(nax_res_short(state.get(), nullptr, echo, out), -1);
    EXPECT_EQ(nax_res_short(state.get(), aec, nullptr, out), -1);
    EXPECT_EQ(nax_res_short(state.get(), aec, echo, nullptr), -1);
    EXPECT_EQ(frame.out, Samples(frame.out.size(), 7));
    EXPECT_EQ(nax_res_short(state.get(), aec, echo, out), 0);
}

// To the sample: without echo nothing may be lost.
TEST(SuppressorCall, GivesTheMicrophonesBackAFrameLateWhileTheReferencesAreSilent)
{
    for (const int32_t rate : RATES)
        for (const int32_t mics : {1, 2})
            for (const int32_t refs : {1, 3}) {
                const Suppressor state = make_suppressor(rate, mics, refs);
                Frame frame(rate, mics, refs);
                Noise noise(11);
                Samples before(frame.echo.size());
                for (int32_t t = 0; t < 40; t++) {
                    Samples cleaned(before.size());
                    for (size_t i = 0; i < cleaned.size(); i++) {
                        const size_t mic = static_cast<size_t>(mics);
                        cleaned[i] = to_sample(noise.next(32768));
                        frame.aec[i / mic * (mic + static_cast<size_t>(refs)) + i % mic] =
                            cleaned[i];
                        frame.echo[i] = to_sample(noise.next(100)); // the canceller's high-pass
                    }
                    nax_res_short(state.get(), frame.aec.data(), frame.echo.data(),
                                  frame.out.data());
                    ASSERT_EQ(frame.out, before) << rate << " Hz, frame " << t;
                    before = cleaned;
                }
            }
}

TEST(SuppressorCall, GivesTheSameWhenOutIsEchoOrAec)
{
    for (const int32_t mics : {1, 2}) {
        const Suppressor apart = make_suppressor(16000, mics, 2),
                         in_echo = make_suppressor(16000, mics, 2),
                         in_aec = make_suppressor(16000, mics, 2);
        Noise noise(12);
        for (int32_t t = 0; t < 50; t++) {
            Frame frame(16000, mics, 2);
            frame.aec = noise.frame(static_cast<int32_t>(frame.aec.size()), 3000);
            frame.echo = noise.frame(static_cast<int32_t>(frame.echo.size()), 3000);
            Frame other = frame;
            nax_res_short(apart.get(), frame.aec.data(), frame.echo.data(), frame.out.data());
            nax_res_short(in_echo.get(), other.aec.data(), other.echo.data(), other.echo.data());
            ASSERT_EQ(other.echo, frame.out);
            nax_res_short(in_aec.get(), other.aec.data(), frame.echo.data(), other.aec.data());
            ASSERT_TRUE(std::equal(frame.out.begin(), frame.out.end(), other.aec.begin()));
        }
    }
}

// A call behind the canceller: echo by a room longer than its filter, a talker, noise.
class Call {
public:
    Call(int32_t rate, int32_t mics, int32_t refs)
        : rate_(rate), mics_(mics), refs_(refs), frame_(frame_size(rate)),
          state_(make_state(rate, mics, refs, {.pos = 1, .model_aec_en = 1})),
          suppressor_(make_suppressor(rate, mics, refs)), data_(rate, mics, refs),
          out_(data_.aec.size()), near_(rate * 7 / 5, 21)
    {
        // Reflections past the canceller's 32 ms.
        for (int32_t r = 0; r < refs; r++) {
            far_.emplace_back(rate, 30 + static_cast<uint32_t>(r));
            for (const int32_t ms : {20, 25, 32, 60, 75, 90})
                paths_.push_back({r, EchoPath(ms * rate / 1000, {0.3 * std::pow(0.98, ms)})});
        }
    }

    // Hears a signal for some seconds. Returns whether a frame came out louder than the
    // three cleaned ones that its windows reach over.
    bool hear(const Extreme &extreme, double seconds)
    {
        bool louder = false;
        double late = 1e9, latest = 1e9; // energies of the cleaned frames before
        for (int32_t t = 0; t < static_cast<int32_t>(seconds / 0.016); t++) {
            for (int32_t i = 0; i < frame_; i++) {
                const Instant now = extreme.at(int64_t{t} * frame_ + i, rate_);
                int16_t *samples = &data_.aec[static_cast<size_t>(i * (mics_ + refs_))];
                std::fill_n(samples, mics_, now.mic);
                std::fill_n(samples + mics_, refs_, now.ref);
            }
            process();
            const double cleaned = energy(out_, mics_ + refs_);
            louder |= energy(data_.out, mics_) > 1.5 * (cleaned + latest + late) + frame_;
            late = latest;
            latest = cleaned;
        }
        return louder;
    }

    // Goes on for some seconds and measures the last one.
    void run(double seconds, double far, double near, bool echo = true)
    {
        const int32_t frames = static_cast<int32_t>(seconds / 0.016);
        double cleaned = 0, suppressed = 0, before = 0;
        for (int32_t t = 0; t < frames; t++) {
            for (int32_t i = 0; i < frame_; i++)
                instant(i, far, near, echo);
            process();
            if (t > frames - 62) {
                cleaned += before;
                suppressed += energy(data_.out, mics_);
            }
            before = energy(out_, mics_ + refs_); // comes out with the next
        }
        change_dB = 10 * std::log10(suppressed / cleaned);
    }
    double change_dB = 0; // of the first microphone by the suppressor

private:
    double energy(const Samples &samples, int32_t stride) const
    {
        double sum = 0;
        for (size_t i = 0; i < samples.size(); i += static_cast<size_t>(stride))
            sum += double{1} * samples[i] * samples[i];
        return sum;
    }

    void process()
    {
        nax_aec_short(state_.get(), data_.aec.data(), out_.data(), data_.echo.data(),
                      static_cast<int32_t>(out_.size()));
        nax_res_short(suppressor_.get(), out_.data(), data_.echo.data(), data_.out.data());
    }

    void instant(int32_t i, double far, double near, bool echo)
    {
        double heard = noise_.next(10) + near * near_.next();
        int16_t *samples = &data_.aec[static_cast<size_t>(i * (mics_ + refs_))];
        for (int32_t r = 0; r < refs_; r++)
            samples[mics_ + r] = to_sample(far * far_[static_cast<size_t>(r)].next());
        for (auto &[r, path] : paths_) {
            const double came = path.next(samples[mics_ + r]);
            if (echo) heard += came;
        }
        std::fill_n(samples, mics_, to_sample(heard));
    }

    int32_t rate_, mics_, refs_, frame_;
    State state_;
    Suppressor suppressor_;
    Frame data_;
    Samples out_;
    Speech near_; // of another rhythm than the far end
    Noise noise_{23};
    std::vector<Speech> far_;
    std::vector<std::pair<int32_t, EchoPath>> paths_; // of a reference
};

TEST(Suppressor, TakesTenDecibelsMoreOfTheEchoThanTheCancellerInEveryFormat)
{
    for (const auto &[rate, mics, refs] :
         {std::tuple{8000, 1, 1}, {16000, 1, 1}, {16000, 2, 2}, {32000, 1, 1}, {48000, 1, 1}}) {
        Call call(rate, mics, refs);
        call.run(1, 0, 0); // the room's noise
        call.run(3, 1, 0);
        EXPECT_LT(call.change_dB, -10) << rate << " " << mics << " " << refs;
    }
}

TEST(Suppressor, KeepsTheTalkerOverTheEcho)
{
    for (const int32_t rate : RATES) {
        Call call(rate, 1, 1);
        call.run(1, 0, 0);
        call.run(3, 1, 0);
        call.run(3, 1, 1);
        EXPECT_GT(call.change_dB, -4) << rate;
    }
}

TEST(Suppressor, LetsTheTalkerPassWhilePlayedSoundIsNotHeard)
{
    for (const int32_t rate : RATES) {
        Call call(rate, 1, 1);
        call.run(4, 1, 0.5, false);
        EXPECT_GT(call.change_dB, -2) << rate;
    }
}

// Once a lap, a burst of echo is left. The noise swings, or what is left of it would be taken for
// the microphone's own. A second reference plays nothing: it has no gap and hides none.
TEST(Suppressor, TakesTheEchoOfNoiseAlsoWhereTheDelayLinesEndInZeros)
{
    for (const int32_t rate : RATES)
        for (const int32_t refs : {1, 2}) {
            const double swing = 2 * std::numbers::pi / (0.6 * rate);
            const int32_t size = frame_size(rate), frames = 5 * rate / size;
            const State aec = make_state(rate, 1, refs, {.pos = 1, .model_aec_en = 1});
            const Suppressor res = make_suppressor(rate, 1, refs);
            EchoPath path(size * 39 / 10, {0.4, 0.2, -0.1});
            Noise noise(17);
            Frame frame(rate, 1, refs);
            Samples in(frame.aec.size());
            double heard = 0, left = 0;
            for (int32_t t = 0; t < frames; t++) {
                for (int32_t i = 0; i < size; i++) {
                    int16_t *const samples = &in[static_cast<size_t>(i * (1 + refs))];
                    const double loudness = 1 + std::sin(swing * (t * size + i));
                    samples[1] = to_sample(loudness * noise.next(6000));
                    samples[0] = to_sample(path.next(samples[1]) + noise.next(2));
                }
                nax_aec_short(aec.get(), in.data(), frame.aec.data(), frame.echo.data(),
                              (1 + refs) * size);
                nax_res_short(res.get(), frame.aec.data(), frame.echo.data(), frame.out.data());
                if (t < frames / 2) continue;
                for (int32_t i = 0; i < size; i++) {
                    const double mic = in[static_cast<size_t>(i * (1 + refs))],
                                 out = frame.out[static_cast<size_t>(i)];
                    heard += mic * mic;
                    left += out * out;
                }
            }
            EXPECT_LT(10 * std::log10(left / heard), -35) << rate << " " << refs;
        }
}

// Nothing may be left behind that mutes a talker, nor be louder than it came in.
TEST(Suppressor, IsBackToNormalWithinASecondOfEveryExtreme)
{
    for (const Extreme &extreme : EXTREMES) {
        Call call(16000, 1, 1);
        call.run(2, 1, 0.5);
        EXPECT_FALSE(call.hear(extreme, 3)) << extreme.name;
        call.run(1, 0, 1);
        call.run(1, 0, 1);
        EXPECT_NEAR(call.change_dB, 0, 0.1) << extreme.name;
    }
}

// The decay of means in silence must not leave what costs time or sounds later.
TEST(Suppressor, GivesDigitalSilenceForDigitalSilenceAndThenTheTalkerToTheSample)
{
    const Suppressor state = make_suppressor(16000, 1, 1);
    Noise noise(13);
    Frame frame(16000, 1, 1);
    for (int32_t t = 0; t < 3000; t++) {
        const bool talk = t < 100;
        for (size_t i = 0; i < frame.aec.size(); i++)
            frame.aec[i] = talk ? to_sample(noise.next(9000)) : int16_t{0};
        for (int16_t &sample : frame.echo)
            sample = talk ? to_sample(noise.next(9000)) : int16_t{0};
        nax_res_short(state.get(), frame.aec.data(), frame.echo.data(), frame.out.data());
        if (t > 101) {
            ASSERT_EQ(frame.out, Samples(frame.out.size())) << t;
        }
    }
    Samples before(256);
    for (int32_t t = 0; t < 100; t++) {
        Samples cleaned = noise.frame(256, 9000);
        for (size_t i = 0; i < cleaned.size(); i++)
            frame.aec[2 * i] = cleaned[i];
        nax_res_short(state.get(), frame.aec.data(), frame.echo.data(), frame.out.data());
        ASSERT_EQ(frame.out, before) << t;
        before = cleaned;
    }
}
