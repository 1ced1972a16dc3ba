// Silence, extremes and the caller's floating-point mode, over the real libspeexdsp.
// bench/extremes.cpp makes the table of what the same signals cost and do.
#include "nax_meter.h"
#include "nax_res.h"

#include "extremes.h"
#include "signals.h"

#include <algorithm>
#include <cfenv>

#if defined(__SSE2__)
#include <xmmintrin.h>
#endif

// An emulated processor is some 15 times slower, and the arithmetic of the rates is the
// same.
#if defined(__arm__)
static constexpr int32_t EXTREME_RATES[] = {16000};
#else
static constexpr const int32_t (&EXTREME_RATES)[4] = RATES;
#endif

// One stream with a late echo, that can be interrupted.
class Stream {
public:
    Stream(int32_t sample_rate, int32_t delay)
        : rate_(sample_rate), frame_(frame_size(sample_rate)), delay_(delay),
          state_(make_state(sample_rate, 1, 1, {.pos = 1, .model_aec_en = 1})),
          far_(sample_rate, 4), path_(delay, RESPONSE), noise_(6),
          in(static_cast<size_t>(2 * frame_)), out(in.size()), echo(in.size() / 2)
    {}

    // Calls for some seconds; returns the echo removed in the last one, in dB.
    double call(int32_t seconds)
    {
        double heard = 0.0, left = 0.0;
        const int32_t frames = seconds * 1000 / 16;
        for (int32_t t = 0; t < frames; t++) {
            for (size_t i = 0; i < in.size(); i += 2) {
                in[i + 1] = to_sample(far_.next());
                in[i] = to_sample(path_.next(in[i + 1]) + noise_.next(10.0));
            }
            process();
            for (size_t i = 0; t >= frames - 62 && i < in.size(); i += 2) {
                heard += double{1} * in[i] * in[i];
                left += double{1} * out[i] * out[i];
            }
        }
        return 10.0 * std::log10(heard / left);
    }

    // Plays a signal; returns the largest sample of the cleaned microphone in the last
    // half of it.
    int32_t play(const Extreme &extreme, double seconds)
    {
        int32_t loudest = 0;
        path_ = EchoPath(delay_, RESPONSE); // what was played before dies away meanwhile
        const int64_t frames = static_cast<int64_t>(seconds / 0.016);
        for (int64_t t = 0; t < frames; t++) {
            for (int32_t i = 0; i < frame_; i++) {
                const Instant now = extreme.at(t * frame_ + i, rate_);
                in[static_cast<size_t>(2 * i)] = now.mic;
                in[static_cast<size_t>(2 * i + 1)] = now.ref;
            }
            process();
            for (size_t i = 0; t >= frames / 2 && i < out.size(); i += 2)
                loudest = std::max(loudest, std::abs(int32_t{out[i]}));
        }
        return loudest;
    }

    void expect_found() const
    {
        EXPECT_LE(applied_, delay_ + rate_ / 4000);
        EXPECT_GE(applied_, delay_ - frame_ * 9 / 8);
    }

private:
    static inline const std::vector<double> RESPONSE = {0.4, 0.0, -0.2, 0.1};

    // What was taken out and what is left make up the microphone, whatever comes in.
    void process()
    {
        applied_ = nax_aec_short(state_.get(), in.data(), out.data(), echo.data(), 2 * frame_);
        ASSERT_TRUE(applied_ >= 0 && applied_ <= 12288);
        for (size_t i = 0; i < echo.size(); i++)
            ASSERT_EQ(echo[i], to_sample(double{1} * in[2 * i] - out[2 * i]));
    }

    int32_t rate_, frame_, delay_;
    State state_;
    Speech far_;
    EchoPath path_;
    Noise noise_;
    int32_t applied_ = 0;

public:
    Samples in, out, echo;
};

// Whatever came in, the delay and the echo removal are back after five seconds: two for
// the delay to be found again and the rest for the filter. Forty dB were measured at
// every rate; a state that stays broken removes nothing.
TEST(Extremes, TheEchoRemovalComesBackAfterEachOfThem)
{
    for (const int32_t rate : EXTREME_RATES)
        for (const Extreme &extreme : EXTREMES) {
            SCOPED_TRACE(testing::Message() << extreme.name << " at " << rate << " Hz");
            Stream stream(rate, rate / 10);
            EXPECT_EQ(standard_error_of([&] { stream.call(2); }), "");
            EXPECT_EQ(standard_error_of([&] { stream.play(extreme, 3.0); }), "");
            EXPECT_EQ(standard_error_of([&] { EXPECT_GT(stream.call(5), 25.0); }), "");
            stream.expect_found();
        }
}

