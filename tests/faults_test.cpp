// What fails while the audio must go on: memory that the engines ask for themselves, and
// the dumps. libspeexdsp is linked statically, so that its allocations count as well.
#include "engines/speex_memory.h"

#include "heap_wrap.h"
#include "support.h"

#include "nax_aec_dump.h"

#include <speex/speex_echo.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <unistd.h>
#include <utility>

extern "C" {
// The library looks at none of its allocations: one that fails among others that do not
// is fatal in it. What the binding can do is to keep it from running short, see below.
SpeexEchoState *__real_speex_echo_state_init_mc(int frame, int filter, int mics, int speakers);
SpeexEchoState *__wrap_speex_echo_state_init_mc(int frame, int filter, int mics, int speakers)
{
    const int refuse_only = std::exchange(heap::refuse_only, -1);
    SpeexEchoState *library = __real_speex_echo_state_init_mc(frame, filter, mics, speakers);
    heap::refuse_only = refuse_only;
    return library;
}
}

namespace {

struct Layout {
    int32_t sample_rate, mics, refs;
};
constexpr Layout LAYOUTS[] = {{8000, 1, 1}, {16000, 2, 2}, {48000, 2, 3}};

// Blocks that the front end allocates for itself, with delay estimation on. The
// engines' own follow them.
int front_end_blocks(const Layout &layout)
{
    constexpr int RECORD_AND_FRAMES = 8, SPARES = 4;
    return RECORD_AND_FRAMES + 1 + layout.refs + 1 + layout.mics + SPARES;
}

constexpr int32_t BASE_DELAY = 10;

State create(const Layout &layout)
{
    return make_state(layout.sample_rate, layout.mics, layout.refs,
                      {.pos = 1, .model_aec_en = 1, .delay_len = BASE_DELAY});
}

// The microphones hear the last reference four frames late: an echo that is out of the
// canceller's reach until its delay has been found.
struct Audio {
    Audio(const Layout &layout_, const State &state_)
        : layout(layout_), state(state_), frame(frame_size(layout.sample_rate)),
          in(static_cast<size_t>(frame * (layout.mics + layout.refs))), out(in.size()),
          echo(static_cast<size_t>(frame * layout.mics))
    {}

    // Runs one frame; returns the delay.
    int32_t run()
    {
        const size_t channels = static_cast<size_t>(layout.mics + layout.refs);
        for (size_t i = 0; i < in.size(); i += channels) {
            for (size_t c = 0; c < channels; c++)
                in[i + c] = static_cast<int16_t>(std::lrint(noise.next(8000.0)));
            played.push_back(in[i + channels - 1]);
            const size_t late = 4 * static_cast<size_t>(frame);
            for (size_t m = 0; m < static_cast<size_t>(layout.mics); m++)
                in[i + m] = static_cast<int16_t>(
                    played.size() > late ? played[played.size() - 1 - late] : 0);
        }
        return nax_aec_short(state.get(), in.data(), out.data(), echo.data(),
                             static_cast<int32_t>(in.size()));
    }

    bool passed_through() const { return cleaned_is_input_times(1); }
    bool silent() const { return cleaned_is_input_times(0); }

    bool cleaned_is_input_times(int16_t factor) const
    {
        const size_t channels = static_cast<size_t>(layout.mics + layout.refs);
        for (size_t i = 0; i < in.size(); i++)
            if (i % channels < static_cast<size_t>(layout.mics) && out[i] != factor * in[i])
                return false;
        return std::ranges::all_of(echo, [](int16_t sample) { return sample == 0; });
    }

    Layout layout;
    const State &state;
    int32_t frame;
    Samples in, out, echo, played;
    Noise noise{1};
};

class Faults : public testing::Test {
protected:
    void SetUp() override
    {
        heap::live.clear();
        heap::used = 0;
        heap::refusals = 0;
    }
    void TearDown() override
    {
        heap::refuse_after = heap::refuse_only = -1;
        heap::limit = INT64_MAX;
        aec_out = echo_out = nullptr;
        EXPECT_EQ(heap::used, 0) << "bytes that were not released";
    }
};

} // namespace

TEST_F(Faults, GoesOnWhenAnyOneAllocationOfAnEngineFails)
{
    for (const Layout &layout : LAYOUTS) {
        int silent = 0, pass_through = 0, no_estimate = 0;
        for (int turn = front_end_blocks(layout);; turn++) {
            heap::refusals = 0;
            heap::refuse_only = turn;
            const State state = create(layout);
            heap::refuse_only = -1;
            if (heap::refusals == 0) break; // there are no more of them
            ASSERT_NE(state, nullptr);

            // A state with all of its memory beside it is not touched by this one's lack.
            const State whole = create(layout);
            Audio audio(layout, state), beside(layout, whole);
            int32_t delay = 0;
            for (int32_t frame = 0; frame < 60; frame++) {
                delay = audio.run();
                beside.run();
            }
            silent += audio.silent();
            pass_through += audio.passed_through();
            no_estimate += delay == BASE_DELAY;
            EXPECT_NE(audio.silent() || audio.passed_through(), delay == BASE_DELAY)
                << "one engine goes on";
            EXPECT_FALSE(beside.silent() || beside.passed_through());
        }
        // The instance; room for the library; a work area, four transforms, and the pasts,
        // partitions, scores and peaks of the estimator.
        EXPECT_EQ(silent, 1) << layout.sample_rate;
        EXPECT_EQ(pass_through, 1) << layout.sample_rate;
        EXPECT_EQ(no_estimate, 11) << layout.sample_rate;
    }
}

