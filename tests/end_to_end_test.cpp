// The shared library as a whole, over the real libspeexdsp: echoes of a room, late
// by the delay of a playback path, and how much of them is left.
#include "signals.h"

struct Scene {
    int32_t sample_rate, mics, refs;
    int32_t delay_ms;  // of the echo's first arrival
    double after_s;    // the second that starts here is measured
    double minimum_db; // of echo removed from every microphone
};

// Echo removed in each microphone during one second, in dB.
static std::vector<double> echo_removed_db(const Scene &scene, int32_t model_aec_en)
{
    const int32_t frame = frame_size(scene.sample_rate);
    const int32_t channels = scene.mics + scene.refs;
    const int32_t delay = scene.sample_rate / 1000 * scene.delay_ms;
    const State state =
        make_state(scene.sample_rate, scene.mics, scene.refs, {.model_aec_en = model_aec_en});
    std::vector<Speech> speech;
    std::vector<std::vector<EchoPath>> paths(static_cast<size_t>(scene.mics)); // by mic, by ref
    Noise floor(77);
    uint32_t seed = 100;
    for (int32_t k = 0; k < scene.refs; k++)
        speech.emplace_back(scene.sample_rate, seed++);
    for (std::vector<EchoPath> &heard_by : paths)
        for (int32_t k = 0; k < scene.refs; k++)
            heard_by.emplace_back(delay, room_response(scene.sample_rate, seed++));

    std::vector<double> heard(paths.size()), left(paths.size());
    Samples in(static_cast<size_t>(frame * channels)), out(in.size());
    for (double t = 0.0; t < scene.after_s + 1.0; t += 0.016) {
        for (size_t i = 0; i < in.size(); i += static_cast<size_t>(channels)) {
            for (size_t k = 0; k < speech.size(); k++)
                in[i + paths.size() + k] = to_sample(speech[k].next());
            for (size_t m = 0; m < paths.size(); m++) {
                double sum = floor.next(10.0);
                for (size_t k = 0; k < speech.size(); k++)
                    sum += paths[m][k].next(in[i + paths.size() + k]);
                in[i + m] = to_sample(sum);
            }
        }
        nax_aec_short(state.get(), in.data(), out.data(), nullptr, frame * channels);
        for (size_t i = 0; t >= scene.after_s && i < in.size(); i += static_cast<size_t>(channels))
            for (size_t m = 0; m < paths.size(); m++) {
                heard[m] += double{1} * in[i + m] * in[i + m];
                left[m] += double{1} * out[i + m] * out[i + m];
            }
    }
    std::vector<double> removed;
    for (size_t m = 0; m < paths.size(); m++)
        removed.push_back(10.0 * std::log10(heard[m] / left[m]));
    return removed;
}

// The minima are 5 to 15 dB below what was measured when the table was made: room for
// the canceller to change, none for it to lose the echo. Two references take longer
// than one. An echo of 350 ms at 16000 Hz comes most of a frame behind the last whole
// frame; its reference is read with a silent end once per lap of the ring, and each
// costs the canceller some of what it has learnt.
static constexpr Scene SCENES[] = {
    {8000, 1, 1, 100, 2.0, 30.0},  {8000, 2, 2, 600, 4.0, 25.0},  {16000, 1, 1, 100, 2.0, 30.0},
    {16000, 2, 1, 100, 2.0, 30.0}, {16000, 1, 2, 100, 4.0, 30.0}, {16000, 2, 2, 350, 4.0, 12.0},
    {32000, 1, 1, 100, 2.0, 30.0}, {32000, 2, 2, 200, 4.0, 25.0}, {48000, 1, 1, 100, 2.0, 30.0},
    {48000, 2, 2, 150, 4.0, 30.0},
};

class EndToEnd : public testing::TestWithParam<Scene> {};

TEST_P(EndToEnd, RemovesALateEchoWithDelayEstimation)
{
    for (const double removed : echo_removed_db(GetParam(), NAX_AEC_DELAY_ESTIMATION))
        EXPECT_GE(removed, GetParam().minimum_db);
}

INSTANTIATE_TEST_SUITE_P(Scenes, EndToEnd, testing::ValuesIn(SCENES), [](const auto &test) {
    const Scene &scene = test.param;
    return std::to_string(scene.sample_rate) + "Hz" + std::to_string(scene.mics) + "Mics" +
           std::to_string(scene.refs) + "Refs" + std::to_string(scene.delay_ms) + "ms";
});

