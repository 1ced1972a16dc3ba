// The examples as their user sees them: files and options in, files, messages and
// exit statuses out. CANCEL_WAV and MINIMAL are the paths of the programs.
#include "nax_aec.h"
#include "programs.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

namespace {

// A far end that comes and goes, and its echo: first arrival after 40 ms and a few reflections.
struct Call {
    int rate;
    size_t delay;
    Samples mic, ref;
};

// An odd length, so that the last frame is a partial one.
Call make_call(int rate, double seconds = 4)
{
    Call call = {rate, static_cast<size_t>(rate / 25), {}, {}};
    const size_t count = static_cast<size_t>(rate * seconds) + 77;
    std::mt19937 random(20);
    std::normal_distribution<double> noise(0, 2500);
    for (size_t t = 0; t < count; t++) {
        const double syllable = std::abs(std::sin(9.0 * static_cast<double>(t) / rate));
        call.ref.push_back(static_cast<int16_t>(std::clamp(noise(random) * syllable, -3e4, 3e4)));
    }
    for (size_t t = 0; t < count; t++) {
        double echo = 0;
        for (size_t tap = 0; tap < 5; tap++) {
            const size_t lag = call.delay + tap * call.delay / 25;
            if (t >= lag) echo += 0.4 / (1.0 + static_cast<double>(tap)) * call.ref[t - lag];
        }
        call.mic.push_back(static_cast<int16_t>(echo));
    }
    return call;
}

// Microphone over cleaned energy in the second half, in dB.
double echo_removed_db(const Samples &mic, const Samples &cleaned)
{
    double before = 0, after = 1;
    for (size_t t = mic.size() / 2; t < mic.size(); t++) {
        before += mic[t] * mic[t];
        after += cleaned[t] * cleaned[t];
    }
    return 10 * std::log10(before / after);
}

class CancelWav : public testing::Test {
protected:
    void SetUp() override
    {
        std::string name = testing::TempDir() + "cancel_wav_XXXXXX";
        ASSERT_TRUE(mkdtemp(name.data()));
        folder = name + "/";
    }

    void TearDown() override { std::filesystem::remove_all(folder); }

    Result run(const std::string &arguments) const
    {
        return shell(folder, CANCEL_WAV " " + arguments);
    }

    void write_call(const Call &call) const
    {
        write_wav(folder + "mic.wav", call.rate, 1, call.mic);
        write_wav(folder + "ref.wav", call.rate, 1, call.ref);
    }

    // One channel; encoding 3 is 16 bits, 6 is floats.
    void write_au(const std::string &name, uint8_t encoding, int rate,
                  const std::vector<uint8_t> &data) const
    {
        const auto size = static_cast<uint8_t>(data.size());
        const auto high = static_cast<uint8_t>(rate >> 8), low = static_cast<uint8_t>(rate);
        std::vector<uint8_t> file = {'.', 's', 'n', 'd',      0, 0, 0,    24,  0, 0, 0, size,
                                     0,   0,   0,   encoding, 0, 0, high, low, 0, 0, 0, 1};
        file.insert(file.end(), data.begin(), data.end());
        std::ofstream(folder + name)
            .write(reinterpret_cast<const char *>(file.data()), static_cast<long>(file.size()));
    }

    Samples cleaned(const std::string &arguments) const
    {
        const Result result = run("--quiet " + arguments + " out.wav");
        EXPECT_EQ(result.status, 0) << arguments << "\n" << result.err;
        EXPECT_EQ(result.out, "") << arguments;
        return read_wav(folder + "out.wav").samples;
    }

    // The command must end with this status and say this in one line.
    void expect_failure(const std::string &arguments, int status, const std::string &message) const
    {
        const Result result = run(arguments);
        EXPECT_EQ(result.status, status) << arguments;
        EXPECT_EQ(result.err, "cancel_wav: " + message + "\n") << arguments;
        EXPECT_EQ(result.out, "") << arguments;
        EXPECT_FALSE(std::filesystem::exists(folder + "out.wav")) << arguments;
    }

