// The binding over libspeexdsp (src/engines/canceller): layouts, contract and what
// it does without the library's help. The library's calls are watched by --wrap.
#include "engines/canceller.h"

#include "heap_wrap.h"
#include "signals.h"

#include <speex/speex_echo.h>

#include <algorithm>

namespace canceller = nax::canceller;

static int created, destroyed, resets;
static bool refuse_library;
static int library_arguments[4]; // frame size, filter length, microphones, speakers
static int sampling_rate;
// In the place of the library's cancelling, when set.
static void (*stand_in)(const int16_t *mic, const int16_t *ref, int16_t *cleaned);

extern "C" {
SpeexEchoState *__real_speex_echo_state_init_mc(int frame, int filter, int mics, int speakers);
int __real_speex_echo_ctl(SpeexEchoState *library, int request, void *value);
void __real_speex_echo_state_reset(SpeexEchoState *library);
void __real_speex_echo_state_destroy(SpeexEchoState *library);
void __real_speex_echo_cancellation(SpeexEchoState *library, const int16_t *mic, const int16_t *ref,
                                    int16_t *cleaned);

SpeexEchoState *__wrap_speex_echo_state_init_mc(int frame, int filter, int mics, int speakers)
{
    if (refuse_library) return nullptr;
    created++;
    library_arguments[0] = frame;
    library_arguments[1] = filter;
    library_arguments[2] = mics;
    library_arguments[3] = speakers;
    return __real_speex_echo_state_init_mc(frame, filter, mics, speakers);
}

int __wrap_speex_echo_ctl(SpeexEchoState *library, int request, void *value)
{
    if (request == SPEEX_ECHO_SET_SAMPLING_RATE) sampling_rate = *static_cast<int *>(value);
    return __real_speex_echo_ctl(library, request, value);
}

void __wrap_speex_echo_state_reset(SpeexEchoState *library)
{
    resets++;
    __real_speex_echo_state_reset(library);
}

void __wrap_speex_echo_state_destroy(SpeexEchoState *library)
{
    destroyed++;
    __real_speex_echo_state_destroy(library);
}

void __wrap_speex_echo_cancellation(SpeexEchoState *library, const int16_t *mic, const int16_t *ref,
                                    int16_t *cleaned)
{
    if (stand_in) return stand_in(mic, ref, cleaned);
    __real_speex_echo_cancellation(library, mic, ref, cleaned);
}
}

// An instance with its frames. Guard samples behind both outputs.
struct Bound {
    Bound(int32_t sample_rate, int32_t mics_, int32_t speakers_)
        : frame(frame_size(sample_rate)), mics(mics_), speakers(speakers_),
          instance(
              canceller::speex_echo_state_init_mc(frame, 2 * frame, mics, speakers, sample_rate)),
          mic(static_cast<size_t>(frame * mics)), ref(static_cast<size_t>(frame * speakers) + 1)
    {}
    ~Bound() { canceller::speex_echo_state_destroy(instance); }
    Bound(const Bound &) = delete;
    Bound &operator=(const Bound &) = delete;

    void cancel(int32_t delay_changed = 0)
    {
        cleaned.assign(mic.size() + 1, 0x5a5a);
        echo.assign(mic.size() + 1, 0x5a5a);
        canceller::speex_fast_echo_cancellation(instance, mic.data(), ref.data(), cleaned.data(),
                                                echo.data(), delay_changed);
    }

    // The microphones in the layout of the outputs.
    Samples interleaved_mic() const
    {
        Samples samples;
        for (int32_t i = 0; i < frame; i++)
            for (int32_t m = 0; m < mics; m++)
                samples.push_back(mic[static_cast<size_t>(m * frame + i)]);
        return samples;
    }

    int32_t frame, mics, speakers;
    canceller::Instance *instance;
    Samples mic, ref, cleaned, echo;
};