TEST_F(Faults, IsSilentWithoutMemoryForEitherEngine)
{
    for (const Layout &layout : LAYOUTS) {
        heap::refuse_after = front_end_blocks(layout);
        const State state = create(layout);
        heap::refuse_after = -1;
        Audio audio(layout, state);
        for (int32_t frame = 0; frame < 10; frame++) {
            EXPECT_EQ(audio.run(), BASE_DELAY);
            EXPECT_TRUE(audio.silent());
        }
    }
}

// The binding tries for so much before it creates the library, which would not notice.
TEST_F(Faults, WhatIsTriedForTheLibraryIsEnoughForItAndNotTwiceAsMuch)
{
    for (const int block : {64, 128, 192})
        for (const int partitions : {4, 8})
            for (const int mics : {1, 2})
                for (const int speakers : {1, 2, 5, 20}) {
                    const int filter = partitions * block;
                    SpeexEchoState *library =
                        speex_echo_state_init_mc(block, filter, mics, speakers);
                    const int64_t used = heap::used;
                    speex_echo_state_destroy(library);
                    const auto tried = static_cast<int64_t>(
                        nax::canceller::speex_bytes(block, filter, mics, speakers));
                    EXPECT_GE(tried, used) << block << " " << mics << " " << speakers;
                    EXPECT_LT(tried, 2 * used) << block << " " << mics << " " << speakers;
                }
}

// Whatever the memory that is left for the engines: with too little for the library the
// binding does not call it.
TEST_F(Faults, SurvivesAnyAmountOfMemoryLeftForTheEngines)
{
    for (const Layout &layout : LAYOUTS) {
        heap::refuse_after = front_end_blocks(layout);
        int64_t front_end = 0;
        {
            const State state = create(layout);
            front_end = heap::used;
        }
        heap::refuse_after = -1;
        int64_t whole = 0;
        {
            const State state = create(layout);
            whole = heap::used;
        }
        // Up to what serves all of it; the trial is for a little more than is used.
        int cancelled = 0;
        const int64_t most = whole + whole / 4, step = (most - front_end) / 200;
        for (int64_t limit = front_end; limit < most; limit += step) {
            heap::limit = limit;
            {
                const State state = create(layout);
                Audio audio(layout, state);
                for (int32_t frame = 0; frame < 8; frame++)
                    audio.run();
                cancelled += !audio.passed_through();
            }
            heap::limit = INT64_MAX;
        }
        EXPECT_GT(cancelled, 0) << layout.sample_rate;
        EXPECT_LT(cancelled, 200) << layout.sample_rate;
    }
}

// Sizes that no memory holds are refused by the allocator, in one piece or line by line,
// and what was handed out comes back.
TEST_F(Faults, CreationAndTeardownSurviveEveryExtremeOfEveryWord)
{
    heap::limit = int64_t{64} << 20;
    const int16_t table[] = {0, 1};
    constexpr int32_t EXTREMES[] = {INT32_MIN, INT32_MIN + 1, -5000,         -1,       3,
                                    4,         65536,         INT32_MAX - 1, INT32_MAX};
    for (int word = 0; word < 6; word++)
        for (const int32_t extreme : EXTREMES) {
            int32_t words[] = {0, 0, 1, 0, 0};
            for (int w = 0; w < 5; w++)
                if (w == word || word == 5) words[w] = extreme;
            const State state =
                make_state(16000, 2, 2, {words[0], words[1], words[2], words[3], words[4], table});
            EXPECT_NE(state, nullptr) << word << " " << extreme;
        }
}

// What comes out with a stream that fails is what comes out without one.
static void expect_audio_goes_on(FILE *broken)
{
    ASSERT_NE(broken, nullptr);
    const Layout layout = {16000, 2, 2};
    const State plain = create(layout), dumped = create(layout);
    Audio expected(layout, plain), got(layout, dumped);
    const int32_t bytes = static_cast<int32_t>(expected.in.size() * sizeof(int16_t));
    for (int32_t frame = 0; frame < 100; frame++) {
        expected.run();
        got.in = expected.in;
        uint8_t *audio = reinterpret_cast<uint8_t *>(got.in.data());
        aec_out = echo_out = broken;
        nax_aec_byte(dumped.get(), &audio, got.out.data(), got.echo.data(), bytes, 2);
        aec_out = echo_out = nullptr;
        ASSERT_EQ(got.out, expected.out);
        ASSERT_EQ(got.echo, expected.echo);
    }
}

TEST_F(Faults, TheAudioGoesOnWhileTheDumpsMeetAFullDisk)
{
    for (const bool buffered : {true, false}) {
        FILE *full = fopen("/dev/full", "wb");
        if (!full) GTEST_SKIP() << "there is no /dev/full here";
        if (!buffered) setvbuf(full, nullptr, _IONBF, 0);
        expect_audio_goes_on(full);
        EXPECT_NE(ferror(full), 0);
        fclose(full);
    }
}

TEST_F(Faults, TheAudioGoesOnWhileTheDumpsMeetAClosedPipe)
{
    const auto before = signal(SIGPIPE, SIG_IGN); // the application's part
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    FILE *closed = fdopen(ends[1], "wb");
    expect_audio_goes_on(closed);
    EXPECT_NE(ferror(closed), 0);
    fclose(closed);
    signal(SIGPIPE, before);
}

TEST_F(Faults, TheAudioGoesOnWhileADumpIsAFileThatIsNotBuffered)
{
    FILE *file = tmpfile();
    ASSERT_NE(file, nullptr);
    setvbuf(file, nullptr, _IONBF, 0);
    expect_audio_goes_on(file);
    EXPECT_EQ(ftell(file), 100 * 256 * (4 + 2) * 2);
    fclose(file);
}

TEST_F(Faults, TheAudioGoesOnWhileADumpIsAFileOpenedForReading)
{
    FILE *file = fopen("/dev/null", "rb");
    expect_audio_goes_on(file);
    fclose(file);
}