    std::string folder;
};

TEST_F(CancelWav, ReportsEachSecondWhetherItCancels)
{
    write_call(make_call(16000, 6));
    const Result result = run("--report mic.wav ref.wav out.wav");
    ASSERT_EQ(result.status, 0) << result.err;
    std::istringstream lines(result.out);
    std::string line;
    std::getline(lines, line);
    EXPECT_NE(line.find("removed dB  delay ms  verdict"), std::string::npos) << line;
    double time = 0, mic = 0, ref = 0, out = 0, removed = 0, delay = 0;
    for (int second = 1; second <= 6; second++) {
        char verdict[40] = "";
        std::getline(lines, line);
        ASSERT_EQ(std::sscanf(line.c_str(), "%lf %lf %lf %lf %lf %lf %39s", &time, &mic, &ref, &out,
                              &removed, &delay, verdict),
                  7)
            << line;
        EXPECT_NEAR(time, second, 0.15);
        EXPECT_STREQ(verdict, second > 2 ? "cancelling" : verdict);
    }
    EXPECT_NEAR(mic, ref - 5, 5);
    EXPECT_GT(removed, 12);
    EXPECT_NEAR(delay, 40, 16);
    EXPECT_NE(result.out.find(" s cancelling: the echo is being cancelled\n"), std::string::npos);
}

TEST_F(CancelWav, ChecksWhetherItCancelsAndWritesNothing)
{
    const Call call = make_call(16000, 8);
    write_call(call);
    const Samples silence(call.mic.size());
    Samples hiss;
    std::mt19937 random(1);
    for (size_t t = 0; t < silence.size(); t++)
        hiss.push_back(static_cast<int16_t>(random() % 31) - 15);
    write_wav(folder + "silence.wav", 16000, 1, silence);
    write_wav(folder + "hiss.wav", 16000, 1, hiss);
    for (const auto &[files, status, name] : {std::tuple{"mic.wav ref.wav", 0, "cancelling"},
                                              {"mic.wav silence.wav", 3, "no-reference"},
                                              {"silence.wav ref.wav", 3, "no-microphone"},
                                              {"mic.wav mic.wav", 3, "reference-is-microphone"},
                                              {"hiss.wav ref.wav", 4, "not-heard"},
                                              {"hiss.wav silence.wav", 4, "reference-silent"}}) {
        const Result result = run(std::string("--check ") + files);
        EXPECT_EQ(result.status, status) << files;
        EXPECT_EQ(result.out.find(std::string(name) + ": "), 0u) << files << "\n" << result.out;
        EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 1) << result.out;
        EXPECT_EQ(run(std::string("--quiet --check ") + files).out, "");
    }
    expect_failure("--check", 2, "command line: --check needs MIC.wav REF.wav or ALL.wav");
}

TEST_F(CancelWav, FindsTheDelayAndRemovesTheEchoAtEveryRate)
{
    for (const int rate : {8000, 16000, 32000, 48000}) {
        const Call call = make_call(rate);
        const size_t frame = static_cast<size_t>(rate) * 2 / 125;
        write_call(call);
        const Result result = run("mic.wav ref.wav out.wav --delays delays.csv");
        ASSERT_EQ(result.status, 0) << result.err;
        for (const char *words :
             {"Applied delay", "Echo removed", "second half", "Frames", "Speed"})
            EXPECT_NE(result.out.find(words), std::string::npos) << words;

        const Wav out = read_wav(folder + "out.wav");
        EXPECT_EQ(out.rate, rate);
        EXPECT_EQ(out.channels, 1);
        ASSERT_EQ(out.samples.size(), call.mic.size());
        // Measured: 24 dB at 8000 Hz, 60 dB at the others.
        EXPECT_GT(echo_removed_db(call.mic, out.samples), 12) << rate;

        std::istringstream delays(contents(folder + "delays.csv"));
        std::string line, last;
        size_t lines = 0;
        for (; std::getline(delays, line); lines++)
            last = line;
        EXPECT_EQ(lines, 1 + (call.mic.size() + frame - 1) / frame) << rate;
        const long applied = std::stol(last.substr(last.find(',') + 1));
        EXPECT_LE(applied, static_cast<long>(call.delay)) << rate;
        EXPECT_GT(applied, static_cast<long>(call.delay - frame)) << rate;
    }
}

