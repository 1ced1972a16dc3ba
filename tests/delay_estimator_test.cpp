// The delay estimator (src/engines/delay_estimator), through its header and, for the
// delay that comes of it, through nax_aec_short.
#include "engines/delay_estimator.h"

#include "call.h"
#include "heap_wrap.h"

#include "state/state.h"

#include <algorithm>
#include <optional>

static constexpr int32_t LINE = 12288; // the largest delay that can be applied

// Steady noise 40 dB below the speech, as every room has it.
static const Call::Mix FAR_END = {.noise = 60.0};
static const Call::Mix SILENCE = {.far = 0.0, .noise = 60.0};

static double seconds_of(int32_t samples, int32_t rate)
{
    return static_cast<double>(samples) / rate;
}

TEST(DelayEstimator, FindsAnyDelayOfTheLineWithinTwoSecondsAtEveryRate)
{
    for (const int32_t rate : RATES) {
        const int32_t frame = frame_size(rate);
        int32_t layout = 0;
        for (const int32_t delay : {0, 37, frame + 5, 1000, 2 * frame, 5555, LINE - frame}) {
            const int32_t mics = 1 + layout % 2, refs = 1 + layout / 2 % 2;
            layout++;
            SCOPED_TRACE(testing::Message() << rate << " Hz, delay " << delay << ", " << mics
                                            << " microphones, " << refs << " references");
            Call call(rate, mics, refs, delay);
            call.run(seconds_of(delay, rate) + 2.0, FAR_END);
            call.expect_found(delay);
        }
    }
}

// The filter takes out what comes within two frames of the longest delay that is served.
TEST(DelayEstimator, ServesAnEchoBeyondTheLineByTheLongestDelayThatIsReadWhole)
{
    for (const int32_t rate : {8000, 16000}) {
        const int32_t longest = LINE - frame_size(rate);
        Call call(rate, 1, 1, longest + 62);
        call.run(seconds_of(LINE, rate) + 2.0, FAR_END);
        EXPECT_EQ(call.applied(), longest) << rate;
    }
}

// Below 2 kHz a reflection stands in the place of the direct sound, which is heard above.
TEST(DelayEstimator, PlacesTheDelayByADirectSoundThatIsHeardOnlyAbove2Kilohertz)
{
    constexpr int32_t DELAY = 2190;
    std::vector<double> response = {0.4, -2.4, 6.0, -8.0, 6.0, -2.4, 0.4}; // no lows
    response.resize(64);
    response.resize(64 + 12, 0.5); // 4 ms later; no highs
    Call call(16000, 1, 1, EchoPath(DELAY, response));
    call.run(2.5, {.noise = 10.0});
    EXPECT_LE(call.applied(), DELAY);
    EXPECT_GE(call.applied(), DELAY - 256);
}

TEST(DelayEstimator, HoldsTheDelayThroughSilence)
{
    for (const int32_t rate : RATES) {
        Call call(rate, 1, 1, 3000);
        call.run(3.0, FAR_END);
        const int32_t found = call.applied();
        call.expect_found(3000);
        call.run(0.5, SILENCE); // the rest of the echo
        EXPECT_EQ(call.run(5.0, SILENCE), (std::pair{found, found})) << rate;
        const Call::Mix digital_silence = {.far = 0.0};
        EXPECT_EQ(call.run(5.0, digital_silence), (std::pair{found, found})) << rate;
    }
}

TEST(DelayEstimator, HoldsTheDelayWhileOnlyTheNearEndTalks)
{
    Call call(16000, 1, 1, 3000);
    call.run(3.0, FAR_END);
    const int32_t found = call.applied();
    const Call::Mix near_end = {.far = 0.0, .near = 1.0, .noise = 60.0};
    call.run(0.5, near_end);
    EXPECT_EQ(call.run(5.0, near_end), (std::pair{found, found}));
}

TEST(DelayEstimator, StaysAtTheBaseDelayWithoutAnEcho)
{
    for (const int32_t base : {0, 500}) {
        const std::pair expected = {base, base};
        const Call::Mix silent_room = {.echo = 0.0};
        const Call::Mix noisy_room = {.echo = 0.0, .noise = 3000.0};
        const Call::Mix near_end = {.echo = 0.0, .near = 1.0};
        for (const Call::Mix &mix : {silent_room, noisy_room, near_end})
            EXPECT_EQ(Call(16000, 1, 1, 3000, base).run(8.0, mix), expected);
    }
}

