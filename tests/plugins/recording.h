// A recording for the plugins' tests, and its output by cancel_wav. CANCEL_WAV is the command
// of the program.
#pragma once

#include "programs.h"
#include "signals.h"

#include "nax_res.h"

#include <algorithm>
#include <filesystem>

struct Recording {
    int32_t rate = 0;
    size_t mics = 0, refs = 0;
    Samples samples; // interleaved: the microphones, then the references

    size_t channels() const { return mics + refs; }
    size_t instants() const { return samples.size() / channels(); }
};

// Each loudspeaker plays speech of its own and is silent in the last second. Each microphone
// hears all of them 40 ms late, and a talker in the second half. The last frame is not whole.
inline Recording make_recording(int32_t rate, size_t mics, size_t refs, double seconds = 2.5)
{
    Recording recording = {rate, mics, refs, {}};
    std::vector<Speech> players;
    for (size_t r = 0; r < refs; r++)
        players.emplace_back(rate, static_cast<uint32_t>(r + 1));
    Speech talker(rate, 99);
    std::vector<EchoPath> paths;
    for (size_t p = 0; p < mics * refs; p++)
        paths.emplace_back(rate / 25 + static_cast<int32_t>(p),
                           std::vector<double>{0.4, -0.2, 0.1});
    const auto instants = static_cast<size_t>(seconds * rate) + 100;
    for (size_t t = 0; t < instants; t++) {
        std::vector<double> played, heard(mics);
        for (Speech &player : players)
            played.push_back(t + static_cast<size_t>(rate) < instants ? player.next() : 0.0);
        const double said = t * 2 > instants ? talker.next() / 4 : 0.0;
        for (size_t m = 0; m < mics; m++) {
            heard[m] = said;
            for (size_t r = 0; r < refs; r++)
                heard[m] += paths[m * refs + r].next(played[r]);
            recording.samples.push_back(to_sample(heard[m]));
        }
        for (size_t r = 0; r < refs; r++)
            recording.samples.push_back(to_sample(played[r]));
    }
    return recording;
}

// The cleaned microphones by cancel_wav, interleaved. Works in the folder given.
inline Samples cancelled(const std::string &folder, const Recording &recording,
                         const std::string &options = "")
{
    write_wav(folder + "/all.wav", recording.rate, static_cast<int>(recording.channels()),
              recording.samples);
    const Result run =
        shell(folder, CANCEL_WAV " --quiet --mics " + std::to_string(recording.mics) + " " +
                          options + " all.wav cleaned.wav");
    EXPECT_EQ(run.status, 0) << run.err;
    return read_wav(folder + "/cleaned.wav").samples;
}

// The same by the two libraries, suppressed and a frame later.
inline Samples suppressed(const Recording &recording)
{
    const size_t frame = static_cast<size_t>(recording.rate) * 2 / 125;
    const auto mics = static_cast<int32_t>(recording.mics);
    const auto refs = static_cast<int32_t>(recording.refs);
    const State aec = make_state(recording.rate, mics, refs, {1, 0, NAX_AEC_DELAY_ESTIMATION});
    nax_res_state *res = nax_res_state_init(recording.rate, mics, refs);
    Samples in = recording.samples, all;
    in.resize((recording.instants() / frame + 1) * frame * recording.channels());
    Samples cleaned(frame * recording.channels()), echo(frame * recording.mics), out = echo;
    for (size_t at = 0; at < in.size(); at += cleaned.size()) {
        nax_aec_short(aec.get(), &in[at], cleaned.data(), echo.data(),
                      static_cast<int32_t>(cleaned.size()));
        nax_res_short(res, cleaned.data(), echo.data(), out.data());
        all.insert(all.end(), out.begin(), out.end());
    }
    nax_res_state_destroy(res);
    all.resize(recording.instants() * recording.mics);
    return all;
}

// Samples held back by a number of sample instants, at the same length.
inline Samples later(const Samples &samples, size_t instants, size_t channels)
{
    Samples held(instants * channels);
    held.insert(held.end(), samples.begin(), samples.end());
    held.resize(samples.size());
    return held;
}

// Makes an empty folder for the running test.
inline std::string fresh_folder()
{
    const auto *info = testing::UnitTest::GetInstance()->current_test_info();
    const auto folder = std::filesystem::current_path() /
                        (std::string(info->test_suite_name()) + "_" + info->name());
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    return folder.string();
}