TEST_F(CancelWav, SuppressesWhatIsLeftAndKeepsTheLength)
{
    Call call = make_call(16000);
    write_call(call);
    const Samples left = cleaned("mic.wav ref.wav"),
                  suppressed = cleaned("--suppress mic.wav ref.wav");
    ASSERT_EQ(suppressed.size(), left.size());
    EXPECT_GT(echo_removed_db(left, suppressed), 3);
}

TEST_F(CancelWav, SuppressesNothingAndMovesNothingWhileTheReferenceIsSilent)
{
    Call call = make_call(16000);
    call.ref.assign(call.ref.size(), 0);
    write_call(call);
    EXPECT_EQ(cleaned("--suppress mic.wav ref.wav"), cleaned("mic.wav ref.wav"));
}

TEST_F(CancelWav, LeavesTheReferenceInPlaceWithoutDelayEstimation)
{
    const Call call = make_call(16000);
    write_call(call);
    cleaned(
        "--no-delay-estimation --delay 640 --refs refs.wav --delays delays.csv mic.wav ref.wav");
    EXPECT_EQ(read_wav(folder + "refs.wav").samples, call.ref);
    EXPECT_NE(contents(folder + "delays.csv").find("\n0.000,640\n0.016,640\n"), std::string::npos);
}

TEST_F(CancelWav, GivesTheSameFromOneFileInEitherChannelOrder)
{
    const Call call = make_call(16000, 2);
    write_call(call);
    write_wav(folder + "mics_first.wav", 16000, 2, interleave({call.mic, call.ref}));
    write_wav(folder + "refs_first.wav", 16000, 2, interleave({call.ref, call.mic}));
    const Samples expected = cleaned("mic.wav ref.wav");
    EXPECT_EQ(cleaned("mics_first.wav"), expected);
    EXPECT_EQ(cleaned("--order refs-first refs_first.wav"), expected);
}

TEST_F(CancelWav, DropsTrailingReferencesAndTakesTheMicrophoneFromTheRemapEntry)
{
    const Call call = make_call(16000, 2);
    const Samples junk(call.ref.rbegin(), call.ref.rend());
    write_call(call);
    const Samples expected = cleaned("mic.wav ref.wav");
    write_wav(folder + "two_refs.wav", 16000, 2, interleave({call.ref, junk}));
    EXPECT_EQ(cleaned("--drop 1 --refs refs.wav mic.wav two_refs.wav"), expected);
    EXPECT_EQ(read_wav(folder + "refs.wav").channels, 1);
    write_wav(folder + "mic_last.wav", 16000, 3, interleave({junk, call.ref, call.mic}));
    EXPECT_EQ(cleaned("--drop 1 --remap 2 mic_last.wav"), expected);
}

TEST_F(CancelWav, HandlesTwoMicrophonesAndTwoReferences)
{
    const Call call = make_call(16000);
    Samples other = call.mic;
    std::transform(other.begin(), other.end(), other.begin(),
                   [](int16_t y) { return static_cast<int16_t>(-y / 2); });
    write_wav(folder + "all.wav", 16000, 4, interleave({call.ref, call.ref, call.mic, other}));
    const Samples both =
        cleaned("--order refs-first --mics 2 --refs refs.wav --echo echo.wav all.wav");
    EXPECT_EQ(both.size(), 2 * call.mic.size());
    // Measured: 57 dB; two references alike leave the split between them open.
    EXPECT_GT(echo_removed_db(interleave({call.mic, other}), both), 12);
    EXPECT_EQ(read_wav(folder + "refs.wav").channels, 2);
    EXPECT_EQ(read_wav(folder + "echo.wav").channels, 2);
}

TEST_F(CancelWav, WritesTheEchoThatWasTakenOutAndDumpsOfWholeFrames)
{
    const Call call = make_call(16000, 2);
    write_call(call);
    const Samples out = cleaned("--echo echo.wav --dump dump mic.wav ref.wav");
    const Samples echo = read_wav(folder + "echo.wav").samples;
    ASSERT_EQ(echo.size(), call.mic.size());
    for (size_t t = 0; t < echo.size(); t++)
        ASSERT_EQ(out[t] + echo[t], call.mic[t]) << t;

    const size_t padded = (call.mic.size() + 255) / 256 * 256;
    const std::string aec = contents(folder + "dump_aec.raw");
    const Samples input = interleave({call.mic, call.ref});
    ASSERT_EQ(aec.size(), padded * 2 * sizeof(int16_t));
    EXPECT_EQ(memcmp(aec.data(), input.data(), input.size() * sizeof(int16_t)), 0);
    EXPECT_EQ(contents(folder + "dump_echo.raw").size(), padded * sizeof(int16_t));
}

