// The fine look at one lag (src/engines/arrival): the onset of the echo, and whether there
// is one.
#include "engines/arrival.h"

#include "signals.h"

#include <algorithm>
#include <cmath>

// A record that hears noise and its echo through a response.
class Listener {
public:
    Listener(int32_t sample_rate, int32_t delay, std::vector<double> response)
        : frame_(frame_size(sample_rate)), path_(delay, std::move(response))
    {
        EXPECT_TRUE(nax::arrival_init(arrival, sample_rate, frame_, 12288));
    }
    ~Listener() { nax::arrival_release(arrival); }
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

    void hear(int32_t frames, double far, double near)
    {
        for (int32_t n = 0; n < frames; n++) {
            const Samples ref = far_.frame(frame_, far);
            Samples mic;
            for (const int16_t played : ref)
                mic.push_back(to_sample(path_.next(played) + near_.next(near)));
            nax::arrival_listen(arrival, ref.data(), mic.data());
        }
    }

    // Looks at a lag, every other frame.
    nax::Onset look(int32_t lag, int32_t updates)
    {
        nax::arrival_aim(arrival, lag);
        for (int32_t n = 0; n < updates; n++) {
            hear(2, 9000.0, 1000.0);
            EXPECT_TRUE(nax::arrival_update(arrival));
        }
        return nax::arrival_onset(arrival);
    }

    // Frames until the echo of the first of them is heard.
    int32_t lead_in(int32_t delay) const { return delay / frame_ + 3; }

    nax::Arrival arrival = {};

private:
    int32_t frame_;
    EchoPath path_;
    Noise far_{1}, near_{2};
};

TEST(Arrival, FindsTheOnsetToASampleOfItsRateWhereverTheAimIsNear)
{
    for (const int32_t rate : RATES) {
        const int32_t ms = rate / 1000;
        for (const int32_t delay : {0, 3 * ms, 2345, 12288})
            for (const int32_t off_aim : {-5 * ms, 0, 7 * ms}) { // of the onset
                if (delay < off_aim) continue;
                SCOPED_TRACE(testing::Message() << rate << " Hz, " << delay << ", " << off_aim);
                Listener listener(rate, delay, {0.5});
                listener.hear(listener.lead_in(delay), 9000.0, 1000.0);
                const nax::Onset onset = listener.look(delay - off_aim, 6);
                EXPECT_EQ(onset.updates, 6);
                EXPECT_GT(onset.height, 7);
                EXPECT_NEAR(onset.lag, delay, std::max(1, rate / 16000));
            }
    }
}

TEST(Arrival, GivesNoHeightWhereThereIsNoEcho)
{
    for (const int32_t rate : RATES) {
        Listener listener(rate, 3000, {0.5});
        listener.hear(listener.lead_in(8000), 9000.0, 1000.0);
        for (const int32_t lag : {0, 3000 - rate / 25, 3000 + rate / 25, 8000})
            EXPECT_LT(listener.look(lag, 12).height, 5) << rate << " Hz, " << lag;
    }
}

// The direct sound behind a case, and a reflection 3 ms later.
TEST(Arrival, TakesTheFirstArrivalUnlessItIsMuchWeaker)
{
    for (const bool weak : {false, true}) {
        std::vector<double> response(49);
        response[0] = weak ? 0.2 : 0.4;
        response[48] = 0.5;
        Listener listener(16000, 2000, response);
        listener.hear(listener.lead_in(2000), 9000.0, 1000.0);
        EXPECT_NEAR(listener.look(2000, 20).lag, weak ? 2048 : 2000, 1);
    }
}

TEST(Arrival, LearnsNothingFromSilenceOnEitherSide)
{
    Listener listener(16000, 500, {0.5});
    listener.hear(10, 9000.0, 1000.0);
    const nax::Onset before = listener.look(500, 6);
    listener.hear(8, 30.0, 1000.0); // -65 dB of full scale
    EXPECT_FALSE(nax::arrival_update(listener.arrival));
    const nax::Onset after = nax::arrival_onset(listener.arrival);
    EXPECT_EQ(after.updates, before.updates);
    EXPECT_EQ(after.height, before.height);
    EXPECT_EQ(after.lag, before.lag);

    Listener muted(16000, 500, {0.0});
    muted.hear(10, 9000.0, 4.0);
    EXPECT_FALSE(nax::arrival_update(muted.arrival));
}

