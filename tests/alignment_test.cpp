// Alignment of the reference (src/process/alignment): what the delay lines give
// back, when a new delay is taken, and what happens at the ends of the range.
#include "scripted_engines.h"

#include "state/state.h"

#include <climits>

using scripted::record;
using scripted::script;

static constexpr int32_t LINE = 12288;

// A state with one microphone and some references, fed frame by frame, next to a
// plain record of everything that was played.
class Aligned {
public:
    Aligned(int32_t sample_rate, int32_t refs, int32_t delay_len = 0, int32_t drop = 0)
        : block_(frame_size(sample_rate)), kept_(refs - drop), refs_(refs),
          state_(make_state(sample_rate, 1, refs,
                            {.drop_channel = drop, .model_aec_en = 1, .delay_len = delay_len})),
          played_(static_cast<size_t>(kept_))
    {}

    // Plays one frame of noise; returns the applied delay.
    int32_t play()
    {
        Samples in;
        for (int32_t i = 0; i < block_; i++) {
            in.push_back(1234); // the microphone
            for (Samples &reference : played_) {
                // Never 0, so that silence tells itself apart.
                const double value = noise_.next(30000.0);
                reference.push_back(static_cast<int16_t>(value < 0 ? value - 1 : value + 1));
                in.push_back(reference.back());
            }
        }
        out_.assign(static_cast<size_t>(block_ * (1 + refs_)), 0x5a5a);
        frames_++;
        return nax_aec_short(state_.get(), in.data(), out_.data(), nullptr, block_ * (1 + refs_));
    }

    // Plays one frame while the estimator asks for estimate.
    int32_t play(int32_t estimate)
    {
        script.estimates = {estimate};
        return play();
    }

    // Reference k as the caller got it back from the last frame.
    Samples aligned(int32_t k) const
    {
        Samples samples;
        for (int32_t i = 0; i < block_; i++)
            samples.push_back(out_[static_cast<size_t>(i * (1 + refs_) + 1 + k)]);
        return samples;
    }

    // What that should be at the given delay: the samples played so long ago. The line
    // holds the last LINE samples; a sample asked for that is older or yet to come is
    // answered by the one in its place. Where the read runs past the ring the frame is
    // silent.
    Samples expected(int32_t k, int64_t delay) const
    {
        const int64_t start = (frames_ - 1) * block_;
        const int64_t newest = start + block_ - 1;
        const int64_t slot = start % LINE - delay;
        const int64_t from = slot < 0 ? slot + LINE : slot;
        Samples samples;
        for (int64_t i = 0; i < block_; i++) {
            int64_t t = start + i - delay;
            if (t > newest) t -= LINE;
            if (t <= newest - LINE) t += LINE;
            const bool silent = from + i >= LINE || t < 0;
            samples.push_back(silent ? int16_t{0}
                                     : played_[static_cast<size_t>(k)][static_cast<size_t>(t)]);
        }
        return samples;
    }

    void expect_aligned(int64_t delay) const
    {
        for (int32_t k = 0; k < kept_; k++)
            ASSERT_EQ(aligned(k), expected(k, delay))
                << "reference " << k << ", frame " << frames_ << ", delay " << delay;
    }

    int32_t delay_changed() const { return record.cancels.back().delay_changed; }
    nax_aec_state *state() const { return state_.get(); }
    int32_t block() const { return block_; }

private:
    int32_t block_, kept_, refs_;
    State state_;
    std::vector<Samples> played_;
    Samples out_;
    Noise noise_{7};
    int64_t frames_ = 0;
};

class Alignment : public ScriptedTest {};

TEST_F(Alignment, ReadsTheReferenceAsItWasPlayedTheDelayAgoAtEveryRate)
{
    for (const int32_t rate : RATES) {
        Aligned echo(rate, 2);
        const int32_t block = echo.block();
        // Whole frames and others, each held long enough for two laps of the ring.
        for (const int32_t delay : {0, 3 * block, 5 * block + 1, 12288 - block, 7000, block + 1})
            for (int32_t frame = 0; frame < 2 * LINE / block; frame++) {
                const int32_t applied = echo.play(delay);
                ASSERT_EQ(applied, delay);
                echo.expect_aligned(applied);
                record = {};
            }
    }
}