TEST_F(CancelWav, UsesTheLengthOfTheMicrophone)
{
    const Call call = make_call(16000, 2);
    const Samples expected = (write_call(call), cleaned("mic.wav ref.wav"));
    Samples longer = call.ref, shorter(call.ref.begin(), call.ref.end() - 8000);
    longer.insert(longer.end(), 40000, 1000);
    write_wav(folder + "longer.wav", 16000, 1, longer);
    write_wav(folder + "shorter.wav", 16000, 1, shorter);
    const Result more = run("mic.wav longer.wav out.wav");
    EXPECT_EQ(more.err.find("cancel_wav: longer.wav: is 2.500 s longer than mic.wav, what is more "
                            "is left out\n"),
              0u);
    EXPECT_EQ(read_wav(folder + "out.wav").samples, expected);
    const Result less = run("mic.wav shorter.wav out.wav");
    EXPECT_EQ(less.err.find("cancel_wav: shorter.wav: is 0.500 s shorter than mic.wav, silence "
                            "stands in for what is missing\n"),
              0u);
    EXPECT_EQ(read_wav(folder + "out.wav").samples.size(), call.mic.size());
}

TEST_F(CancelWav, TakesEveryFormatThatLibsndfileReads)
{
    const Call call = make_call(16000, 2);
    write_call(call);
    const Samples expected = cleaned("mic.wav ref.wav");
    const auto both = interleave({call.mic, call.ref});
    for (const int format : {SF_FORMAT_WAV | SF_FORMAT_PCM_24, SF_FORMAT_WAV | SF_FORMAT_FLOAT,
                             SF_FORMAT_FLAC | SF_FORMAT_PCM_16, SF_FORMAT_AU | SF_FORMAT_PCM_16}) {
        write_wav(folder + "all", 16000, 2, both, format);
        EXPECT_EQ(cleaned("all"), expected) << std::hex << format;
    }
    write_wav(folder + "all", 16000, 2, both, SF_FORMAT_WAV | SF_FORMAT_PCM_U8);
    EXPECT_GT(echo_removed_db(call.mic, cleaned("all")), 12);
    write_wav(folder + "all", 16000, 2, both, SF_FORMAT_OGG | SF_FORMAT_VORBIS);
    EXPECT_EQ(cleaned("all").size(), call.mic.size());
}

TEST_F(CancelWav, BringsOtherRatesToTheNextOfTheLibrarys)
{
    const std::tuple<int, int> cases[] = {
        {11025, 16000}, {24000, 32000}, {44100, 48000}, {96000, 48000}};
    for (const auto &[rate, taken] : cases) {
        const Call call = make_call(rate, 2);
        write_call(call);
        const Result result = run("mic.wav ref.wav out.wav --input in.wav --delays delays.csv");
        const std::string notes =
            " has " + std::to_string(rate) + " Hz, taken as " + std::to_string(taken) + " Hz\n";
        EXPECT_EQ(result.err.find("cancel_wav: mic.wav:" + notes + "cancel_wav: ref.wav:" + notes),
                  0u)
            << result.err;
        const Wav out = read_wav(folder + "out.wav"), in = read_wav(folder + "in.wav");
        EXPECT_EQ(out.rate, taken);
        EXPECT_EQ(in.channels, 2);
        EXPECT_EQ(out.samples.size(),
                  call.mic.size() * static_cast<size_t>(taken) / static_cast<size_t>(rate));
        Samples mic;
        for (size_t t = 0; t < in.samples.size(); t += 2)
            mic.push_back(in.samples[t]);
        EXPECT_GT(echo_removed_db(mic, out.samples), 12) << rate;
    }
}