TEST(DelayEstimator, FollowsAnEchoThatMoves)
{
    for (const int32_t rate : RATES) {
        Call call(rate, 1, 1, 6000);
        call.run(3.0, FAR_END);
        call.expect_found(6000);
        for (const int32_t delay : {1500, 9000}) {
            SCOPED_TRACE(testing::Message() << rate << " Hz, moved to " << delay);
            call.move_echo(delay);
            call.run(seconds_of(delay, rate) + 4.0, FAR_END);
            call.expect_found(delay);
        }
    }
}

// The first of these moves is by less than a frame, which takes a detour.
TEST(DelayEstimator, FollowsAnEchoThatMovesByLittleAndOn)
{
    Call call(16000, 1, 1, 1000);
    call.run(3.0, FAR_END);
    call.expect_found(1000);
    for (const int32_t delay : {900, 5000, 300}) {
        SCOPED_TRACE(delay);
        call.move_echo(delay);
        call.run(seconds_of(delay, 16000) + 4.0, FAR_END);
        call.expect_found(delay);
    }
}

TEST(DelayEstimator, FindsTheDelayInDoubleTalk)
{
    Call call(16000, 1, 1, 4000);
    call.run(4.0, {.near = 0.5, .noise = 60.0});
    call.expect_found(4000);
}

TEST(DelayEstimator, AllowsForABaseDelayBelowOrAboveTheEchos)
{
    for (const int32_t rate : RATES)
        for (const int32_t base : {400, 2000, 7000, 10000, LINE}) {
            SCOPED_TRACE(testing::Message() << rate << " Hz, base " << base);
            Call call(rate, 1, 1, 7000, base);
            call.run(seconds_of(7000, rate) + 2.0, FAR_END);
            call.expect_found(7000);
        }
}

TEST(DelayEstimator, NeverHoldsTheReferenceBackByLessThanNothing)
{
    for (const int32_t base : {0, 300, 5000, LINE}) {
        Call call(16000, 1, 1, 100, base);
        EXPECT_GE(call.run(5.0, FAR_END).first, 0) << base;
    }
}

TEST(DelayEstimator, ServesAStateWithoutReferences)
{
    const State state = make_state(16000, 1, 1, {.drop_channel = 1, .model_aec_en = 1});
    Noise noise(6);
    for (int32_t frame = 0; frame < 200; frame++) {
        const Samples in = noise.frame(256, 9000.0);
        ASSERT_EQ(nax_aec_short(state.get(), in.data(), nullptr, nullptr, 512), 0);
    }
}

// Signals that no search can place, or that overflow what is not prepared for them.
TEST(DelayEstimator, StaysWithinTheLineOnExtremeSignals)
{
    const auto signals = {
        +[](int32_t) { return 32767.0; },                                   // direct current
        +[](int32_t i) { return i % 2 ? 32767.0 : -32768.0; },              // the highest tone
        +[](int32_t i) { return i % 64 < 32 ? 32767.0 : -32768.0; },        // a square
        +[](int32_t i) { return 12000.0 * std::sin(i * 0.17); },            // one tone
        +[](int32_t i) { return i % 4096 == 0 ? 32767.0 : 0.0; },           // clicks
        +[](int32_t i) { return static_cast<double>(i % 2); },              // the last bit
        +[](int32_t i) { return i < 40000 ? 0.0 : i % 3 * 16000 - 16000; }, // a sudden start
    };
    for (const auto signal : signals) {
        const State state = make_state(16000, 1, 1, {.model_aec_en = 1});
        for (int32_t frame = 0; frame < 400; frame++) {
            Samples in;
            for (int32_t i = frame * 256; i < (frame + 1) * 256; i++) {
                in.push_back(to_sample(signal(std::max(0, i - 700))));
                in.push_back(to_sample(signal(i)));
            }
            const int32_t applied = nax_aec_short(state.get(), in.data(), nullptr, nullptr, 512);
            ASSERT_GE(applied, 0);
            ASSERT_LE(applied, LINE);
        }
    }
}

// What such a base delay asks for cannot be served; a sanitiser build shows overflows.
TEST(DelayEstimator, SurvivesExtremeBaseDelays)
{
    for (const int32_t base : {INT32_MIN, INT32_MIN + 1, -1, INT32_MAX - 1, INT32_MAX}) {
        Call call(16000, 1, 1, 1000, base);
        EXPECT_LE(call.run(3.0, FAR_END).second, LINE) << base;
    }
}

