// The PipeWire plugin as module-echo-cancel uses it: loaded from its file, set up by
// properties, run over planes of float samples. PLUGIN is its file. No daemon is needed.
#include "audio_thread.h"
#include "memory.h"
#include "recording.h"

#include <dlfcn.h>
#include <spa/interfaces/audio/aec.h>
#include <spa/pod/builder.h>
#include <spa/pod/parser.h>
#include <spa/support/log-impl.h>
#include <spa/support/plugin.h>
#include <spa/utils/names.h>

#include <thread>

namespace {

SPA_LOG_IMPL(console); // to standard error

using Plane = std::vector<float>;
using Properties = std::vector<spa_dict_item>;

class PipeWirePlugin : public testing::Test {
protected:
    void SetUp() override
    {
        library = dlopen(PLUGIN, RTLD_NOW | RTLD_LOCAL);
        ASSERT_TRUE(library) << dlerror();
        const auto enumerate = reinterpret_cast<spa_handle_factory_enum_func_t>(
            dlsym(library, SPA_HANDLE_FACTORY_ENUM_FUNC_NAME));
        ASSERT_TRUE(enumerate);
        const spa_handle_factory *factory;
        uint32_t index = 0;
        ASSERT_EQ(enumerate(&factory, &index), 1);
        EXPECT_STREQ(factory->name, SPA_NAME_AEC);
        memory.resize(spa_handle_factory_get_size(factory, nullptr));
        handle = reinterpret_cast<spa_handle *>(memory.data());
        console.log.level = SPA_LOG_LEVEL_ERROR;
        const spa_support support = {SPA_TYPE_INTERFACE_Log, &console.log};
        ASSERT_EQ(spa_handle_factory_init(factory, handle, nullptr, &support, 1), 0);
        void *interface;
        ASSERT_EQ(spa_handle_get_interface(handle, SPA_TYPE_INTERFACE_AUDIO_AEC, &interface), 0);
        aec = static_cast<spa_audio_aec *>(interface);
    }

    void TearDown() override
    {
        if (handle) spa_handle_clear(handle);
        if (library) dlclose(library);
    }

    int set_up(int32_t rate, size_t channels, const Properties &properties)
    {
        const spa_dict args =
            SPA_DICT_INIT(properties.data(), static_cast<uint32_t>(properties.size()));
        const spa_audio_info_raw info = stream(rate, channels);
        int status = 0;
        messages = standard_error_of([&] { status = spa_audio_aec_init(aec, &args, &info); });
        return status;
    }

    static spa_audio_info_raw stream(int32_t rate, size_t channels)
    {
        spa_audio_info_raw info = {};
        info.rate = static_cast<uint32_t>(rate);
        info.channels = static_cast<uint32_t>(channels);
        return info;
    }

    // A recording as planes of floats, and room for the cleaned microphones.
    struct Planes {
        std::vector<Plane> in, out;

        explicit Planes(const Recording &recording)
            : in(recording.channels()), out(recording.mics, Plane(recording.instants()))
        {
            for (size_t i = 0; i < recording.samples.size(); i++)
                in[i % in.size()].push_back(static_cast<float>(recording.samples[i]) / 32768.0f);
        }

        Samples samples() const
        {
            Samples all;
            for (size_t t = 0; t < out[0].size(); t++)
                for (const Plane &plane : out)
                    all.push_back(static_cast<int16_t>(plane[t] * 32768.0f));
            return all;
        }
    };

    // Runs all of it in blocks of the sizes given, again and again. Returns 0 or an error.
    int run(Planes &planes, const std::vector<size_t> &blocks)
    {
        const float *in[MAX_PLANES];
        float *out[MAX_PLANES];
        const size_t mics = planes.out.size(), instants = planes.out[0].size();
        for (size_t at = 0, block = 0; at < instants; block++) {
            const size_t size = std::min(blocks[block % blocks.size()], instants - at);
            for (size_t c = 0; c < planes.in.size(); c++)
                in[c] = &planes.in[c][at];
            for (size_t m = 0; m < mics; m++)
                out[m] = &planes.out[m][at];
            const int status =
                spa_audio_aec_run(aec, in, in + mics, out, static_cast<uint32_t>(size));
            if (status != 0) return status;
            at += size;
        }
        return 0;
    }

    // Runs a recording. Returns the cleaned microphones.
    Samples run(const Recording &recording, const std::vector<size_t> &blocks)
    {
        Planes planes(recording);
        EXPECT_EQ(run(planes, blocks), 0);
        return planes.samples();
    }