TEST_F(CancelWav, BringsTheReferenceToTheMicrophonesRate)
{
    const Call call = make_call(48000, 2);
    write_call(call);
    Samples third; // what the microphone would be at 16000 Hz, but for the echoes of its images
    for (size_t t = 0; t + 2 < call.mic.size(); t += 3)
        third.push_back(
            static_cast<int16_t>((call.mic[t] + call.mic[t + 1] + call.mic[t + 2]) / 3));
    write_wav(folder + "mic.wav", 16000, 1, third);
    const Samples out = cleaned("mic.wav ref.wav --delays delays.csv");
    EXPECT_EQ(out.size(), third.size());
    EXPECT_GT(echo_removed_db(third, out), 2); // its images above 8 kHz stay
    const std::string delays = contents(folder + "delays.csv");
    const long applied = std::stol(delays.substr(delays.rfind(',') + 1));
    EXPECT_LE(applied, 640);
    EXPECT_GT(applied, 640 - 256);
}

TEST_F(CancelWav, PicksChannelsFromAny)
{
    const Call call = make_call(16000, 2);
    const Samples junk(call.ref.rbegin(), call.ref.rend());
    write_call(call);
    const Samples expected = cleaned("mic.wav ref.wav");
    write_wav(folder + "array.wav", 16000, 4, interleave({junk, call.mic, call.ref, junk}));
    EXPECT_EQ(cleaned("--channels 1:2 array.wav"), expected);
    write_wav(folder + "two.wav", 16000, 2, interleave({junk, call.ref}));
    EXPECT_EQ(cleaned("--channels 1:5 array.wav two.wav"), expected);
    EXPECT_EQ(cleaned("--channels 1,1:2,0 --drop 1 array.wav").size(), 2 * expected.size());
}

TEST_F(CancelWav, RefusesUnusableFilesInOneLineWithStatus1)
{
    const Samples second(16000, 100);
    write_wav(folder + "mic.wav", 16000, 1, second);
    write_wav(folder + "slow.wav", 7, 1, second);
    write_wav(folder + "three.wav", 16000, 3, Samples(48000, 100));
    write_wav(folder + "none.wav", 16000, 1, {});
    std::ofstream(folder + "text.wav") << "not audio\n";
    std::ofstream(folder + "empty.wav").flush();

    write_au("rateless.au", 3, 0, {0, 0});

    const std::string format =
        "Format not recognised; convert it, for instance by ffmpeg -i text.wav OTHER.wav";
    const std::pair<const char *, std::string> cases[] = {
        {"missing.wav mic.wav out.wav", "missing.wav: No such file or directory"},
        {"mic.wav missing.wav out.wav", "missing.wav: No such file or directory"},
        {"mic.wav text.wav out.wav", "text.wav: " + format},
        {"mic.wav empty.wav out.wav", "empty.wav: is empty"},
        {"mic.wav . out.wav", ".: Is a directory"},
        {"mic.wav rateless.au out.wav", "rateless.au: says no rate; mend its header"},
        {"none.wav mic.wav out.wav", "none.wav: holds no samples"},
        {"mic.wav slow.wav out.wav",
         "slow.wav: says 7 Hz, which no recording has; mend its header"},
        {"three.wav mic.wav out.wav", "three.wav: has 3 channels, not 1 or 2 microphones; name "
                                      "those to use, for instance --channels 0,1:3"},
        {"mic.wav out.wav", "mic.wav: has 1 channel(s), too few for 1 microphone(s) and a "
                            "reference; give the reference as a second file"},
        {"mic.wav mic.wav missing/out.wav", "missing/out.wav: No such file or directory"},
        {"mic.wav mic.wav .", ".: Is a directory"},
    };
    for (const auto &[arguments, message] : cases)
        expect_failure(arguments, 1, message);
}

TEST_F(CancelWav, TellsOfFloatsThatAre16BitSamplesOrNoNumbers)
{
    write_wav(folder + "mic.wav", 16000, 1, Samples(2, 100));
    write_au("loud.au", 6, 16000, {0x43, 0, 0, 0, 0, 0, 0, 0}); // 128, 0
    const std::string loud = run("mic.wav loud.au out.wav").err;
    EXPECT_NE(loud.find("loud.au: 50.0 % of its samples are above full scale and were cut off"),
              std::string::npos)
        << loud;
    write_au("nan.au", 6, 16000, {0x7f, 0xc0, 0, 0});
    const Result nan = run("mic.wav nan.au out.wav");
    EXPECT_EQ(nan.status, 1);
    EXPECT_NE(nan.err.find("nan.au: holds samples that are not numbers"), std::string::npos);
}