TEST(Arrival, CountsNoUpdatesWithoutEndAndKeepsOddAndEvenApart)
{
    Listener listener(8000, 500, {0.5});
    listener.hear(10, 9000.0, 1000.0);
    nax::arrival_aim(listener.arrival, 500);
    for (int32_t update = 1; update <= 1100; update++) {
        EXPECT_TRUE(nax::arrival_update(listener.arrival));
        ASSERT_EQ(listener.arrival.updates % 2, update % 2);
    }
    EXPECT_LE(listener.arrival.updates, 1000);
}

TEST(Arrival, ForgetsTheOldAimsEvidence)
{
    Listener listener(16000, 2000, {0.5}), fresh(16000, 2000, {0.5});
    for (Listener *one : {&listener, &fresh})
        one->hear(20, 9000.0, 1000.0);
    listener.look(2000, 10);
    fresh.hear(20, 9000.0, 1000.0);
    const nax::Onset again = listener.look(6000, 6), once = fresh.look(6000, 6);
    EXPECT_EQ(again.updates, once.updates);
    EXPECT_NEAR(again.height, once.height, 1.0); // the whitening of the microphone stays
}

TEST(Arrival, AimsNoFurtherThanTheReferenceReachesBack)
{
    Listener listener(16000, 12288, {0.5});
    listener.hear(listener.lead_in(12288), 9000.0, 1000.0);
    EXPECT_NEAR(listener.look(INT32_MAX, 6).lag, 12288, 1);
    Listener early(16000, 40, {0.5});
    early.hear(5, 9000.0, 1000.0);
    EXPECT_NEAR(early.look(-500, 6).lag, 40, 1);
    EXPECT_GE(listener.look(-500, 6).lag, 0);
}

TEST(Arrival, FindsNoOnsetBeforeTheSoundWhateverTheRate)
{
    for (const int32_t rate : RATES) {
        Listener listener(rate, 40, {0.0}); // the tallest lag is any
        listener.hear(5, 9000.0, 1000.0);
        for (int32_t n = 0; n < 20; n++)
            EXPECT_GE(listener.look(40, 1).lag, 0) << rate;
    }
}

// No bin counts for more than another, however loud it is.
TEST(Arrival, WhitensBothSignals)
{
    Listener listener(16000, 500, {0.5});
    listener.hear(10, 9000.0, 1000.0);
    for (int32_t n = 0; n < 10; n++) {
        listener.look(500, 1);
        for (const nax::FineSpectrum *spectrum : {&listener.arrival.x, &listener.arrival.y}) {
            float sum = 0;
            for (int32_t k = 0; k < listener.arrival.bins; k++) {
                const float size = std::hypot(spectrum->re[k], spectrum->im[k]);
                EXPECT_LE(size, 1);
                sum += size;
            }
            EXPECT_GT(sum, 0.3f * static_cast<float>(listener.arrival.bins));
        }
    }
}

// At 32000 Hz the ring does not hold a whole number of frames.
TEST(Arrival, SeesTheSameWhereverTheRingBegins)
{
    nax::Onset first = {};
    for (int32_t silent_frames = 0; silent_frames < 28; silent_frames++) {
        Listener listener(32000, 3000, {0.5});
        const Samples silence(512);
        for (int32_t n = 0; n < silent_frames; n++)
            nax::arrival_listen(listener.arrival, silence.data(), silence.data());
        listener.hear(listener.lead_in(3000), 9000.0, 1000.0);
        const nax::Onset onset = listener.look(3000, 3);
        if (silent_frames == 0) first = onset;
        EXPECT_EQ(onset.height, first.height) << silent_frames;
        EXPECT_EQ(onset.lag, first.lag) << silent_frames;
    }
}

// Both signals hold the same mains hum, which through windows with edges would reach
// every bin.
TEST(Arrival, TakesNoHumForAnEcho)
{
    Listener listener(16000, 0, {0.0});
    Noise far(3), near(4);
    nax::arrival_aim(listener.arrival, 1000);
    for (int32_t frame = 0; frame < 40; frame++) {
        Samples ref, mic;
        for (int32_t i = frame * 256; i < (frame + 1) * 256; i++) {
            const double hum = 20000.0 * std::sin(2.0 * std::numbers::pi * 107.0 * i / 16000.0);
            ref.push_back(to_sample(hum + far.next(30.0)));
            mic.push_back(to_sample(hum + near.next(30.0)));
        }
        nax::arrival_listen(listener.arrival, ref.data(), mic.data());
        if (frame >= 8 && frame % 2 == 0) nax::arrival_update(listener.arrival);
    }
    const nax::Onset onset = nax::arrival_onset(listener.arrival);
    EXPECT_EQ(onset.updates, 16);
    EXPECT_LT(onset.height, 5);
}
