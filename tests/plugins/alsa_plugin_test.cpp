// The ALSA plugin as a program uses it: a device of a configuration's stanza. It captures from
// a device of the tests' own (alsa_source.c). PLUGIN and SOURCE are the two plugins' files.
#include "audio_thread.h"
#include "memory.h"
#include "recording.h"

#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>
#include <alsa/pcm_extplug.h>
#include <dlfcn.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

// The plugin as ALSA knows it: this call is ALSA's, and notes the plugin that makes it.
static snd_pcm_extplug_t *made;

extern "C" int snd_pcm_extplug_create(snd_pcm_extplug_t *ext, const char *name, snd_config_t *root,
                                      snd_config_t *slave, snd_pcm_stream_t stream, int mode)
{
    made = ext;
    return reinterpret_cast<decltype(&snd_pcm_extplug_create)>(
        dlsym(RTLD_NEXT, "snd_pcm_extplug_create"))(ext, name, root, slave, stream, mode);
}

namespace {

class AlsaPlugin : public testing::Test {
protected:
    void SetUp() override
    {
        if (SND_LIB_VERSION < 0x10205) GTEST_SKIP() << "the test's source needs ALSA 1.2.5";
        folder = fresh_folder();
    }

    void TearDown() override
    {
        snd_config_update_free_global();
        if (!folder.empty() && !HasFailure()) std::filesystem::remove_all(folder);
    }

    // Writes the configuration: "cleaned" captures the recording, "mic" captures "cleaned".
    // The settings are lines of the stanza.
    void configure(const Recording &recording, const std::string &settings,
                   const std::string &slave = "board", const std::string &source = "")
    {
        write_raw(folder + "/all.raw", recording.samples);
        const std::string path = folder + "/asound.conf", rate = std::to_string(recording.rate);
        std::ofstream(path) << "pcm_type.nax_aec.lib \"" PLUGIN "\"\n"
                            << "pcm_type.nax_test_source.lib \"" SOURCE "\"\n"
                            << "pcm.board { type nax_test_source file \"" << folder
                            << "/all.raw\" channels " << recording.channels() << " rate " << rate
                            << " " << source << " }\n"
                            << "pcm.plugged { type plug slave.pcm board }\n"
                            << "pcm.cleaned { type nax_aec slave.pcm " << slave << " mics "
                            << recording.mics << " refs " << recording.refs << " " << settings
                            << " }\n"
                            << "pcm.mic { type plug slave { pcm cleaned rate " << rate << " } }\n";
        setenv("ALSA_CONFIG_PATH", path.c_str(), 1);
        snd_config_update_free_global(); // what was read before
    }

    snd_pcm_t *open(const char *device = "cleaned", int mode = 0,
                    snd_pcm_stream_t direction = SND_PCM_STREAM_CAPTURE)
    {
        snd_pcm_t *pcm = nullptr;
        messages = standard_error_of([&] { status = snd_pcm_open(&pcm, device, direction, mode); });
        return pcm;
    }

    void set_parameters(snd_pcm_t *pcm, const Recording &recording,
                        snd_pcm_access_t access = SND_PCM_ACCESS_RW_INTERLEAVED,
                        snd_pcm_uframes_t period = 480)
    {
        snd_pcm_hw_params_t *params;
        snd_pcm_hw_params_alloca(&params);
        snd_pcm_hw_params_any(pcm, params);
        snd_pcm_hw_params_set_access(pcm, params, access);
        snd_pcm_hw_params_set_format(pcm, params, SND_PCM_FORMAT_S16);
        snd_pcm_hw_params_set_channels(pcm, params, static_cast<unsigned>(recording.mics));
        snd_pcm_hw_params_set_rate(pcm, params, static_cast<unsigned>(recording.rate), 0);
        snd_pcm_uframes_t buffer = 4 * period;
        snd_pcm_hw_params_set_period_size_near(pcm, params, &period, nullptr);
        snd_pcm_hw_params_set_buffer_size_near(pcm, params, &buffer);
        messages = standard_error_of([&] { status = snd_pcm_hw_params(pcm, params); });
        EXPECT_EQ(status, 0) << messages;
    }