// An echo later than the filter is out of the canceller's reach: it is the alignment
// that brings it in.
TEST(EndToEnd, RemovesLittleOfALateEchoWithoutDelayEstimation)
{
    const Scene scene = {16000, 1, 1, 100, 4.0, 0.0};
    EXPECT_LT(echo_removed_db(scene, 0)[0], 3.0);
}

TEST(EndToEnd, RemovesAnEarlyEchoWithoutDelayEstimation)
{
    const Scene scene = {16000, 1, 1, 2, 4.0, 0.0};
    EXPECT_GT(echo_removed_db(scene, 0)[0], 30.0);
}

// Bytes and samples are two doors to the same room.
TEST(EndToEnd, ProcessesBytesLikeSamples)
{
    const Words words = {.pos = 1, .model_aec_en = 1};
    const State by_samples = make_state(16000, 1, 1, words);
    const State by_bytes = make_state(16000, 1, 1, words);
    Speech speech(16000, 8);
    EchoPath path(900);
    for (int32_t frame = 0; frame < 150; frame++) {
        Samples in;
        std::vector<uint8_t> bytes;
        for (int32_t i = 0; i < 256; i++) {
            const int16_t played = to_sample(speech.next());
            for (const int16_t sample : {to_sample(path.next(played)), played}) {
                in.push_back(sample);
                bytes.push_back(static_cast<uint8_t>(sample >> 8 & 0xff));
                bytes.push_back(static_cast<uint8_t>(sample & 0xff));
            }
        }
        Samples out(512), echo(256), out_of_bytes(512), echo_of_bytes(256);
        uint8_t *audio = bytes.data();
        const int32_t delay =
            nax_aec_short(by_samples.get(), in.data(), out.data(), echo.data(), 512);
        EXPECT_EQ(nax_aec_byte(by_bytes.get(), &audio, out_of_bytes.data(), echo_of_bytes.data(),
                               1024, NAX_AEC_BIG_ENDIAN),
                  delay);
        ASSERT_EQ(out_of_bytes, out);
        ASSERT_EQ(echo_of_bytes, echo);
    }
}

TEST(EndToEnd, OnlyReadsTheBytesWhichMayLieAtAnOddAddress)
{
    for (const int32_t pos : {0, 1, 2})
        for (const uint32_t order : {NAX_AEC_LITTLE_ENDIAN, NAX_AEC_BIG_ENDIAN}) {
            const Words words = {.pos = pos, .drop_channel = 1, .model_aec_en = 1};
            const State even = make_state(8000, 2, 2, words), odd = make_state(8000, 2, 2, words);
            Noise noise(3);
            for (int32_t frame = 0; frame < 10; frame++) {
                const Samples in = noise.frame(128 * 4, 9000.0);
                std::vector<uint8_t> bytes(1024), later(1025);
                memcpy(bytes.data(), in.data(), 1024);
                std::copy(bytes.begin(), bytes.end(), later.begin() + 1);
                const std::vector<uint8_t> before = bytes, later_before = later;
                Samples out(512), echo(256), out_of_odd(512), echo_of_odd(256);
                uint8_t *at_even = bytes.data(), *at_odd = later.data() + 1;
                EXPECT_EQ(nax_aec_byte(even.get(), &at_even, out.data(), echo.data(), 1024, order),
                          nax_aec_byte(odd.get(), &at_odd, out_of_odd.data(), echo_of_odd.data(),
                                       1024, order));
                ASSERT_EQ(out_of_odd, out);
                ASSERT_EQ(echo_of_odd, echo);
                ASSERT_EQ(bytes, before);
                ASSERT_EQ(later, later_before);
            }
        }
}

TEST(EndToEnd, KeepsStatesApart)
{
    const State first = make_state(8000, 1, 1, {.model_aec_en = 1});
    const State second = make_state(48000, 2, 2, {.model_aec_en = 1});
    const State alone = make_state(8000, 1, 1, {.model_aec_en = 1});
    Noise noise(31);
    for (int32_t frame = 0; frame < 100; frame++) {
        const Samples in = noise.frame(256, 9000.0);
        const Samples other = noise.frame(768 * 4, 9000.0);
        Samples out(256), out_alone(256), out_other(768 * 4);
        nax_aec_short(first.get(), in.data(), out.data(), nullptr, 256);
        nax_aec_short(second.get(), other.data(), out_other.data(), nullptr, 768 * 4);
        nax_aec_short(alone.get(), in.data(), out_alone.data(), nullptr, 256);
        ASSERT_EQ(out, out_alone);
    }
}
