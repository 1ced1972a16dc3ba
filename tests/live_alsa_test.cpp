// live_alsa as its user sees it, against ALSA's own file devices: samples from a raw
// file, played to another, without a sound card and without its clock. LIVE_ALSA,
// FAULTY (the same with live_alsa_faults.c between it and ALSA) and CANCEL_WAV are the
// commands of the programs.
#include "programs.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>

namespace {

// Channels of a call of frames x 16 ms: references of noise that comes and goes, and
// microphones with the first one's echo 40 ms later.
std::vector<Samples> make_call(int rate, int mics, int refs, int frames)
{
    std::mt19937 random(1);
    std::normal_distribution<double> noise(0, 2500);
    const auto n = static_cast<size_t>(rate * 2 / 125 * frames);
    const auto delay = static_cast<size_t>(rate / 25);
    std::vector<Samples> channels(static_cast<size_t>(mics + refs), Samples(n));
    for (size_t c = static_cast<size_t>(mics); c < channels.size(); c++)
        for (size_t t = 0; t < n; t++)
            channels[c][t] = static_cast<int16_t>(
                t * 3 / static_cast<size_t>(rate) % 2 ? noise(random) / 20 : noise(random));
    const Samples &ref = channels[static_cast<size_t>(mics)];
    for (size_t m = 0; m < static_cast<size_t>(mics); m++)
        for (size_t t = delay + m; t < n; t++)
            channels[m][t] = static_cast<int16_t>(ref[t - delay - m] / 2);
    return channels;
}

// Each test works in a folder of its own with the devices that it needs.
class LiveAlsa : public testing::Test {
protected:
    void SetUp() override
    {
        const auto *info = testing::UnitTest::GetInstance()->current_test_info();
        folder = std::filesystem::current_path() / (std::string("live_alsa_") + info->name());
        std::filesystem::remove_all(folder);
        std::filesystem::create_directories(folder);
        std::ofstream(path("asound.conf"))
            << "pcm.null { type null }\n"
            << "pcm.two { type multi slaves.a { pcm null channels 2 }\n"
            << "  bindings.0 { slave a channel 0 } bindings.1 { slave a channel 1 } }\n"
            << device("board", "in.raw") << device("mics", "mics.raw") << device("refs", "refs.raw")
            << "pcm.speaker { type file slave.pcm null file \"" << path("played.raw")
            << "\" format raw }\n";
    }

    void TearDown() override
    {
        if (!HasFailure()) std::filesystem::remove_all(folder);
    }

    std::string path(const std::string &name) const { return (folder / name).string(); }

    std::string device(const std::string &name, const std::string &file) const
    {
        return "pcm." + name + " { type file slave.pcm null file /dev/null infile \"" + path(file) +
               "\" format raw }\n";
    }

    // The call as one device, as two, and as a file for cancel_wav.
    void make(int rate, int mics, int refs, int frames, bool refs_first = false)
    {
        auto channels = make_call(rate, mics, refs, frames);
        write_raw(path("mics.raw"), interleave({channels.begin(), channels.begin() + mics}));
        write_raw(path("refs.raw"), interleave({channels.begin() + mics, channels.end()}));
        if (refs_first) std::rotate(channels.begin(), channels.begin() + mics, channels.end());
        const Samples all = interleave(channels);
        write_raw(path("in.raw"), all);
        write_wav(path("in.wav"), rate, mics + refs, all);
        frame = rate * 2 / 125;
        Samples ahead(static_cast<size_t>(frame * (mics + refs)));
        ahead.insert(ahead.end(), all.begin(), all.end());
        write_wav(path("ahead.wav"), rate, mics + refs, ahead);
    }

    Result run(const std::string &commands) const { return shell(folder.string(), commands); }

    // The command with the test's devices, none of the user's ~/.asoundrc, by an ordinary
    // thread: without a device's clock a real-time one would keep a processor to itself.
    std::string command(const std::string &program, const std::string &arguments) const
    {
        return "HOME=/nonexistent ALSA_CONFIG_PATH='/usr/share/alsa/alsa.conf:" +
               path("asound.conf") + "' " + program + " --priority 0 " + arguments;
    }

    Result live(const std::string &arguments) const
    {
        return run(command(LIVE_ALSA, "--quiet " + arguments));
    }

    Result faulty(const std::string &faults, const std::string &arguments) const
    {
        return run("export LIVE_ALSA_FAULTS='" + faults + "'; " + command(FAULTY, arguments));
    }