// The echo that was learnt must not haunt a microphone that hears nothing: 60 dB below
// full scale three seconds after it was muted.
TEST(Extremes, AMutedMicrophoneComesOutSilent)
{
    for (const int32_t rate : EXTREME_RATES)
        for (const Extreme &extreme : EXTREMES)
            if (extreme.mic_is_silent) {
                SCOPED_TRACE(testing::Message() << extreme.name << " at " << rate << " Hz");
                Stream stream(rate, rate / 10);
                stream.call(2);
                EXPECT_LE(stream.play(extreme, 6.0), 32);
            }
}

// libspeexdsp gives up with a message, on the audio thread, on what it takes for
// impossible: an energy that clipped signals reach, more so in several channels, which
// it adds up, or an echo that grows.
TEST(Extremes, NoneOfThemInSeveralChannelsMakesTheCancellerLibrarySpeak)
{
    const auto talk = [](int64_t n, int32_t rate) {
        return Instant{talker(n + rate - LAG, rate), talker(n, rate)};
    };
    for (const int32_t rate : EXTREME_RATES)
        for (const Extreme &extreme : EXTREMES) {
            SCOPED_TRACE(testing::Message() << extreme.name << " at " << rate << " Hz");
            const State state = make_state(rate, 2, 2, {.pos = 1});
            Samples in(static_cast<size_t>(4 * frame_size(rate))), out(in.size());
            const std::string said = standard_error_of([&] {
                for (int64_t n = 0; n < 6 * rate;) {
                    const bool calm = n < 2 * rate || n >= 5 * rate;
                    for (auto sample = in.begin(); sample != in.end(); n++) {
                        const Instant now = calm ? talk(n, rate) : extreme.at(n, rate);
                        sample = std::fill_n(sample, 2, now.mic);
                        sample = std::fill_n(sample, 2, now.ref);
                    }
                    nax_aec_short(state.get(), in.data(), out.data(), nullptr,
                                  static_cast<int32_t>(in.size()));
                }
            });
            EXPECT_EQ(said, "");
        }
}

// Filters and averages decay all the while; what they leave must neither grow nor spoil
// the first words afterwards. A filter that had to learn again would remove about as
// little of their first second as a new one does; 10 dB more were measured.
TEST(Silence, AfterMinutesOfItTheEchoIsRemovedFromTheFirstWords)
{
    const Extreme silence = {"", true, [](int64_t, int32_t) { return Instant{0, 0}; }};
    for (const int32_t rate : EXTREME_RATES) {
        const double at_first = Stream(rate, rate / 10).call(1);
        Stream stream(rate, rate / 10);
        stream.call(4);
        // Minutes where they are cheap.
        EXPECT_EQ(stream.play(silence, rate <= 16000 ? 120.0 : 20.0), 0) << rate;
        EXPECT_GT(stream.call(1), at_first + 6.0) << rate;
        stream.expect_found();
    }
}

// An operation without a number for a result would stay in the filters for good. With
// these traps on it ends the process.
TEST(Extremes, NoneOfThemMakesTheArithmeticFail)
{
    constexpr int TRAPS = FE_INVALID | FE_DIVBYZERO | FE_OVERFLOW;
    if (feenableexcept(TRAPS) == -1) GTEST_SKIP() << "this processor has no traps";
    for (const int32_t rate : EXTREME_RATES)
        for (const Extreme &extreme : EXTREMES) {
            Stream stream(rate, rate / 10);
            stream.call(1);
            stream.play(extreme, 3.0);
            stream.call(1);
        }
    fedisableexcept(TRAPS);
}

// Every rounded result is inexact, and what decays in silence becomes denormal. A program that
// traps them for itself must not be ended by a call.
TEST(FloatMode, TrapsForInexactResultsAndUnderflowEndNoCall)
{
    constexpr int TRAPS = FE_INEXACT | FE_UNDERFLOW;
    if (feenableexcept(TRAPS) == -1) GTEST_SKIP() << "this processor has no traps";
    fedisableexcept(TRAPS);
    const nax_aec_param param = Words{.pos = 1, .model_aec_en = 1};
    Speech speech(16000, 1);
    Samples in(512), out(512), echo(256), suppressed(256);
    nax_aec_state *state = nullptr;
    nax_res_state *suppressor = nullptr;
    standard_error_of([&] {
        feenableexcept(TRAPS);
        state = nax_aec_state_init(16000, 16, 1, 1, &param);
        suppressor = nax_res_state_init(16000, 1, 1);
        fedisableexcept(TRAPS);
    });
    for (int call = 0; call < 400; call++) {
        for (int16_t &sample : in)
            sample = call < 100 ? to_sample(speech.next()) : int16_t{0};
        feenableexcept(TRAPS);
        nax_aec_short(state, in.data(), out.data(), echo.data(), 512);
        nax_res_short(suppressor, out.data(), echo.data(), suppressed.data());
        fedisableexcept(TRAPS);
    }
    nax_res_state_destroy(suppressor);
    nax_aec_state_destroy(state);
}