    static constexpr size_t MAX_PLANES = 8;
    void *library = nullptr;
    std::vector<char> memory;
    spa_handle *handle = nullptr;
    spa_audio_aec *aec = nullptr;
    std::string messages;
};

TEST_F(PipeWirePlugin, GivesTheBytesOfCancelWavAFrameLaterWhateverTheQuantum)
{
    const std::string folder = fresh_folder();
    for (const int32_t rate : {16000, 48000}) {
        const size_t channels = rate == 48000 ? 2 : 1;
        const Recording recording = make_recording(rate, channels, channels);
        ASSERT_EQ(set_up(rate, channels, {}), 0);
        EXPECT_TRUE(
            run(recording, {1024, 1, 480, 767, 4096}) ==
            later(cancelled(folder, recording), static_cast<size_t>(rate * 2 / 125), channels))
            << rate;
    }
    std::filesystem::remove_all(folder);
}

TEST_F(PipeWirePlugin, TakesTheSettingsOfTheTools)
{
    const std::string folder = fresh_folder();
    const Recording recording = make_recording(16000, 2, 2);
    ASSERT_EQ(
        set_up(16000, 2,
               {{"drop", "1"}, {"delay", "512"}, {"delay-estimation", "false"}, {"remap", "3,0"}}),
        0);
    EXPECT_TRUE(run(recording, {256}) ==
                later(cancelled(folder, recording,
                                "--drop 1 --delay 512 --no-delay-estimation --remap 3,0"),
                      256, 2));
    std::filesystem::remove_all(folder);
}

TEST_F(PipeWirePlugin, SuppressesWhatIsLeftAFrameLaterStill)
{
    const Recording recording = make_recording(16000, 1, 1);
    ASSERT_EQ(set_up(16000, 1, {{"suppress", "true"}}), 0);
    EXPECT_TRUE(run(recording, {480}) == later(suppressed(recording), 256, 1));
}

TEST_F(PipeWirePlugin, RefusesWhatItCannotServeAndLogsWhy)
{
    const auto refused = [&](int32_t rate, size_t channels, const Properties &properties,
                             const char *reason) {
        EXPECT_EQ(set_up(rate, channels, properties), -EINVAL) << reason;
        EXPECT_NE(messages.find(reason), std::string::npos) << messages;
    };
    refused(44100, 1, {}, "44100 Hz, not 8000");
    refused(48000, 6, {}, "6 captured and 6 played channels");
    refused(48000, 2, {{"delay", "late"}}, "delay: 'late' is not a number");
    refused(48000, 2, {{"delay", nullptr}}, "delay: '' is not a number");
    refused(48000, 2, {{"refs", "1"}}, "refs: '1' follows from the streams' channels");
    refused(48000, 2, {{"webrtc.gain_control", "true"}}, "is no setting");
    EXPECT_EQ(spa_audio_aec_run(aec, nullptr, nullptr, nullptr, 0), -EIO);
}

TEST_F(PipeWirePlugin, StartsAgainInSilenceWithNothingOfBeforeForAWholeSecond)
{
    const Recording recording = make_recording(16000, 1, 1),
                    silence = {16000, 1, 1, Samples(2 * 16000)};
    for (const char *suppress : {"no", "yes"}) {
        ASSERT_EQ(set_up(16000, 1, {{"suppress", suppress}}), 0);
        Planes planes(recording);
        planes.out[0].resize(20000); // up to where it sounds
        EXPECT_EQ(run(planes, {1000}), 0);
        EXPECT_EQ(spa_audio_aec_deactivate(aec), 0);
        EXPECT_EQ(spa_audio_aec_activate(aec), 0);
        EXPECT_TRUE(run(silence, {1000}) == Samples(16000)) << suppress;
    }
}

// ThreadSanitizer runs it (scripts/check-memory tsan).
TEST_F(PipeWirePlugin, MayBeActivatedWhileTheDataThreadRuns)
{
    Planes planes(make_recording(8000, 1, 1, 1.0));
    ASSERT_EQ(set_up(8000, 1, {}), 0);
    std::thread data([&] { EXPECT_EQ(run(planes, {100}), 0); });
    for (int time = 0; time < 10; time++)
        EXPECT_EQ(spa_audio_aec_activate(aec), 0);
    data.join();
}

TEST_F(PipeWirePlugin, TakesSamplesBeyondFullScaleAndWhatIsNoNumberAsSilence)
{
    ASSERT_EQ(set_up(8000, 1, {{"delay-estimation", "no"}}), 0);
    Plane mic(1000), ref(1000), out(1000);
    const float *mics[] = {mic.data()}, *refs[] = {ref.data()};
    float *outs[] = {out.data()};
    mic[3] = ref[5] = NAN;
    mic[4] = ref[6] = 1e-40f; // denormal
    EXPECT_EQ(spa_audio_aec_run(aec, mics, refs, outs, 1000), 0);
    EXPECT_EQ(out, Plane(1000));
    std::fill(mic.begin(), mic.end(), 3.0f);
    mic[4] = -INFINITY;
    EXPECT_EQ(spa_audio_aec_run(aec, mics, refs, outs, 1000), 0);
    for (const float sample : out)
        EXPECT_LE(std::abs(sample), 1.0f);
}

TEST_F(PipeWirePlugin, RunsWithoutASystemCallALockOrTheHeap)
{
    if (no_ban_here()) GTEST_SKIP() << no_ban_here();
    const Recording recording = make_recording(48000, 2, 2);
    Planes planes(recording);
    for (const char *suppress : {"no", "yes"}) {
        ASSERT_EQ(set_up(48000, 2, {{"suppress", suppress}}), 0);
        const std::vector<size_t> blocks = {1, 0, 480, 20000, 767};
        EXPECT_EQ(ends_with([&] { return [&] { return run(planes, blocks); }; }), 0) << suppress;
    }
}

class PipeWirePluginMemory : public PipeWirePlugin,
                             public testing::WithParamInterface<std::pair<int32_t, size_t>> {};

TEST_P(PipeWirePluginMemory, StaysAsItIsThroughALongCall)
{
    const auto &[rate, channels] = GetParam();
    Planes planes(make_recording(rate, channels, channels, 1.0));
    ASSERT_EQ(set_up(rate, channels, {{"suppress", "yes"}}), 0);
    expect_flat_memory([&](int second) {
        if (second % 60 == 0) {
            ASSERT_EQ(spa_audio_aec_activate(aec), 0);
        }
        EXPECT_EQ(run(planes, {1024, 1, 480, 767, 4096}), 0);
    });
}

INSTANTIATE_TEST_SUITE_P(Rates, PipeWirePluginMemory,
                         testing::Values(std::pair{8000, 1}, std::pair{48000, 2}),
                         [](const auto &rate) { return std::to_string(rate.param.first); });

#if SPA_VERSION_AUDIO_AEC_METHODS >= 3 // see scripts/other-debian
TEST_F(PipeWirePlugin, TakesAsManyReferencesAsArePlayedBesideOneMicrophone)
{
    const std::string folder = fresh_folder();
    const Recording recording = make_recording(16000, 1, 2);
    const spa_dict args = SPA_DICT_INIT(nullptr, 0);
    spa_audio_info_raw captured = stream(16000, 1), played = stream(16000, 2), cleaned = played;
    messages = standard_error_of([&] { // in the module's order, which the header misnames
        EXPECT_EQ(spa_audio_aec_init2(aec, &args, &captured, &cleaned, &played), 0);
    });
    EXPECT_EQ(captured.channels, 1u);
    EXPECT_EQ(cleaned.channels, 1u);
    EXPECT_EQ(played.channels, 2u);
    EXPECT_TRUE(run(recording, {1024}) == later(cancelled(folder, recording), 256, 1));
    std::filesystem::remove_all(folder);
}
#endif

TEST_F(PipeWirePlugin, TellsTheAppliedDelayAndTheMetersVerdict)
{
    ASSERT_EQ(set_up(16000, 1, {}), 0);
    run(make_recording(16000, 1, 1, 6.0), {1024});
    EXPECT_EQ(spa_audio_aec_enum_props(aec, 0, nullptr), 2);
    ASSERT_EQ(spa_audio_aec_get_params(aec, nullptr), 2);

    char room[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(room, sizeof room);
    for (int index = 0; index < 2; index++)
        EXPECT_EQ(spa_audio_aec_enum_props(aec, index, &builder), 0);
    EXPECT_EQ(spa_audio_aec_enum_props(aec, 2, &builder), -EINVAL);

    builder = SPA_POD_BUILDER_INIT(room, sizeof room);
    spa_pod_frame frame;
    spa_pod_builder_push_struct(&builder, &frame);
    spa_audio_aec_get_params(aec, &builder);
    const auto *pod = static_cast<const spa_pod *>(spa_pod_builder_pop(&builder, &frame));
    spa_pod_parser parser;
    spa_pod_parser_pod(&parser, pod);
    const char *names[2] = {}, *status = nullptr;
    int delay = 0;
    ASSERT_GE(spa_pod_parser_push_struct(&parser, &frame), 0);
    ASSERT_GE(spa_pod_parser_get_string(&parser, &names[0]), 0);
    ASSERT_GE(spa_pod_parser_get_int(&parser, &delay), 0);
    ASSERT_GE(spa_pod_parser_get_string(&parser, &names[1]), 0);
    ASSERT_GE(spa_pod_parser_get_string(&parser, &status), 0);
    EXPECT_STREQ(names[0], "nax.applied-delay");
    EXPECT_STREQ(names[1], "nax.status");
    EXPECT_GT(delay, 320); // the echo is 640 samples late and a little more
    EXPECT_LE(delay, 640);
    EXPECT_STREQ(status, "cancelling");
}

} // namespace