    // What live_alsa wrote against cancel_wav's, behind the frame of silence that live_alsa
    // gives the library first.
    void expect_same(const std::string &written, const std::string &wanted) const
    {
        const Wav ahead = read_wav(path(wanted));
        const auto begin = static_cast<long>(frame) * ahead.channels;
        EXPECT_EQ(read_wav(path(written)).samples,
                  Samples(ahead.samples.begin() + begin, ahead.samples.end()));
    }

    void expect_as_cancel_wav(const std::string &options) const
    {
        const Result result =
            run(CANCEL_WAV " --quiet --echo wanted_echo.wav " + options + " ahead.wav wanted.wav");
        ASSERT_EQ(result.status, 0) << result.err;
        expect_same("out.wav", "wanted.wav");
    }

    std::filesystem::path folder;
    int frame = 0; // sample instants in 16 ms
};

TEST_F(LiveAlsa, cleans_one_device_as_cancel_wav_does_the_file)
{
    make(16000, 1, 1, 150);
    const Result result = live("--device board --frames 150 out.wav");
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(read_wav(path("out.wav")).rate, 16000);
    expect_as_cancel_wav("");
}

TEST_F(LiveAlsa, cleans_two_devices_as_one)
{
    make(16000, 2, 2, 100);
    const Result result =
        live("--mic-device mics --ref-device refs --mics 2 --refs 2 --frames 100 out.wav");
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(read_wav(path("out.wav")).channels, 2);
    expect_as_cancel_wav("--mics 2");
}

TEST_F(LiveAlsa, passes_every_option_to_the_library)
{
    make(48000, 2, 3, 60, true);
    const std::string options =
        "--order refs-first --mics 2 --drop 1 --delay 768 --look-ahead 10 --remap 4,3";
    const Result result =
        live("--device board --rate 48000 --refs 3 --frames 60 " + options + " out.wav");
    ASSERT_EQ(result.status, 0) << result.err;
    expect_as_cancel_wav(options);
}

TEST_F(LiveAlsa, suppresses_as_cancel_wav_does_a_frame_later)
{
    make(16000, 2, 2, 100);
    const Result result = live("--device board --mics 2 --refs 2 --suppress --frames 100 out.wav");
    ASSERT_EQ(result.status, 0) << result.err;
    const Result file = run(CANCEL_WAV " --quiet --mics 2 --suppress ahead.wav wanted.wav");
    ASSERT_EQ(file.status, 0) << file.err;
    const Samples written = read_wav(path("out.wav")).samples;
    Samples wanted = read_wav(path("wanted.wav")).samples;
    wanted.resize(written.size());
    EXPECT_EQ(written, wanted);
}

TEST_F(LiveAlsa, leaves_the_delay_alone_without_estimation)
{
    make(8000, 1, 1, 60);
    const Result result =
        live("--device board --rate 8000 --frames 60 --no-delay-estimation out.wav");
    ASSERT_EQ(result.status, 0) << result.err;
    expect_as_cancel_wav("--no-delay-estimation");
}

TEST_F(LiveAlsa, plays_what_it_writes_after_two_frames_of_silence)
{
    make(16000, 1, 1, 50);
    const Result result = live("--device board --play speaker --frames 50 out.wav");
    ASSERT_EQ(result.status, 0) << result.err;
    const Samples written = read_wav(path("out.wav")).samples;
    const std::string played = contents(path("played.raw"));
    const size_t silence = 2 * 256 * sizeof(int16_t), bytes = written.size() * sizeof(int16_t);
    ASSERT_GE(played.size(), silence + bytes);
    EXPECT_EQ(played.substr(0, silence), std::string(silence, '\0'));
    EXPECT_EQ(played.substr(silence, bytes),
              std::string(reinterpret_cast<const char *>(written.data()), bytes));
}

TEST_F(LiveAlsa, plays_to_speaker_and_loopback_by_the_configuration_of_the_guide)
{
    const std::string guide = contents(INTEGRATION), margin = "\n       ";
    const size_t begin = guide.find(margin + "pcm.both {");
    std::string both = guide.substr(begin, guide.find(margin + "}\n", begin) - begin) + "\n}\n";
    for (const auto &[card, file] :
         {std::pair("hw:0,0", "speaker"), std::pair("hw:Loopback,0,0", "loopback")}) {
        const size_t found = both.find(card);
        ASSERT_NE(found, std::string::npos) << both;
        both.replace(found, std::string(card).size(), file);
    }
    std::ofstream(path("asound.conf"), std::ios::app)
        << both << "pcm.loopback { type file slave.pcm null file \"" << path("looped.raw")
        << "\" format raw }\n";
    make(16000, 2, 1, 50);
    const Result result = live("--device board --mics 2 --play both --frames 50 out.wav");
    ASSERT_EQ(result.status, 0) << result.err;
    const Samples written = read_wav(path("out.wav")).samples;
    const std::string played = contents(path("played.raw"));
    EXPECT_NE(played.find(std::string(reinterpret_cast<const char *>(written.data()),
                                      written.size() * sizeof(int16_t))),
              std::string::npos);
    EXPECT_EQ(contents(path("looped.raw")), played);
}

TEST_F(LiveAlsa, writes_the_capture_and_the_echo)
{
    make(16000, 1, 2, 50);
    const Result result =
        live("--device board --refs 2 --frames 50 --capture all.wav --echo echo.wav out.wav");
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(read_wav(path("all.wav")).samples, read_wav(path("in.wav")).samples);
    EXPECT_EQ(read_wav(path("all.wav")).channels, 3);
    expect_as_cancel_wav("");
    expect_same("echo.wav", "wanted_echo.wav");
}

TEST_F(LiveAlsa, says_in_one_line_how_it_went)
{
    make(16000, 1, 1, 250);
    const Result result = run(command(LIVE_ALSA, "--device board --seconds 4"));
    std::istringstream lines(result.err);
    std::string heading, line, more;
    for (std::getline(lines, line); line.find("time s") == std::string::npos && lines;)
        std::getline(lines, line);
    heading = line;
    std::getline(lines, line);
    EXPECT_LT(heading.size(), 80u);
    EXPECT_LT(line.size(), 80u) << line;
    std::getline(lines, more);
    EXPECT_NE(more.find(" s searching: too little far end"), std::string::npos) << more;
    std::getline(lines, more);
    EXPECT_NE(more.find(" s cancelling: the echo is being cancelled"), std::string::npos) << more;
    EXPECT_FALSE(std::getline(lines, more)) << more;
    double time = 0, delay = 0, in = 0, out = 0, removed = 0, load = 0, peak = 0;
    long mic = 0, ref = 0, overruns = 0;
    EXPECT_EQ(std::sscanf(line.c_str(), "%lf %lf %lf %lf %lf %ld+%ld %ld %lf/%lf", &time, &delay,
                          &in, &out, &removed, &mic, &ref, &overruns, &load, &peak),
              10)
        << line;
    EXPECT_EQ(time, 4);
    EXPECT_NEAR(delay, 40, 16);
    EXPECT_NEAR(in, -31, 2); // noise at -22 dBFS half of the time, halved
    EXPECT_LT(out, in - 6);
    EXPECT_NEAR(removed, in - out, 2);
    EXPECT_EQ(mic + ref + overruns, 0) << line;
    EXPECT_GE(peak, load);
    EXPECT_NE(line.find(" cancelling"), std::string::npos) << line;
}

TEST_F(LiveAlsa, waits_for_the_disk_where_the_device_has_no_clock)
{
    make(8000, 1, 1, 1000);
    const Result result = live("--device board --rate 8000 --frames 1000 out.wav");
    ASSERT_EQ(result.status, 0) << result.err;
    expect_as_cancel_wav("");
}

TEST_F(LiveAlsa, counts_the_frames_that_come_while_the_disk_is_behind)
{
    make(8000, 1, 1, 800);
    const Result result =
        faulty("timed behind@700", "--device board --rate 8000 --frames 800 --capture all.wav");
    ASSERT_EQ(result.status, 0) << result.err;
    const size_t found = result.err.find("live_alsa: ", result.err.find("time s"));
    ASSERT_NE(found, std::string::npos) << result.err;
    EXPECT_NE(result.err.find("came while the disk was behind and are not written", found),
              std::string::npos);
    const int lost = std::stoi(result.err.substr(found + 11));
    const Samples all = read_wav(path("in.wav")).samples,
                  written = read_wav(path("all.wav")).samples;
    EXPECT_GE(lost, 700 - 512 - 1);
    EXPECT_EQ(written.size() / 256, 800u - static_cast<size_t>(lost));
    // What came before is whole; of what comes after, frames may miss but none is torn.
    EXPECT_TRUE(std::equal(written.begin(), written.begin() + 512 * 256, all.begin()));
    auto from = all.begin();
    for (auto next = written.begin(); next != written.end(); next += 256, from += 256) {
        while (from != all.end() && !std::equal(next, next + 256, from))
            from += 256;
        ASSERT_NE(from, all.end()) << "frame " << (next - written.begin()) / 256;
    }
}

TEST_F(LiveAlsa, says_that_two_devices_cannot_be_linked_and_starts_both)
{
    make(16000, 1, 1, 20);
    const std::string arguments = "--mic-device mics --ref-device refs --frames 20 out.wav";
    const Result apart = live(arguments);
    EXPECT_EQ(apart.status, 0);
    EXPECT_NE(
        apart.err.find("live_alsa: refs: cannot be linked to mics (Function not implemented)"),
        std::string::npos)
        << apart.err;
    const Result linked = faulty("linkable overrun@7", "--quiet " + arguments);
    EXPECT_EQ(linked.status, 0) << linked.err;
    EXPECT_EQ(linked.err.find("cannot be"), std::string::npos) << linked.err;
}

TEST_F(LiveAlsa, stops_by_seconds_at_a_whole_frame)
{
    make(16000, 1, 1, 20);
    const std::pair<const char *, unsigned> cases[] = {
        {"0.1", 7}, {"0.16", 10}, {"0.016", 1}, {"0.00001", 1}, {"1e-300", 1}};
    for (const auto &[seconds, frames] : cases) {
        const Result result =
            run("timeout 20 env " + command(LIVE_ALSA, "--device board --seconds " +
                                                           std::string(seconds) + " out.wav"));
        ASSERT_EQ(result.status, 0) << seconds;
        EXPECT_EQ(read_wav(path("out.wav")).samples.size(), frames * 256u) << seconds;
    }
}

// The last line of figures, by the names of its columns.
std::map<std::string, std::string> last_figures(const std::string &messages)
{
    const char *columns[] = {"time",    "delay",    "in",   "out",    "removed",
                             "clipped", "overruns", "load", "verdict"};
    const size_t end = messages.rfind('+'); // of the counts of clipped samples
    std::istringstream line(messages.substr(messages.rfind('\n', end) + 1));
    std::map<std::string, std::string> figures;
    for (const char *column : columns)
        line >> figures[column];
    return figures;
}

TEST_F(LiveAlsa, survives_an_overrun_and_counts_it)
{
    make(16000, 1, 1, 60);
    const Result result = faulty("overrun@20", "--device board --frames 50 out.wav");
    ASSERT_EQ(result.status, 0) << result.err;
    auto figures = last_figures(result.err);
    EXPECT_EQ(figures["clipped"], "0+0") << result.err;
    EXPECT_EQ(figures["overruns"], "1") << result.err;
    EXPECT_EQ(read_wav(path("out.wav")).samples.size(), 50u * 256u);
}

TEST_F(LiveAlsa, survives_an_overrun_of_the_second_device)
{
    make(16000, 1, 1, 60);
    const Result result =
        faulty("overrun@20", "--mic-device mics --ref-device refs --frames 40 out.wav");
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(read_wav(path("out.wav")).samples.size(), 40u * 256u);
}

TEST_F(LiveAlsa, says_that_the_device_was_unplugged_and_keeps_what_came_before)
{
    make(16000, 1, 1, 60);
    const Result result = faulty("unplug@21", "--device board out.wav");
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("live_alsa: board: was unplugged"), std::string::npos) << result.err;
    EXPECT_EQ(read_wav(path("out.wav")).samples.size(), 20u * 256u);
}

