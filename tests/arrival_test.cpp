// The fine look at one lag (src/engines/arrival): the onset of the echo, and whether there
// is one.
#include "engines/arrival.h"

#include "signals.h"

static constexpr float KEEP = 0.97f;

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
            EXPECT_TRUE(nax::arrival_update(arrival, KEEP));
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
    const auto expect_nothing_learnt = [&] {
        EXPECT_FALSE(nax::arrival_update(listener.arrival, KEEP));
        const nax::Onset after = nax::arrival_onset(listener.arrival);
        EXPECT_EQ(after.updates, before.updates);
        EXPECT_EQ(after.height, before.height);
        EXPECT_EQ(after.lag, before.lag);
    };
    listener.hear(8, 0.0, 1000.0);
    expect_nothing_learnt();
    listener.hear(8, 0.0, 0.0);
    expect_nothing_learnt();
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
    EXPECT_GE(listener.look(-500, 6).lag, 0);
}