class Canceller : public testing::Test {
protected:
    void SetUp() override
    {
        created = destroyed = resets = sampling_rate = 0;
        refuse_library = false;
        stand_in = nullptr;
        heap::refuse_after = -1;
    }
};

static void expect_pass_through(Bound &bound)
{
    Noise noise(5);
    bound.mic = noise.frame(bound.frame * bound.mics, 20000.0);
    bound.cancel(1);
    Samples expected = bound.interleaved_mic();
    expected.push_back(0x5a5a);
    EXPECT_EQ(bound.cleaned, expected);
    Samples silent(bound.mic.size(), 0);
    silent.push_back(0x5a5a);
    EXPECT_EQ(bound.echo, silent);
}

// Left untold the library takes 8000 Hz for the rate; below the true rate its
// high-pass eats into speech.
TEST_F(Canceller, TellsTheLibraryItsGeometryAndAtLeastItsRate)
{
    for (const int32_t rate : RATES)
        for (const auto &[mics, speakers] : {std::pair{1, 1}, {2, 1}, {1, 3}, {2, 2}}) {
            const Bound bound(rate, mics, speakers);
            EXPECT_GE(sampling_rate, rate);
            EXPECT_EQ(bound.frame % library_arguments[0], 0) << "a frame is whole blocks";
            EXPECT_EQ(library_arguments[1], 2 * bound.frame);
            EXPECT_EQ(library_arguments[2], mics);
            EXPECT_EQ(library_arguments[3], speakers);
        }
}

TEST_F(Canceller, RemovesAnEchoFromEachMicrophoneAndKeepsTheLayouts)
{
    for (const int32_t rate : RATES) {
        Bound bound(rate, 2, 2);
        Speech left(rate, 1), right(rate, 2);
        EchoPath near_path(20), far_path(90);
        double heard[2] = {}, left_over[2] = {};
        const int32_t frames = 3000 / 16; // 3 s, of which the last is measured
        for (int32_t frame = 0; frame < frames; frame++) {
            for (int32_t i = 0; i < bound.frame; i++) {
                const size_t at = static_cast<size_t>(i), block = static_cast<size_t>(bound.frame);
                bound.ref[at] = to_sample(left.next());
                bound.ref[block + at] = to_sample(right.next());
                // The first microphone hears the left loudspeaker, the second the right.
                bound.mic[at] = to_sample(near_path.next(bound.ref[at]));
                bound.mic[block + at] = to_sample(far_path.next(bound.ref[block + at]));
            }
            bound.cancel();
            const Samples mic = bound.interleaved_mic();
            for (size_t i = 0; frame >= frames * 2 / 3 && i < mic.size(); i++) {
                heard[i % 2] += double{1} * mic[i] * mic[i];
                left_over[i % 2] += double{1} * bound.cleaned[i] * bound.cleaned[i];
            }
        }
        // A layout mixed up by one channel or sample removes nothing. A delta echo
        // comes out some 25 dB or more.
        for (const int m : {0, 1})
            EXPECT_GT(10.0 * std::log10(heard[m] / left_over[m]), 15.0) << rate << " " << m;
    }
}

TEST_F(Canceller, GivesMicrophoneMinusCleanedAsTheEcho)
{
    Bound bound(16000, 2, 1);
    Noise noise(3);
    for (int32_t frame = 0; frame < 50; frame++) {
        bound.ref = noise.frame(bound.frame, 8000.0);
        bound.mic = bound.ref;
        const Samples second = noise.frame(bound.frame, 32767.0);
        bound.mic.insert(bound.mic.end(), second.begin(), second.end());
        bound.cancel();
        const Samples mic = bound.interleaved_mic();
        for (size_t i = 0; i < mic.size(); i++)
            ASSERT_EQ(bound.echo[i], to_sample(double{1} * mic[i] - bound.cleaned[i]));
    }
}