TEST_F(LiveAlsa, gives_up_a_device_that_delivers_nothing)
{
    make(16000, 1, 1, 60);
    const Result result = faulty("stall@21", "--device board out.wav");
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("live_alsa: board: has delivered no audio"), std::string::npos)
        << result.err;
    EXPECT_EQ(read_wav(path("out.wav")).samples.size(), 20u * 256u);
}

TEST_F(LiveAlsa, stops_cleanly_on_a_signal)
{
    make(16000, 1, 1, 10);
    for (const std::string signal : {"INT", "TERM"}) {
        const std::string out = signal + ".wav";
        const std::string heard = "tail -F -c +1 " + out + " 2>/dev/null | head -c 8000 >/dev/null";
        const Result result = faulty("paced", "--device board " + out + " & " + heard + "; kill -" +
                                                  signal + " $!; wait $!");
        EXPECT_EQ(result.status, 0) << signal << result.err;
        EXPECT_GT(read_wav(path(out)).samples.size(), 10u * 256u) << signal;
    }
}

TEST_F(LiveAlsa, says_that_the_disk_is_full)
{
    make(16000, 1, 1, 100);
    const Result full = run("trap '' XFSZ; ulimit -f 100; " +
                            command(LIVE_ALSA, "--device board --frames 400 out.wav")); // 200 KB
    EXPECT_EQ(full.status, 1);
    EXPECT_NE(full.err.find("live_alsa: out.wav: cannot be written"), std::string::npos)
        << full.err;
}