TEST_F(Alignment, FollowsADelayThatMovesAllTheTime)
{
    Aligned echo(16000, 1);
    Noise noise(3);
    for (int32_t frame = 0; frame < 500; frame++)
        echo.expect_aligned(echo.play(static_cast<int32_t>(noise.next(6500.0)) + 6500));
}

TEST_F(Alignment, LeavesDroppedReferencesOutOfTheLines)
{
    Aligned echo(8000, 3, 0, 1);
    for (int32_t frame = 0; frame < 30; frame++) {
        echo.play(1000);
        echo.expect_aligned(1000);
        EXPECT_EQ(echo.aligned(2), Samples(128, 0));
    }
}

TEST_F(Alignment, HandsTheEstimatorTheFramesAsTheyCameIn)
{
    Aligned echo(8000, 2);
    for (int32_t frame = 0; frame < 20; frame++) {
        echo.play(500);
        const scripted::DelayCall &call = record.delay_calls.back();
        Samples as_played = echo.expected(0, 0);
        const Samples second = echo.expected(1, 0);
        as_played.insert(as_played.end(), second.begin(), second.end());
        EXPECT_EQ(call.ref, as_played);
        EXPECT_EQ(call.mic, Samples(128, 1234));
        EXPECT_EQ(call.mic_frame, echo.state()->mic_frame);
        EXPECT_EQ(call.ref_frame, echo.state()->ref_frame);
        EXPECT_EQ(call.frame_length, 128);
        EXPECT_EQ(call.frame_count, frame + 1);
        EXPECT_EQ(call.state, echo.state()->delay_est);
    }
}

TEST_F(Alignment, HandsTheCancellerTheAlignedReference)
{
    Aligned echo(8000, 1);
    echo.play(0);
    echo.play(200);
    EXPECT_EQ(record.cancels.back().ref, echo.expected(0, 200));
}

TEST_F(Alignment, KeepsTheDelayWhenTheCandidateMovesByExactlyAFrame)
{
    for (const int32_t rate : RATES) {
        Aligned echo(rate, 1, 2000);
        for (const int32_t estimate : {echo.block(), -echo.block()}) {
            EXPECT_EQ(echo.play(estimate), 2000);
            EXPECT_EQ(echo.delay_changed(), 0);
            EXPECT_EQ(echo.state()->cur_delay, 2000);
        }
    }
}

TEST_F(Alignment, TakesACandidateThatMovesByAFrameAndASample)
{
    for (const int32_t rate : RATES)
        for (const int32_t sign : {1, -1}) {
            Aligned echo(rate, 1, 2000);
            const int32_t estimate = sign * (echo.block() + 1);
            EXPECT_EQ(echo.play(estimate), 2000 + estimate);
            EXPECT_EQ(echo.delay_changed(), 1);
            EXPECT_EQ(echo.play(estimate), 2000 + estimate);
            EXPECT_EQ(echo.delay_changed(), 0);
        }
}

TEST_F(Alignment, MeasuresAMoveFromTheDelayLastTaken)
{
    Aligned echo(16000, 1);
    echo.play(0);
    echo.play(0);
    EXPECT_EQ(echo.play(300), 300); // reads at 512 - 300
    EXPECT_EQ(echo.delay_changed(), 1);
    EXPECT_EQ(echo.state()->ring_pos, 768);
    EXPECT_EQ(echo.play(480), 300); // 180 further: not worth a move
    EXPECT_EQ(echo.delay_changed(), 0);
    echo.expect_aligned(300);
}

TEST_F(Alignment, ClampsTo12288WhichReadsTheFrameJustWritten)
{
    Aligned echo(16000, 1);
    for (int32_t frame = 0; frame < 100; frame++) {
        EXPECT_EQ(echo.play(20000), LINE);
        EXPECT_EQ(echo.delay_changed(), 1) << "a candidate beyond the clamp is taken every time";
        EXPECT_EQ(echo.aligned(0), echo.expected(0, 0));
    }
}

TEST_F(Alignment, ClampsAKeptDelayToo)
{
    Aligned echo(16000, 1, LINE + 100);
    EXPECT_EQ(echo.play(0), LINE);
    EXPECT_EQ(echo.delay_changed(), 0);
    EXPECT_EQ(echo.play(0), LINE);
    EXPECT_EQ(echo.delay_changed(), 0);
}