TEST_F(CancelWav, RefusesToWriteToAFullDisk)
{
    const Call call = make_call(16000, 1);
    write_call(call);
    if (!std::filesystem::exists("/dev/full")) GTEST_SKIP() << "no /dev/full here";
    for (const char *arguments :
         {"mic.wav ref.wav /dev/full", "mic.wav ref.wav o.wav --echo /dev/full",
          "mic.wav ref.wav o.wav --delays /dev/full"}) {
        const Result result = run(arguments);
        EXPECT_EQ(result.status, 1) << arguments;
        EXPECT_NE(result.err.find("cancel_wav: /dev/full: "), std::string::npos) << arguments;
    }
}

TEST_F(CancelWav, SaysThatStandardOutputIsFull)
{
    write_call(make_call(16000, 1));
    if (!std::filesystem::exists("/dev/full")) GTEST_SKIP() << "no /dev/full here";
    for (const char *arguments : {"mic.wav ref.wav out.wav", "--help", "--version"}) {
        const Result result = run(std::string(arguments) + " >/dev/full");
        EXPECT_EQ(result.status, 1) << arguments;
        EXPECT_NE(result.err.find("cancel_wav: standard output: No space left on device\n"),
                  std::string::npos)
            << result.err;
    }
}

TEST_F(CancelWav, LeavesAFileWithARightHeaderWhereItCannotGoOn)
{
    const Call call = make_call(16000, 1);
    write_call(call);
    const Samples whole = cleaned("mic.wav ref.wav");
    // The reference's last sample but 1000 is no number.
    write_wav(folder + "nan.wav", 16000, 1, call.ref, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
    std::fstream file(folder + "nan.wav", std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(-4000, std::ios::end).write("\0\0\xc0\x7f", 4);
    file.close();
    EXPECT_EQ(run("mic.wav nan.wav out.wav").status, 1);
    const Samples begun = read_wav(folder + "out.wav").samples;
    // The reading is done in pieces of up to 4096 sample instants, of which frames are made.
    ASSERT_GT(begun.size(), whole.size() - 4096 - 1000);
    EXPECT_TRUE(std::equal(begun.begin(), begun.end(), whole.begin()));
    // libsndfile mends a header that says nothing; other readers take it at its word.
    uint32_t data_bytes;
    memcpy(&data_bytes, contents(folder + "out.wav").data() + 40, sizeof data_bytes);
    EXPECT_EQ(data_bytes, begun.size() * sizeof(int16_t));
}

TEST_F(CancelWav, TellsOfAFileThatIsCutShort)
{
    const Call call = make_call(16000, 1);
    write_call(call);
    for (const int format : {SF_FORMAT_WAV, SF_FORMAT_AU, SF_FORMAT_AIFF, SF_FORMAT_W64}) {
        write_wav(folder + "cut", 16000, 1, call.ref, format | SF_FORMAT_PCM_16);
        EXPECT_EQ(run("mic.wav cut out.wav").err.find("cut short"), std::string::npos) << format;
        const auto size = std::filesystem::file_size(folder + "cut");
        std::filesystem::resize_file(folder + "cut", size - 8000);
        const Result result = run("mic.wav cut out.wav");
        EXPECT_EQ(result.status, 0) << format;
        EXPECT_EQ(result.err.find("cancel_wav: cut: is cut short: "), 0u) << result.err;
        EXPECT_EQ(run("--quiet mic.wav cut out.wav").err.find("cut short"), std::string::npos);
    }
}

TEST_F(CancelWav, TakesARecordersPlaceholderForNoLength)
{
    const Call call = make_call(16000, 1);
    write_call(call);
    for (const char *length : {"\xff\xff\xff\xff", "\x24\0\0\x80", "\0\xf0\xff\x7f"}) {
        std::fstream file(folder + "mic.wav", std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(4).write(length, 4);
        file.seekp(40).write(length, 4);
        file.close();
        const Result result = run("mic.wav ref.wav out.wav");
        EXPECT_EQ(result.err.find("cut short"), std::string::npos) << result.err;
        EXPECT_EQ(read_wav(folder + "out.wav").samples.size(), call.mic.size());
    }
}

TEST_F(CancelWav, RefusesAWrongCommandLineInOneLineWithStatus2)
{
    write_wav(folder + "mic.wav", 16000, 1, Samples(16000, 100));
    write_wav(folder + "all.wav", 16000, 2, Samples(32000, 100));
    const std::string names = "command line: needs MIC.wav REF.wav OUT.wav or ALL.wav OUT.wav";
    const std::pair<const char *, std::string> cases[] = {
        {"", names},
        {"out.wav", names},
        {"mic.wav mic.wav mic.wav out.wav", names},
        {"--louder all.wav out.wav", "--louder: no such option, see cancel_wav --help"},
        {"all.wav out.wav -xy", "-x: no such option, see cancel_wav --help"},
        {"--help=1", "--help=1: takes no value"},
        {"all.wav out.wav --delay", "--delay: needs a value"},
        {"all.wav out.wav --delay 12289", "--delay: '12289' is not a number from 0 to 12288"},
        {"all.wav out.wav --delay -1", "--delay: '-1' is not a number from 0 to 12288"},
        {"all.wav out.wav --delay 5ms", "--delay: '5ms' is not a number from 0 to 12288"},
        {"all.wav out.wav --delay ''", "--delay: '' is not a number from 0 to 12288"},
        {"all.wav out.wav --look-ahead x", "--look-ahead: 'x' is not a number from 0 to 12288"},
        {"all.wav out.wav --mics 3", "--mics: '3' is not a number from 1 to 2"},
        {"all.wav out.wav --order any", "--order: 'any' is neither mics-first nor refs-first"},
        {"mic.wav mic.wav out.wav --mics 1",
         "--mics: describes one multi-channel file, but two input files are given"},
        {"all.wav out.wav --drop 2", "--drop: 2 is more than the 1 reference(s) of all.wav"},
        {"all.wav out.wav --drop 1 --refs r.wav", "--refs: --drop 1 leaves no reference to write"},
        {"all.wav out.wav --channels 0:2", "--channels: 2 is outside the input's channels, 0 to 1"},
        {"all.wav out.wav --channels 0,1,2:3",
         "--channels: '0,1,2:3' is not MICS:REFS, for instance 0:1 or 1,2:5"},
        {"all.wav out.wav --channels 0:1 --mics 1",
         "--channels: says what --order, --mics and --remap say"},
        {"all.wav out.wav --remap 2", "--remap: channel 2 is outside the input's channels, 0 to 1"},
        {"all.wav out.wav --remap 0,1",
         "--remap: names 2 channel(s) for the 1 microphone(s) of all.wav"},
        {"all.wav out.wav --remap 0,1,2", "--remap: '1,2' is not a number from 0 to 1023"},
        {"all.wav ./all.wav", "./all.wav: is already an input or another output"},
    };
    for (const auto &[arguments, message] : cases)
        expect_failure(arguments, 2, message);
    EXPECT_EQ(run("all.wav o.wav --echo o.wav").status, 2);
}

TEST_F(CancelWav, PrintsItsHelpAndVersion)
{
    const Result help = run("--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.find("Usage: cancel_wav"), 0u);
    const Result version = run("--version");
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, "cancel_wav (nax_aec) " + std::to_string(NAX_AEC_VERSION_MAJOR) + "." +
                               std::to_string(NAX_AEC_VERSION_MINOR) + "." +
                               std::to_string(NAX_AEC_VERSION_PATCH) + "\n");
}

TEST_F(CancelWav, AgreesWithTheMinimalExampleOnWholeFrames)
{
    const Call call = make_call(16000, 2);
    write_call(call);
    const Samples input = interleave({call.mic, call.ref});
    write_raw(folder + "in.raw", input);
    ASSERT_EQ(shell(folder, MINIMAL " <in.raw >out.raw").status, 0);
    const std::string minimal = contents(folder + "out.raw");
    const Samples out = cleaned("mic.wav ref.wav");
    ASSERT_EQ(minimal.size(), call.mic.size() / 256 * 256 * sizeof(int16_t));
    EXPECT_EQ(memcmp(minimal.data(), out.data(), minimal.size()), 0);
}

} // namespace