TEST_F(LiveAlsa, says_what_a_device_cannot_do)
{
    make(16000, 1, 1, 10);
    const struct {
        std::string arguments, message;
    } cases[] = {
        {"--device nonesuch", "live_alsa: nonesuch: cannot be opened: No such file or directory\n"},
        {"--device two --refs 3", "live_alsa: two: has 2 to 2 channels, not the 4 wanted\n"},
        {"--device board --frames 1 nowhere/out.wav",
         "live_alsa: nowhere/out.wav: No such file or directory"},
        {"--device board --play nonesuch", "live_alsa: nonesuch: cannot be opened: "},
    };
    for (const auto &c : cases) {
        const Result result = live(c.arguments);
        EXPECT_EQ(result.status, 1) << c.arguments;
        EXPECT_NE(result.err.find(c.message), std::string::npos) << result.err;
    }
}

TEST_F(LiveAlsa, refuses_a_wrong_command_line_with_one_line)
{
    const struct {
        std::string arguments, message;
    } cases[] = {
        {"", "command line: needs --device, or --mic-device and --ref-device"},
        {"--mic-device a", "command line: needs --device, or --mic-device and --ref-device"},
        {"--device a --ref-device b", "--device: excludes --mic-device and --ref-device"},
        {"--mic-device a --ref-device b --order refs-first",
         "--order: describes --device, but two devices are given"},
        {"--device a --rate 44100", "--rate: 44100 is not 8000, 16000, 32000 or 48000"},
        {"--device a --mics 3", "--mics: '3' is not a number from 1 to 2"},
        {"--device a --drop 2", "--drop: 2 is more than the 1 reference(s)"},
        {"--device a --remap 0,1", "--remap: names 2 channel(s) for 1 microphone(s)"},
        {"--device a --remap 2", "--remap: channel 2 is outside the channels, 0 to 1"},
        {"--device a --seconds none", "--seconds: 'none' is not a time in seconds, up to 1000000"},
        {"--device a x.wav y.wav", "y.wav: is one argument too many, see live_alsa --help"},
        {"--frames", "--frames: needs a value"},
        {"--nonsense", "--nonsense: no such option, see live_alsa --help"},
    };
    for (const auto &c : cases) {
        const Result result = run(LIVE_ALSA " " + c.arguments);
        EXPECT_EQ(result.status, 2) << c.arguments;
        EXPECT_EQ(result.err, "live_alsa: " + c.message + "\n");
    }
}