TEST_F(Canceller, WritesBothOutputsInFullAndNothingBehindThem)
{
    for (const int32_t rate : RATES)
        for (const int32_t mics : {1, 2}) {
            Bound bound(rate, mics, 1);
            bound.cancel(); // silence in: every sample written is 0
            Samples expected(bound.mic.size(), 0);
            expected.push_back(0x5a5a);
            EXPECT_EQ(bound.cleaned, expected);
            EXPECT_EQ(bound.echo, expected);
        }
}

TEST_F(Canceller, LeavesItsInputsAsTheyAre)
{
    Bound bound(16000, 2, 2);
    Noise noise(9);
    bound.mic = noise.frame(2 * bound.frame, 9000.0);
    bound.ref = noise.frame(2 * bound.frame, 9000.0);
    const Samples mic = bound.mic, ref = bound.ref;
    for (const int32_t delay_changed : {0, 1, 0}) {
        bound.cancel(delay_changed);
        EXPECT_EQ(bound.mic, mic);
        EXPECT_EQ(bound.ref, ref);
    }
}

TEST_F(Canceller, GivesTheSameOutputForTheSameInput)
{
    Samples outputs[2];
    for (Samples &output : outputs) {
        Bound bound(16000, 1, 1);
        Speech speech(16000, 4);
        for (int32_t frame = 0; frame < 60; frame++) {
            for (size_t i = 0; i < 256; i++)
                bound.mic[i] = bound.ref[i] = to_sample(speech.next());
            bound.cancel(frame == 30 ? 1 : 0);
            output.insert(output.end(), bound.cleaned.begin(), bound.cleaned.end());
        }
    }
    EXPECT_EQ(outputs[0], outputs[1]);
}

TEST_F(Canceller, StartsAnewInSilenceOnlyWhenTheReferenceWasMoved)
{
    Bound bound(16000, 1, 1);
    for (const int32_t delay_changed : {0, 1, 0, 0, 1})
        bound.cancel(delay_changed);
    EXPECT_EQ(resets, 2);
}

// The library's first steps shrink with a reference that is weaker than its echo: left
// alone it removed at most 0.7 dB in these two seconds, and at least 4.3 with the
// microphone attenuated in time.
TEST_F(Canceller, LearnsFromAWeakReferenceThatNeverMoves)
{
    for (const int32_t rate : RATES) {
        Bound bound(rate, 1, 1);
        Speech speech(rate, 7);
        EchoPath path(20);
        double heard = 0.0, left_over = 0.0;
        for (int32_t frame = 0; frame < 2 * 62; frame++) {
            for (size_t i = 0; i < static_cast<size_t>(bound.frame); i++) {
                const double far = speech.next();
                bound.ref[i] = to_sample(far / 20.0);
                bound.mic[i] = to_sample(path.next(far));
            }
            bound.cancel();
            for (size_t i = 0; i < static_cast<size_t>(bound.frame); i++) {
                heard += double{1} * bound.mic[i] * bound.mic[i];
                left_over += double{1} * bound.cleaned[i] * bound.cleaned[i];
            }
        }
        EXPECT_GT(10.0 * std::log10(heard / left_over), 3.0) << rate;
    }
}

// What comes near the energies that the library refuses is attenuated for it. In and out
// of that with every block the echo was removed by 12 dB.
TEST_F(Canceller, RemovesTheEchoOfNoiseAtFullScale)
{
    Bound bound(8000, 1, 1);
    Noise noise(11);
    EchoPath path(20);
    double heard = 0.0, left_over = 0.0;
    const int32_t frames = 8 * 62; // of which the second half is measured
    for (int32_t frame = 0; frame < frames; frame++) {
        for (size_t i = 0; i < static_cast<size_t>(bound.frame); i++) {
            bound.ref[i] = to_sample(noise.next(37000.0)); // some of it clipped
            bound.mic[i] = to_sample(path.next(bound.ref[i]));
        }
        bound.cancel();
        for (size_t i = 0; i < static_cast<size_t>(bound.frame) && frame > frames / 2; i++) {
            heard += double{1} * bound.mic[i] * bound.mic[i];
            left_over += double{1} * bound.cleaned[i] * bound.cleaned[i];
        }
    }
    EXPECT_GT(10.0 * std::log10(heard / left_over), 25.0);
}