// The register that holds rounding, flushing of denormals and traps.
#if defined(__SSE2__)
static constexpr bool HAS_MODE = true;
static constexpr uint32_t FLUSH = 0x8040, FLAGS = 0x3f; // what operations leave is no mode
static uint32_t read_mode() { return _mm_getcsr(); }
static void write_mode(uint32_t mode) { _mm_setcsr(mode); }
#elif defined(__arm__) && defined(__ARM_FP)
static constexpr bool HAS_MODE = true;
static constexpr uint32_t FLUSH = 1u << 24, FLAGS = 0xf800009f;
static uint32_t read_mode()
{
    uint32_t mode;
    __asm__ volatile("vmrs %0, fpscr" : "=r"(mode));
    return mode;
}
static void write_mode(uint32_t mode) { __asm__ volatile("vmsr fpscr, %0" : : "r"(mode)); }
#else
static constexpr bool HAS_MODE = false;
static constexpr uint32_t FLUSH = 0, FLAGS = 0;
static uint32_t read_mode() { return 0; }
static void write_mode(uint32_t) {}
#endif

// Whether action leaves the mode in which it is run as it is.
template <typename Action> static bool leaves_mode(uint32_t mode, Action action)
{
    const uint32_t usual = read_mode();
    write_mode(mode);
    const uint32_t before = read_mode(); // an emulation may not take every bit
    action();
    const uint32_t after = read_mode();
    write_mode(usual);
    return (before & ~FLAGS) == (after & ~FLAGS);
}

// A whole life of a state, each call in the given mode.
static void expect_calls_to_leave(uint32_t mode, int32_t model_aec_en)
{
    const nax_aec_param param = Words{.pos = 1, .model_aec_en = model_aec_en};
    Speech speech(16000, 1);
    Samples in(512), out(512), echo(256);
    for (int16_t &sample : in)
        sample = to_sample(speech.next());

    EXPECT_TRUE(leaves_mode(mode, [&] { nax_aec_param_printf(0, 0, &param); }));
    nax_aec_state *state = nullptr;
    EXPECT_TRUE(leaves_mode(mode, [&] { state = nax_aec_state_init(16000, 16, 1, 1, &param); }));
    nax_meter_state *meter = nullptr;
    EXPECT_TRUE(leaves_mode(mode, [&] { meter = nax_meter_state_init(16000, 1, 1); }));
    nax_res_state *suppressor = nullptr;
    EXPECT_TRUE(leaves_mode(mode, [&] { suppressor = nax_res_state_init(16000, 1, 1); }));
    for (int call = 0; call < 20; call++) {
        EXPECT_TRUE(leaves_mode(
            mode, [&] { nax_aec_short(state, in.data(), out.data(), echo.data(), 512); }));
        uint8_t *audio = reinterpret_cast<uint8_t *>(in.data());
        EXPECT_TRUE(leaves_mode(
            mode, [&] { nax_aec_byte(state, &audio, out.data(), echo.data(), 1024, 2); }));
    }
    Samples suppressed(256);
    for (int call = 0; call < 20; call++)
        EXPECT_TRUE(leaves_mode(
            mode, [&] { nax_res_short(suppressor, out.data(), echo.data(), suppressed.data()); }));
    for (int call = 0; call < 20; call++)
        EXPECT_TRUE(leaves_mode(mode, [&] { nax_meter_short(meter, in.data(), out.data(), 512); }));
    EXPECT_TRUE(leaves_mode(mode, [&] { nax_meter_state_destroy(meter); }));
    EXPECT_TRUE(leaves_mode(mode, [&] { nax_res_state_destroy(suppressor); }));
    EXPECT_TRUE(leaves_mode(mode, [&] { nax_aec_state_destroy(state); }));
}

TEST(FloatMode, EveryCallLeavesTheCallersAsItWas)
{
    if (!HAS_MODE) GTEST_SKIP() << "no way to read the mode of this processor";
    for (const int rounding : {FE_TONEAREST, FE_DOWNWARD, FE_UPWARD, FE_TOWARDZERO}) {
        fesetround(rounding);
        const uint32_t mode = read_mode() & ~FLAGS;
        fesetround(FE_TONEAREST);
        for (const uint32_t flush : {0u, FLUSH})
            for (const int32_t model_aec_en : {0, 1}) {
                SCOPED_TRACE(testing::Message() << "mode " << std::hex << (mode | flush));
                standard_error_of([&] { expect_calls_to_leave(mode | flush, model_aec_en); });
            }
    }
}