    // Opens and starts a device for a recording, with the nearest period to the one given.
    snd_pcm_t *start(const Recording &recording, const char *device = "cleaned",
                     snd_pcm_access_t access = SND_PCM_ACCESS_RW_INTERLEAVED, int mode = 0,
                     snd_pcm_uframes_t period = 480)
    {
        snd_pcm_t *pcm = open(device, mode);
        EXPECT_EQ(status, 0) << messages;
        if (!pcm) return nullptr;
        set_parameters(pcm, recording, access, period);
        EXPECT_EQ(snd_pcm_start(pcm), 0);
        return pcm;
    }

    // Reads a number of sample instants. Waits for them where the device does not block.
    static Samples read(snd_pcm_t *pcm, const Recording &recording, size_t instants,
                        const std::vector<snd_pcm_uframes_t> &pieces, bool mapped = false)
    {
        Samples captured(instants * recording.mics);
        for (size_t done = 0, piece = 0; done < instants; piece++) {
            const auto wanted =
                std::min<snd_pcm_uframes_t>(pieces[piece % pieces.size()], instants - done);
            int16_t *to = &captured[done * recording.mics];
            const auto got =
                mapped ? snd_pcm_mmap_readi(pcm, to, wanted) : snd_pcm_readi(pcm, to, wanted);
            if (got == -EAGAIN && snd_pcm_wait(pcm, 10000) == 1) continue;
            EXPECT_GT(got, 0) << snd_strerror(static_cast<int>(got));
            if (got <= 0) break;
            done += static_cast<size_t>(got);
        }
        return captured;
    }

    // Reads a whole recording in pieces of the sizes given, again and again.
    Samples capture(const Recording &recording, const std::vector<snd_pcm_uframes_t> &pieces)
    {
        snd_pcm_t *pcm = start(recording);
        if (!pcm) return {};
        const Samples captured = read(pcm, recording, recording.instants(), pieces);
        snd_pcm_close(pcm);
        return captured;
    }

