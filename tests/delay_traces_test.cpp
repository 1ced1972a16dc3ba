// The decision on the delay over traces of hard cases: what the searches saw in real and
// simulated calls, without their sound. `bench/replay --trace` prints such traces.
//
// The first line: rate in Hz, base delay, samples by which the truth may be wrong, true delay,
// the frame from which on it is another (0: none), that delay. Then a line for each frame:
//   e TARGET                 there was evidence; height around the target
//   s LAG HEIGHT RIVAL FOLLOWED PATH   ... and news, as in Sight
//   l TARGET UPDATES HEIGHT LAG        ... and a fine look at that target, as in Onset
//   p PARTITION LAG HEIGHT             a peak that was transformed in this frame
// Heights are in tenths.
#include "engines/delay_decision.h"

#include "support.h"

#include <array>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

struct Trace {
    int32_t rate = 0, base = 0, sure = 0, before = 0, step = 0, after = 0;
    std::vector<std::string> frames;
};

Trace read_trace(const std::filesystem::path &path)
{
    std::ifstream file(path);
    Trace trace;
    file >> trace.rate >> trace.base >> trace.sure >> trace.before >> trace.step >> trace.after;
    std::string line;
    std::getline(file, line);
    while (std::getline(file, line))
        trace.frames.push_back(line);
    return trace;
}

class Replay {
public:
    explicit Replay(const Trace &trace)
    {
        nax::delay_decision_init(decision_, trace.rate / 4000, frame_size(trace.rate), trace.base);
        for (nax::Peak &peak : peaks_)
            peak.age = 100;
    }

    // Returns the delay that is applied.
    int32_t frame(const std::string &line)
    {
        std::istringstream words(line);
        nax::Sight sight = {};
        nax::Onset onset = {};
        int32_t target = nax::NONE;
        const auto height = [&words] {
            float tenths = 0;
            words >> tenths;
            return tenths / 10;
        };
        for (std::string word; words >> word;) {
            if (word == "e") {
                sight.target = height();
                for (nax::Peak &peak : peaks_)
                    peak.age++;
            } else if (word == "s") {
                words >> sight.lag;
                sight.height = height();
                sight.rival = height();
                sight.followed = followed_ = height();
                sight.path = height();
                sight.news = true;
            } else if (word == "l") {
                words >> target >> onset.updates;
                onset.height = height();
                words >> onset.lag;
            } else {
                size_t partition = 0;
                int32_t lag = 0;
                words >> partition >> lag;
                peaks_.at(partition) = {height(), lag, 0, 1};
            }
        }
        if (!line.empty()) nax::choose_target(decision_, peaks_.data(), 96, followed_);
        // What was seen at another target says nothing about this one.
        const bool seen = target != nax::NONE && std::abs(decision_.target - target) <= 10;
        return nax::decide_on_delay(decision_, sight, seen ? &onset : nullptr);
    }

private:
    nax::DelayDecision decision_;
    std::array<nax::Peak, 96> peaks_ = {};
    float followed_ = 0;
};

class DelayTraces : public testing::TestWithParam<std::filesystem::path> {};

} // namespace

TEST_P(DelayTraces, EndAlignedAfterFewMoves)
{
    const Trace trace = read_trace(GetParam());
    ASSERT_GT(trace.frames.size(), 100u);
    const int32_t above = std::max(trace.rate / 4000, trace.sure);
    const int32_t below = frame_size(trace.rate) * 9 / 8;
    Replay replay(trace);
    int32_t applied = trace.base, moves = 0, n = 0;
    for (const std::string &line : trace.frames) {
        if (trace.step != 0 && n++ == trace.step) {
            EXPECT_LE(applied, trace.before + above);
            EXPECT_GE(applied, trace.before - below);
        }
        const int32_t now = replay.frame(line);
        moves += now != applied;
        applied = now;
    }
    EXPECT_LE(applied, trace.after + above);
    EXPECT_GE(applied, trace.after - below);
    EXPECT_LE(moves, 8);
}

static std::vector<std::filesystem::path> all_traces()
{
    std::vector<std::filesystem::path> paths;
    for (const auto &entry : std::filesystem::directory_iterator(TRACES))
        paths.push_back(entry.path());
    std::sort(paths.begin(), paths.end());
    return paths;
}

INSTANTIATE_TEST_SUITE_P(, DelayTraces, testing::ValuesIn(all_traces()),
                         [](const auto &trace) { return trace.param.stem().string(); });