TEST_F(Canceller, PassesTheMicrophonesThroughWithoutAReference)
{
    for (const int32_t speakers : {0, -1}) {
        Bound bound(16000, 2, 0);
        bound.instance = canceller::speex_echo_state_destroy(bound.instance);
        bound.instance = canceller::speex_echo_state_init_mc(256, 512, 2, speakers, 16000);
        expect_pass_through(bound);
    }
    EXPECT_EQ(created, 0) << "the library has no use for an instance without speakers";
}

TEST_F(Canceller, PassesTheMicrophonesThroughBeyond1024References)
{
    const Bound most(8000, 1, 1024);
    EXPECT_EQ(created, 1);
    Bound bound(8000, 1, 1025);
    EXPECT_EQ(created, 1);
    expect_pass_through(bound);
}

TEST_F(Canceller, PassesTheMicrophonesThroughWhenTheLibraryRefuses)
{
    refuse_library = true;
    Bound bound(8000, 2, 1);
    expect_pass_through(bound);
}

TEST_F(Canceller, PassesTheMicrophonesThroughWithoutMemoryForTheLibrary)
{
    heap::refuse_after = 1; // the instance itself
    Bound bound(8000, 1, 1);
    heap::refuse_after = -1;
    ASSERT_NE(bound.instance, nullptr);
    expect_pass_through(bound);
    EXPECT_EQ(created, 0);
}

// Null does not know how long a frame is.
TEST_F(Canceller, IsNullWithoutMemoryForItselfAndThenLeavesItsOutputsAlone)
{
    heap::refuse_after = 0;
    Bound bound(8000, 1, 1);
    heap::refuse_after = -1;
    ASSERT_EQ(bound.instance, nullptr);
    bound.mic.assign(bound.mic.size(), 1234);
    bound.cancel();
    EXPECT_EQ(bound.cleaned, Samples(bound.mic.size() + 1, 0x5a5a));
    EXPECT_EQ(bound.echo, bound.cleaned);
    EXPECT_EQ(canceller::speex_echo_state_destroy(nullptr), nullptr);
}

TEST_F(Canceller, ReleasesTheLibraryAndItsBlocksOnce)
{
    heap::live.clear();
    {
        const heap::Noting noting;
        canceller::Instance *instance = canceller::speex_echo_state_init_mc(128, 256, 2, 2, 8000);
        EXPECT_FALSE(heap::live.empty());
        EXPECT_EQ(canceller::speex_echo_state_destroy(instance), nullptr);
    }
    EXPECT_TRUE(heap::live.empty());
    EXPECT_EQ(created, 1);
    EXPECT_EQ(destroyed, 1);
}

// The library, letting the microphones pass, is to see both attenuated by these shifts.
static void expect_the_near_end_at_its_level(double mic_peak, double ref_peak, int32_t mic_shift,
                                             int32_t ref_shift)
{
    static int32_t loudest_mic, loudest_ref;
    stand_in = [](const int16_t *mic, const int16_t *ref, int16_t *cleaned) {
        for (int32_t i = 0; i < 2 * library_arguments[0]; i++) {
            loudest_mic = std::max(loudest_mic, std::abs(int32_t{mic[i]}));
            cleaned[i] = mic[i];
        }
        for (int32_t i = 0; i < library_arguments[0]; i++)
            loudest_ref = std::max(loudest_ref, std::abs(int32_t{ref[i]}));
    };
    Bound bound(16000, 2, 1);
    Noise noise(8);
    for (int32_t frame = 0; frame < 40; frame++) {
        bound.mic = noise.frame(2 * bound.frame, mic_peak);
        bound.ref = noise.frame(bound.frame, ref_peak);
        loudest_mic = loudest_ref = 0;
        bound.cancel();
    }
    const double mic_seen = mic_peak / (1 << mic_shift), ref_seen = ref_peak / (1 << ref_shift);
    EXPECT_NEAR(loudest_mic, mic_seen, mic_seen / 50);
    EXPECT_NEAR(loudest_ref, ref_seen, ref_seen / 50);
    const Samples mic = bound.interleaved_mic();
    for (size_t i = 0; i < mic.size(); i++)
        ASSERT_EQ(bound.cleaned[i], mic[i] >> mic_shift << mic_shift);
}