    std::string folder, messages;
    int status = 0;
};

TEST_F(AlsaPlugin, GivesTheBytesOfCancelWavAFrameLaterWhateverTheSizeOfTheReads)
{
    for (const int32_t rate : {16000, 48000}) {
        const size_t channels = rate == 48000 ? 2 : 1;
        const Recording recording = make_recording(rate, channels, channels);
        configure(recording, "");
        EXPECT_TRUE(
            capture(recording, {160, 1, 767, 1000, 333}) ==
            later(cancelled(folder, recording), static_cast<size_t>(rate * 2 / 125), channels))
            << rate;
    }
}

TEST_F(AlsaPlugin, GivesTheSameToEveryKindOfReaderAndWithConversionOnEitherSide)
{
    struct Way {
        const char *device, *slave;
        snd_pcm_access_t access;
        int mode;
        snd_pcm_uframes_t period;
    };
    const Way ways[] = {
        {"cleaned", "board", SND_PCM_ACCESS_MMAP_INTERLEAVED, 0, 768},
        {"cleaned", "board", SND_PCM_ACCESS_RW_INTERLEAVED, SND_PCM_NONBLOCK, 333},
        {"cleaned", "board", SND_PCM_ACCESS_MMAP_INTERLEAVED, SND_PCM_NONBLOCK, 37},
        {"mic", "board", SND_PCM_ACCESS_RW_INTERLEAVED, 0, 500},
        {"cleaned", "plugged", SND_PCM_ACCESS_RW_INTERLEAVED, 0, 500},
    };
    const Recording recording = make_recording(16000, 2, 1, 1.0);
    const Samples expected = later(cancelled(folder, recording), 256, 2);
    for (const Way &way : ways) {
        configure(recording, "", way.slave);
        snd_pcm_t *pcm = start(recording, way.device, way.access, way.mode, way.period);
        ASSERT_TRUE(pcm);
        EXPECT_TRUE(read(pcm, recording, recording.instants(), {160, 1, 767},
                         way.access == SND_PCM_ACCESS_MMAP_INTERLEAVED) == expected)
            << way.device << " over " << way.slave << ", period " << way.period;
        snd_pcm_close(pcm);
    }
}

TEST_F(AlsaPlugin, ServesTwoReadersAtOnceEachAsIfAlone)
{
    const Recording recording = make_recording(16000, 1, 1, 1.0);
    const Samples expected = later(cancelled(folder, recording), 256, 1);
    configure(recording, "");
    snd_pcm_t *pcm[] = {start(recording), start(recording)};
    Samples captured[2];
    for (size_t done = 0; done < recording.instants(); done += 1000)
        for (size_t i = 0; i < 2; i++) {
            const Samples piece =
                read(pcm[i], recording, std::min<size_t>(1000, recording.instants() - done), {333});
            captured[i].insert(captured[i].end(), piece.begin(), piece.end());
        }
    for (size_t i = 0; i < 2; i++) {
        EXPECT_TRUE(captured[i] == expected) << i;
        snd_pcm_close(pcm[i]);
    }
}

TEST_F(AlsaPlugin, TakesTheSettingsOfTheTools)
{
    const Recording recording = make_recording(16000, 2, 2);
    configure(recording, "order refs-first drop 1 delay 512 delay-estimation no remap \"3,1\"");
    EXPECT_TRUE(
        capture(recording, {320}) ==
        later(
            cancelled(folder, recording,
                      "--order refs-first --drop 1 --delay 512 --no-delay-estimation --remap 3,1"),
            256, 2));
}

TEST_F(AlsaPlugin, SuppressesWhatIsLeftAFrameLaterStill)
{
    const Recording recording = make_recording(16000, 2, 2);
    configure(recording, "suppress yes");
    EXPECT_TRUE(capture(recording, {333}) == later(suppressed(recording), 256, 2));
}

TEST_F(AlsaPlugin, RefusesAStanzaThatItCannotServeAndNamesTheSetting)
{
    const Recording recording = make_recording(16000, 1, 1, 0.0);
    const char *const faults[][2] = {{"delay 20000", "delay: '20000' is not"},
                                     {"drop 2", "drop is more than refs"},
                                     {"echoes no", "echoes: 'no' is no setting"},
                                     {"remap \"0,1\"", "remap does not name"},
                                     {"refs 2", "slave.pcm cannot capture 3 channels"}};
    for (const auto &[settings, reason] : faults) {
        configure(recording, settings);
        open();
        EXPECT_EQ(status, -EINVAL) << settings;
        EXPECT_NE(messages.find(reason), std::string::npos) << messages;
    }
}

TEST_F(AlsaPlugin, RefusesARateOfAnotherKindAndNamesThoseThatItTakes)
{
    const Recording recording = make_recording(44100, 1, 1, 0.0);
    configure(recording, "");
    snd_pcm_t *pcm = open();
    ASSERT_EQ(status, 0) << messages;
    messages = standard_error_of([&] {
        status = snd_pcm_set_params(pcm, SND_PCM_FORMAT_S16, SND_PCM_ACCESS_RW_INTERLEAVED, 1,
                                    44100, 0, 20000);
    });
    EXPECT_EQ(status, -EINVAL);
    EXPECT_NE(messages.find("44100 Hz, only at 8000, 16000, 32000 or 48000"), std::string::npos);
    snd_pcm_close(pcm);
}

TEST_F(AlsaPlugin, RefusesToPlayAndSaysSo)
{
    configure(make_recording(16000, 1, 1, 0.0), "");
    open("cleaned", 0, SND_PCM_STREAM_PLAYBACK);
    EXPECT_EQ(status, -EINVAL);
    EXPECT_NE(messages.find("captures only"), std::string::npos) << messages;
}

TEST_F(AlsaPlugin, DoesNotPassOnTheMapOfTheSlavesChannels)
{
    const Recording recording = make_recording(16000, 1, 1, 0.1);
    configure(recording, "");
    for (const auto &[device, mapped] : {std::pair{"board", true}, {"cleaned", false}}) {
        snd_pcm_t *pcm = start({16000, mapped ? 2u : 1u, 1, {}}, device);
        snd_pcm_chmap_t *map = snd_pcm_get_chmap(pcm);
        EXPECT_EQ(map != nullptr, mapped);
        free(map);
        snd_pcm_close(pcm);
    }
}

TEST_F(AlsaPlugin, StartsAgainInSilenceWithNothingOfBeforeForAWholeSecond)
{
    const Recording recording = make_recording(16000, 1, 1);
    for (const char *settings : {"suppress no", "suppress yes"})
        for (const bool new_parameters : {false, true}) {
            configure(recording, settings, "board", "once yes");
            snd_pcm_t *pcm = start(recording);
            read(pcm, recording, 20000, {1000});
            EXPECT_EQ(snd_pcm_drop(pcm), 0);
            if (new_parameters)
                set_parameters(pcm, recording);
            else
                EXPECT_EQ(snd_pcm_prepare(pcm), 0);
            EXPECT_TRUE(read(pcm, recording, 16000, {1000}) == Samples(16000))
                << settings << (new_parameters ? ", by hw_params" : ", by prepare");
            snd_pcm_close(pcm);
        }
}

// Standard error while it is written.
class ErrorPipe {
public:
    ErrorPipe() : before(dup(STDERR_FILENO))
    {
        EXPECT_EQ(pipe(ends), 0);
        dup2(ends[1], STDERR_FILENO);
    }
    ~ErrorPipe()
    {
        dup2(before, STDERR_FILENO);
        for (const int end : {ends[0], ends[1], before})
            close(end);
    }
    ErrorPipe(const ErrorPipe &) = delete;
    ErrorPipe &operator=(const ErrorPipe &) = delete;