TEST_F(Alignment, ReadsASilentEndWhenTheReadPassesTheEndOfTheRing)
{
    Aligned echo(16000, 1, 100);
    for (int32_t frame = 0; frame < LINE / 256; frame++)
        echo.play(0);
    ASSERT_EQ(echo.state()->ring_pos, 0);
    EXPECT_EQ(echo.play(0), 100);
    const Samples aligned = echo.aligned(0);
    EXPECT_NE(aligned[99], 0);
    EXPECT_EQ(Samples(aligned.begin() + 100, aligned.end()), Samples(156, 0));
}

TEST_F(Alignment, AdvancesTheRingByAFrameAndWrapsIt)
{
    for (const int32_t rate : RATES) {
        Aligned echo(rate, 1);
        for (int32_t frame = 1; frame <= LINE / echo.block() + 2; frame++) {
            echo.play(0);
            ASSERT_EQ(echo.state()->ring_pos, frame * echo.block() % LINE);
        }
    }
}

TEST_F(Alignment, MovesOnEvenWithoutAKeptReference)
{
    Aligned echo(8000, 1, 0, 1);
    EXPECT_EQ(echo.play(700), 700);
    EXPECT_EQ(echo.delay_changed(), 1);
    EXPECT_EQ(echo.state()->ring_pos, 128);
    EXPECT_EQ(echo.state()->cur_delay, 700);
}

TEST_F(Alignment, IsLeftOutUnlessTheActivityWordIsOne)
{
    for (const int32_t word : {0, 2, -1}) {
        Aligned echo(8000, 1, 60);
        echo.state()->delay_est[0] = word;
        for (int32_t frame = 0; frame < 5; frame++) {
            EXPECT_EQ(echo.play(4000), 60);
            EXPECT_EQ(echo.delay_changed(), 0);
            EXPECT_EQ(echo.aligned(0), echo.expected(0, 0));
        }
        EXPECT_EQ(echo.state()->ring_pos, 0);
        EXPECT_EQ(echo.state()->cur_delay, 60);
    }
}

// The delay that was applied last stands no longer in the result.
TEST_F(Alignment, GivesTheBaseDelayOnceTheActivityWordIsClearedAfterAMove)
{
    Aligned echo(8000, 1, 60);
    EXPECT_EQ(echo.play(4000), 4060);
    EXPECT_EQ(echo.delay_changed(), 1);
    echo.state()->delay_est[0] = 0;
    EXPECT_EQ(echo.play(4000), 60);
    EXPECT_EQ(echo.delay_changed(), 0);
    EXPECT_EQ(echo.aligned(0), echo.expected(0, 0));
    EXPECT_EQ(echo.state()->cur_delay, 4060);
    EXPECT_EQ(echo.state()->ring_pos, 128);
}

TEST_F(Alignment, StaysInsideTheLineAtNegativeDelays)
{
    for (const int32_t rate : RATES) {
        Aligned echo(rate, 2);
        const int32_t block = echo.block();
        for (const int32_t delay :
             {-block - 1, -3 * block, -LINE + block, -LINE - block, -2 * LINE})
            for (int32_t frame = 0; frame < LINE / block + 1; frame++) {
                ASSERT_EQ(echo.play(delay), delay);
                echo.expect_aligned(delay);
                record = {};
            }
    }
}

TEST_F(Alignment, DoesNotOverflowAtTheExtremesOfEstimateAndBaseDelay)
{
    for (const int32_t base : {INT32_MIN, -1, 0, INT32_MAX})
        for (const int32_t estimate : {INT32_MIN, INT32_MAX, INT32_MIN, 0}) {
            Aligned echo(8000, 1, base);
            const int64_t candidate = int64_t{estimate} + base;
            const int64_t applied =
                std::min<int64_t>(std::abs(candidate - base) > 128 ? candidate : base, LINE);
            // What 32 bits can return of it.
            EXPECT_EQ(echo.play(estimate), std::max<int64_t>(applied, INT32_MIN));
            echo.expect_aligned(applied);
            echo.play(estimate);
        }
}