TEST_F(Canceller, GivesTheNearEndBackAtItsLevelWhateverTheAttenuation)
{
    expect_the_near_end_at_its_level(8000, 8000, 0, 0);
    expect_the_near_end_at_its_level(8000, 2500, 1, 0);
    expect_the_near_end_at_its_level(8000, 800, 2, 0);
    expect_the_near_end_at_its_level(32000, 32000, 2, 2); // hot
    expect_the_near_end_at_its_level(32000, 3000, 4, 2);  // hot, and a weak reference
}

// A library that doubles what it is given: restarted once in four frames, by the powers
// before attenuation, but not for what is louder by a trifle.
TEST_F(Canceller, StartsTheLibraryAnewWhenItMakesTheMicrophonesLouder)
{
    stand_in = [](const int16_t *mic, const int16_t *, int16_t *cleaned) {
        for (int32_t i = 0; i < library_arguments[0]; i++)
            cleaned[i] = static_cast<int16_t>(2 * mic[i]);
    };
    const struct {
        double mic_peak, ref_peak;
        int restarts;
    } cases[] = {{8000, 8000, 10}, {8000, 800, 10}, {200, 20, 10}, {30, 30, 0}};
    for (const auto &[mic_peak, ref_peak, restarts] : cases) {
        Bound bound(16000, 1, 1);
        Noise noise(8);
        for (int32_t frame = 0; frame < 60; frame++) {
            bound.mic = noise.frame(bound.frame, mic_peak);
            bound.ref = noise.frame(bound.frame, ref_peak);
            if (frame == 20) resets = -1; // the one for the move, which chooses the scale
            bound.cancel(frame == 20);
        }
        EXPECT_EQ(resets, restarts) << mic_peak << " " << ref_peak;
    }
}

// A voice of 120 Hz beside the echo of noise. Told the true rate the library's high-pass
// takes 7.7 dB of it.
TEST_F(Canceller, KeepsLowVoicesOfTheNearEndInDoubleTalkAt8000Hz)
{
    Bound bound(8000, 1, 1);
    Noise noise(12);
    EchoPath path(20);
    double in_phase = 0.0, across = 0.0;
    const int32_t frames = 4 * 62; // of which the second half is measured
    for (int32_t frame = 0; frame < frames; frame++) {
        const auto angle = [&](int32_t i) { return 2 * M_PI * 0.015 * (frame * bound.frame + i); };
        for (int32_t i = 0; i < bound.frame; i++) {
            const size_t at = static_cast<size_t>(i);
            bound.ref[at] = to_sample(noise.next(8000.0));
            bound.mic[at] = to_sample(3000.0 * std::sin(angle(i)) + path.next(bound.ref[at]));
        }
        bound.cancel();
        for (int32_t i = 0; i < bound.frame && frame >= frames / 2; i++) {
            const double sample = bound.cleaned[static_cast<size_t>(i)];
            in_phase += sample * std::sin(angle(i));
            across += sample * std::cos(angle(i));
        }
    }
    const double amplitude = 2 * std::hypot(in_phase, across) / (frames / 2 * bound.frame);
    EXPECT_GT(20 * std::log10(amplitude / 3000.0), -2.0);
}