// The bare engine: its area of words between guards, and frames of noise.
struct Engine {
    explicit Engine(int32_t base_delay = 0, int32_t enable = 1)
    {
        result = nax::AEC_DelayInit(enable, 16000, 128, 2, base_delay, 2, area.words);
    }
    ~Engine() { nax::AEC_DelayDestroy(area.words); }
    Engine(const Engine &) = delete;
    Engine &operator=(const Engine &) = delete;

    // One frame of noise whose echo comes a frame and a half later.
    int32_t process()
    {
        mic.resize(512);
        ref = noise.frame(512, 9000.0);
        for (size_t i = 0; i < 256; i++)
            mic[256 + i] = to_sample(path.next(ref[i]));
        if (first_hears) std::copy(mic.begin() + 256, mic.end(), mic.begin());
        return nax::AEC_DelayProcess(mic.data(), ref.data(), 256, ++frames, area.words);
    }

    // The record aligns the area for a pointer.
    struct {
        alignas(void *) int32_t words[DELAY_EST_WORDS] = {};
        int32_t guard = 0x1234567;
    } area;
    int32_t result, frames = 0;
    Noise noise{21};
    EchoPath path{384};
    bool first_hears = true; // or the second microphone alone does
    Samples mic, ref;
};

TEST(DelayEstimator, StoresTheSwitchInWordZero)
{
    EXPECT_EQ(Engine(0, 1).area.words[0], 1);
    EXPECT_EQ(Engine(0, 0).area.words[0], 0);
}

TEST(DelayEstimator, KeepsToItsWordsAndLeavesItsInputsAsTheyAre)
{
    Engine engine;
    EXPECT_EQ(engine.result, 0);
    Noise replay = engine.noise;
    EchoPath replay_path = engine.path;
    for (int32_t frame = 0; frame < 100; frame++) {
        engine.process();
        const Samples ref = replay.frame(512, 9000.0);
        ASSERT_EQ(engine.ref, ref);
        for (size_t i = 0; i < 256; i++) {
            const int16_t heard = to_sample(replay_path.next(ref[i]));
            ASSERT_EQ(engine.mic[i], heard);
            ASSERT_EQ(engine.mic[256 + i], heard);
        }
    }
    EXPECT_EQ(engine.area.guard, 0x1234567);
    EXPECT_EQ(engine.area.words[0], 1);
}

TEST(DelayEstimator, FindsAnEchoThatTheSecondMicrophoneAloneHears)
{
    Engine engine;
    engine.first_hears = false;
    engine.path = EchoPath(2000);
    int32_t found = 0;
    for (int32_t frame = 0; frame < 150; frame++)
        found = engine.process();
    EXPECT_LE(found, 2000);
    EXPECT_GT(found, 2000 - 256);
}

TEST(DelayEstimator, EstimatePlusBaseDelayStaysWithinTheLine)
{
    for (const int32_t base : {-LINE, -300, -1, 0, 200, 384, 3000, LINE, LINE + 5000})
        for (const int32_t refused_after : {-1, 0}) { // with memory, and without
            heap::refuse_after = refused_after;
            Engine engine(base);
            heap::refuse_after = -1;
            for (int32_t frame = 0; frame < 200; frame++) {
                const int32_t applied = engine.process() + base;
                ASSERT_GE(applied, 0) << base;
                ASSERT_LE(applied, LINE) << base;
            }
        }
}

TEST(DelayEstimator, GivesEachStateItsOwnEstimate)
{
    Engine alone;
    std::vector<int32_t> expected;
    for (int32_t frame = 0; frame < 100; frame++)
        expected.push_back(alone.process());
    Engine first, second;
    second.path = EchoPath(2000);
    for (int32_t frame = 0; frame < 100; frame++) {
        ASSERT_EQ(first.process(), expected[static_cast<size_t>(frame)]);
        second.process();
    }
}

TEST(DelayEstimator, AllocatesOnlyAtCreationAndReleasesEverything)
{
    heap::live.clear();
    const heap::Noting noting;
    std::optional<Engine> engine(std::in_place);
    const size_t at_creation = heap::live.size();
    for (int32_t frame = 0; frame < 100; frame++)
        engine->process();
    EXPECT_EQ(heap::live.size(), at_creation);
    engine.reset();
    EXPECT_TRUE(heap::live.empty());
}

TEST(DelayEstimator, AsksForNoDelayWithoutMemory)
{
    for (const int32_t base : {0, 500}) {
        heap::refuse_after = 0;
        Engine engine(base);
        heap::refuse_after = -1;
        EXPECT_EQ(engine.result, -1);
        for (int32_t frame = 0; frame < 100; frame++)
            ASSERT_EQ(engine.process(), 0);
    }
}
