// The delay estimator alone over many cases, with the front end's rule for moves and without
// a canceller. bench/replays.py builds it and reads what it prints.
//
// Standard input has a line for each case, words divided by spaces:
//   MIC REF    files of 16-bit samples, channels interleaved
//   RATE       Hz
//   MICS REFS  channels of the files
//   KEPT       references that the estimator hears, the first of REFS
//   BASE       base delay, samples
//   LENGTH     samples per channel that are played; past a file's end there is silence
//   BEFORE AFTER SWITCH
//              the microphones are held back by BEFORE samples, from sample SWITCH on by AFTER
// Standard output has a line for each case, in the same order: the first frame and the delay
// in samples of every move, as FRAME:DELAY, then a full stop.
#include "engines/delay_estimator.h"
#include "engines/delay_lines.h"
#include "engines/logtab.h"
#include "kernels/float_mode.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <string>
#include <vector>

using Samples = std::vector<int16_t>;

struct Case {
    std::string mic, ref;
    int32_t rate, mics, refs, kept, base;
    int64_t length, before, after, switched;
};

static std::istream &operator>>(std::istream &from, Case &c)
{
    return from >> c.mic >> c.ref >> c.rate >> c.mics >> c.refs >> c.kept >> c.base >> c.length >>
           c.before >> c.after >> c.switched;
}

// The samples of a file, kept for the next cases.
static const Samples &samples_of(const std::string &path)
{
    static std::map<std::string, Samples> known;
    const auto [place, is_new] = known.try_emplace(path);
    if (!is_new) return place->second;
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    if (!file) {
        std::cerr << "replay: " << path << ": cannot be read\n";
        exit(1);
    }
    place->second.resize(static_cast<size_t>(file.tellg()) / sizeof(int16_t));
    file.seekg(0);
    file.read(reinterpret_cast<char *>(place->second.data()),
              static_cast<std::streamsize>(place->second.size() * sizeof(int16_t)));
    return place->second;
}

static int16_t sample_at(const Samples &file, int32_t channels, int32_t channel, int64_t index)
{
    const int64_t count = static_cast<int64_t>(file.size()) / channels;
    return index < 0 || index >= count ? int16_t{0}
                                       : file[static_cast<size_t>(index * channels + channel)];
}

static void replay(const Case &c)
{
    const Samples &mic_file = samples_of(c.mic), &ref_file = samples_of(c.ref);
    const int32_t frame = c.rate / 125 * 2;
    int32_t words[nax::DELAY_STATE_WORDS] = {};
    nax::AEC_DelayInit(1, c.rate, frame / 2, c.mics, c.base, c.kept, words);
    Samples mic(static_cast<size_t>(frame * c.mics)), ref(static_cast<size_t>(frame * c.kept));
    int64_t applied = c.base, reported = c.base;
    for (int64_t f = 0; f < c.length / frame; f++) {
        for (int32_t i = 0; i < frame; i++) {
            const int64_t at = f * frame + i;
            const int64_t recorded = at - (at < c.switched ? c.before : c.after);
            for (int32_t m = 0; m < c.mics; m++)
                mic[static_cast<size_t>(m * frame + i)] = sample_at(mic_file, c.mics, m, recorded);
            for (int32_t k = 0; k < c.kept; k++)
                ref[static_cast<size_t>(k * frame + i)] = sample_at(ref_file, c.refs, k, at);
        }
        const int64_t wanted =
            c.base + nax::AEC_DelayProcess(mic.data(), ref.data(), frame,
                                           static_cast<int32_t>(std::min<int64_t>(f + 1, 16384)),
                                           words);
        if (nax::is_taken_up(wanted, applied, frame)) applied = wanted;
        applied = std::min<int64_t>(applied, nax::DELAY_REACH);
        if (applied != reported) std::cout << f << ':' << applied << ' ';
        reported = applied;
    }
    std::cout << ".\n";
    nax::AEC_DelayDestroy(words);
}

int main()
{
    const nax::FloatMode mode; // as in the library
    nax::nax_logtab_init();
    Case c;
    while (std::cin >> c)
        replay(c);
}