TEST_F(LiveAlsa, refuses_two_outputs_into_one_file_however_it_is_named)
{
    make(16000, 1, 1, 4);
    for (const std::string &other :
         {std::string("out.wav"), std::string("./out.wav"), path("out.wav"), std::string("link")}) {
        run("rm -f out.wav link; touch out.wav; ln -s out.wav link");
        for (const char *option : {"--echo ", "--capture "}) {
            const Result result = live("--device board --frames 2 out.wav " + (option + other));
            EXPECT_EQ(result.status, 2) << option << other;
            EXPECT_NE(result.err.find("live_alsa: " + other +
                                      ": is already an input or another output\n"),
                      std::string::npos)
                << result.err;
        }
    }
}

TEST_F(LiveAlsa, says_that_its_help_could_not_be_written)
{
    if (!std::filesystem::exists("/dev/full")) GTEST_SKIP() << "no /dev/full here";
    const Result result = run(LIVE_ALSA " --help >/dev/full");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "live_alsa: standard output: No space left on device\n");
}

TEST_F(LiveAlsa, prints_help_and_version)
{
    EXPECT_NE(run(LIVE_ALSA " --help").out.find("Usage: live_alsa"), std::string::npos);
    EXPECT_EQ(run(LIVE_ALSA " --version").out.find("live_alsa (nax_aec) "), 0u);
}

} // namespace
