// The ALSA plugin as a program sees it: a device from a stanza of a configuration. It
// captures from a device of the test's own, see alsa_source.c. PLUGIN and SOURCE are the
// two plugins' files.
#include "recording.h"

#include <alsa/asoundlib.h>

namespace {

class AlsaPlugin : public testing::Test {
protected:
    void SetUp() override { folder = fresh_folder(); }

    void TearDown() override
    {
        snd_config_update_free_global();
        if (!HasFailure()) std::filesystem::remove_all(folder);
    }

    // The device "cleaned" over a recording; settings as in a stanza.
    void configure(const Recording &recording, const std::string &settings)
    {
        write_raw(folder + "/all.raw", recording.samples);
        const std::string path = folder + "/asound.conf";
        std::ofstream(path) << "pcm_type.nax_aec.lib \"" PLUGIN "\"\n"
                            << "pcm_type.nax_test_source.lib \"" SOURCE "\"\n"
                            << "pcm.board { type nax_test_source file \"" << folder
                            << "/all.raw\" channels " << recording.channels() << " rate "
                            << recording.rate << " }\n"
                            << "pcm.cleaned { type nax_aec slave.pcm board mics " << recording.mics
                            << " refs " << recording.refs << " " << settings << " }\n";
        setenv("ALSA_CONFIG_PATH", path.c_str(), 1);
        snd_config_update_free_global(); // what was read before
    }

    snd_pcm_t *open()
    {
        snd_pcm_t *pcm = nullptr;
        messages = standard_error_of(
            [&] { status = snd_pcm_open(&pcm, "cleaned", SND_PCM_STREAM_CAPTURE, 0); });
        return pcm;
    }

    // Everything that the device gives of a recording, read in pieces of changing size.
    Samples capture(const Recording &recording, const std::vector<snd_pcm_uframes_t> &pieces)
    {
        snd_pcm_t *pcm = open();
        EXPECT_EQ(status, 0) << messages;
        if (!pcm) return {};
        standard_error_of([&] {
            status = snd_pcm_set_params(pcm, SND_PCM_FORMAT_S16, SND_PCM_ACCESS_RW_INTERLEAVED,
                                        static_cast<unsigned>(recording.mics),
                                        static_cast<unsigned>(recording.rate), 0, 20000);
        });
        EXPECT_EQ(status, 0) << snd_strerror(status);
        Samples captured(recording.instants() * recording.mics);
        for (size_t done = 0, piece = 0; done < recording.instants() && status == 0; piece++) {
            const auto wanted = std::min<snd_pcm_uframes_t>(pieces[piece % pieces.size()],
                                                            recording.instants() - done);
            const auto got = snd_pcm_readi(pcm, &captured[done * recording.mics], wanted);
            EXPECT_GT(got, 0) << snd_strerror(static_cast<int>(got));
            if (got <= 0) break;
            done += static_cast<size_t>(got);
        }
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
                                     {"remap \"0,1\"", "remap does not name"}};
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

TEST_F(AlsaPlugin, StartsAgainWithoutTheSoundOfBefore)
{
    const Recording recording = make_recording(16000, 1, 1);
    configure(recording, "");
    snd_pcm_t *pcm = open();
    ASSERT_EQ(status, 0) << messages;
    standard_error_of([&] {
        status = snd_pcm_set_params(pcm, SND_PCM_FORMAT_S16, SND_PCM_ACCESS_RW_INTERLEAVED, 1,
                                    16000, 0, 20000);
    });
    Samples captured(10000);
    EXPECT_EQ(snd_pcm_readi(pcm, captured.data(), captured.size()), 10000);
    EXPECT_EQ(snd_pcm_drop(pcm), 0);
    EXPECT_EQ(snd_pcm_prepare(pcm), 0);
    EXPECT_EQ(snd_pcm_readi(pcm, captured.data(), 256), 256);
    captured.resize(256);
    EXPECT_EQ(captured, Samples(256));
    snd_pcm_close(pcm);
}

} // namespace