    // Waits for a text. Returns false when nothing comes for a minute.
    bool wait_for(const std::string &text)
    {
        pollfd polled = {ends[0], POLLIN, 0};
        char piece[256];
        while (said.find(text) == std::string::npos) {
            if (poll(&polled, 1, 60000) != 1) return false;
            const ssize_t count = ::read(ends[0], piece, sizeof piece);
            if (count > 0) said.append(piece, static_cast<size_t>(count));
        }
        return true;
    }

    std::string said;

private:
    int before, ends[2] = {-1, -1};
};

// Eight seconds of a reference beside a dead microphone.
Recording dead_microphone()
{
    Recording recording = {16000, 1, 1, Noise(1).frame(2 * 8 * 16000, 6000)};
    for (size_t i = 0; i < recording.samples.size(); i += 2)
        recording.samples[i] = 0;
    return recording;
}

TEST_F(AlsaPlugin, LogsAnAlarmOnceWhileItStreams)
{
    const Recording recording = dead_microphone();
    configure(recording, "", "board", "looped yes");
    ErrorPipe log;
    snd_pcm_t *pcm = start(recording);
    read(pcm, recording, recording.instants(), {1000});
    EXPECT_TRUE(log.wait_for("nax_aec: alarm: no-microphone: ")) << log.said;
    snd_pcm_close(pcm); // looks once more
    EXPECT_EQ(write(STDERR_FILENO, "end", 3), 3);
    EXPECT_TRUE(log.wait_for("end"));
    EXPECT_EQ(log.said.find("alarm", log.said.find("alarm") + 1), std::string::npos) << log.said;
}

TEST_F(AlsaPlugin, LogsWhenItIsWellAgainAndLooksAtTheEnd)
{
    Recording recording = dead_microphone();
    const Recording well = make_recording(16000, 1, 1, 20.0);
    recording.samples.insert(recording.samples.end(), well.samples.begin(), well.samples.end());
    configure(recording, "");
    snd_pcm_t *pcm = start(recording);
    const std::string bad = standard_error_of([&] {
        read(pcm, recording, 8 * 16000, {1000});
        EXPECT_EQ(made->callback->init(made), 0);
    });
    EXPECT_NE(bad.find("nax_aec: alarm: no-microphone: "), std::string::npos) << bad;
    const std::string good = standard_error_of([&] {
        read(pcm, recording, 15 * 16000, {1000});
        snd_pcm_close(pcm);
    });
    EXPECT_NE(good.find("nax_aec: well again: "), std::string::npos) << good;
}

TEST_F(AlsaPlugin, StreamsAndClosesInAForkedProcess)
{
#if defined(__arm__) || defined(__aarch64__)
    GTEST_SKIP() << "QEMU ends a forked process that starts a thread";
#endif
    const Recording recording = dead_microphone();
    configure(recording, "", "board", "looped yes");
    snd_pcm_t *pcm = start(recording);
    read(pcm, recording, 1000, {1000});
    ErrorPipe log;
    const pid_t child = fork();
    if (child == 0) {
        alarm(20); // ends it where it waits for ever
        snd_pcm_drop(pcm);
        snd_pcm_prepare(pcm);
        read(pcm, recording, recording.instants(), {1000});
        snd_pcm_close(pcm);
        _exit(0);
    }
    int ended = -1;
    waitpid(child, &ended, 0);
    EXPECT_EQ(ended, 0);
    EXPECT_EQ(write(STDERR_FILENO, "end", 3), 3);
    EXPECT_TRUE(log.wait_for("end"));
    EXPECT_NE(log.said.find("alarm: no-microphone"), std::string::npos) << log.said;
    snd_pcm_close(pcm);
}

// Each channel is in memory of its own; the pieces have many sizes.
TEST_F(AlsaPlugin, TransfersWithoutASystemCallALockOrTheHeap)
{
    if (no_ban_here()) GTEST_SKIP() << no_ban_here();
    const Recording recording = make_recording(48000, 2, 2);
    const size_t instants = recording.instants();
    std::vector<Samples> apart(4);
    for (size_t i = 0; i < recording.samples.size(); i++)
        apart[i % 4].push_back(recording.samples[i]);
    Samples out(instants * 2);
    std::vector<snd_pcm_channel_area_t> from, to;
    for (Samples &channel : apart)
        from.push_back({channel.data(), 0, 16});
    for (unsigned m = 0; m < 2; m++)
        to.push_back({out.data(), m * 16, 32});
    const auto transfer_all = [&] {
        const size_t pieces[] = {1, 0, 480, 20000, 767};
        for (size_t done = 0, piece = 0; done < instants; piece++) {
            const size_t size = std::min(pieces[piece % std::size(pieces)], instants - done);
            if (made->callback->transfer(made, to.data(), done, from.data(), done, size) !=
                static_cast<snd_pcm_sframes_t>(size))
                return 1;
            done += size;
        }
        return 0;
    };
    for (const bool suppress : {false, true}) {
        const Samples expected =
            later(suppress ? suppressed(recording) : cancelled(folder, recording), 768, 2);
        configure(recording, suppress ? "suppress yes" : "");
        snd_pcm_t *pcm = start(recording);
        EXPECT_EQ(ends_with([&] {
                      return [&] { return transfer_all() == 0 && out == expected ? 0 : 1; };
                  }),
                  0)
            << (suppress ? "suppressed" : "cancelled");
        snd_pcm_close(pcm);
    }
}

class AlsaPluginMemory : public AlsaPlugin,
                         public testing::WithParamInterface<std::pair<int32_t, size_t>> {};

TEST_P(AlsaPluginMemory, StaysAsItIsThroughALongCall)
{
    const auto &[rate, channels] = GetParam();
    const Recording recording = make_recording(rate, channels, channels);
    configure(recording, "suppress yes", "board", "looped yes");
    snd_pcm_t *pcm = start(recording);
    expect_flat_memory([&, rate = static_cast<size_t>(rate)](int second) {
        if (second % 60 == 0) {
            ASSERT_EQ(snd_pcm_drop(pcm) | snd_pcm_prepare(pcm), 0);
        }
        read(pcm, recording, rate, {160, 1, 767, 1000, 333});
    });
    snd_pcm_close(pcm);
}

INSTANTIATE_TEST_SUITE_P(Rates, AlsaPluginMemory,
                         testing::Values(std::pair{8000, 1}, std::pair{48000, 2}),
                         [](const auto &rate) { return std::to_string(rate.param.first); });

} // namespace
