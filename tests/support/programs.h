// What the tests of programs need: a shell, WAV files, channels.
#pragma once

#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/wait.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

using Samples = std::vector<int16_t>;

struct Result {
    int status;
    std::string out, err;
};

struct Wav {
    int rate = 0, channels = 0;
    Samples samples; // interleaved
};

inline std::string contents(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// Runs commands in a folder; the shell sees them as they are.
inline Result shell(const std::string &folder, const std::string &commands)
{
    const std::string line = "cd '" + folder + "' && { " + commands + "; } >stdout 2>stderr";
    const int status = std::system(line.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, contents(folder + "/stdout"),
            contents(folder + "/stderr")};
}

inline void write_raw(const std::string &path, const Samples &samples)
{
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char *>(samples.data()),
               static_cast<std::streamsize>(samples.size() * sizeof(int16_t)));
}

inline void write_wav(const std::string &path, int rate, int channels, const Samples &samples,
                      int format = SF_FORMAT_WAV | SF_FORMAT_PCM_16)
{
    SF_INFO info = {};
    info.samplerate = rate;
    info.channels = channels;
    info.format = format;
    SNDFILE *file = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_TRUE(file) << path;
    sf_command(file, SFC_SET_SCALE_INT_FLOAT_WRITE, nullptr, SF_TRUE); // full scale is 1
    const auto count = static_cast<sf_count_t>(samples.size());
    EXPECT_EQ(sf_write_short(file, samples.data(), count), count);
    sf_close(file);
}

inline Wav read_wav(const std::string &path)
{
    SF_INFO info = {};
    SNDFILE *file = sf_open(path.c_str(), SFM_READ, &info);
    EXPECT_TRUE(file) << path;
    if (!file) return {};
    Wav wav = {info.samplerate, info.channels, {}};
    wav.samples.resize(static_cast<size_t>(info.frames * info.channels));
    sf_read_short(file, wav.samples.data(), static_cast<sf_count_t>(wav.samples.size()));
    sf_close(file);
    return wav;
}

inline Samples interleave(const std::vector<Samples> &channels)
{
    Samples all;
    for (size_t t = 0; t < channels[0].size(); t++)
        for (const Samples &channel : channels)
            all.push_back(channel[t]);
    return all;
}
