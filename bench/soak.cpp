// Hours of a call in minutes: what slips through a short test shows here. One state is
// fed through nax_aec_short and a second one, with the same audio as big-endian bytes
// in the other channel order, through nax_aec_byte; behind the first runs the suppressor.
//
// The far end plays phrases of speech-like noise with pauses between them, now and then
// a pause of one to four minutes in digital silence. Its echo goes through a room and
// comes late by a delay that steps every 1 to 15 minutes to anywhere in the delay line.
// The near end talks a fifth of the time, and for the last two minutes not at all. At
// every step of the delay there are 10 s of active far end to find it.
//
// A row per run; the exit status is 1 when
//   the two entry points ever differ in a sample or a result,
//   the private memory or the heap in use ever differs from that after a minute,
//   the delay applied is wrong at the end,
//   or the suppressor leaves more of the last minute than the canceller.
// "Right" is as in the tests: at most a quarter of a millisecond above the echo's delay
// and at most 1.125 frames below.
#include "nax_aec.h"
#include "nax_res.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int REACH = 12288; // samples of the delay lines
constexpr double FRAME_S = 0.016;
constexpr double FIND_S = 10.0;       // active far end after a step before "right" counts
constexpr double LAST_CALM_S = 120.0; // no step, no near end, no long pause

struct Phrase {
    std::vector<int16_t> played, echo; // the echo is longer by the room
};

class Material {
public:
    explicit Material(int rate) : rate_(rate), random_(static_cast<uint32_t>(rate)) {}

    std::vector<Phrase> phrases(int count, bool with_echo)
    {
        const std::vector<float> room = with_echo ? room_response() : std::vector<float>{};
        std::vector<Phrase> all(static_cast<size_t>(count));
        for (Phrase &phrase : all) {
            phrase.played = speech(uniform(0.6, 4.0));
            phrase.echo.assign(phrase.played.size() + room.size(), 0);
            std::vector<float> heard(phrase.echo.size());
            for (size_t tap = 0; tap < room.size(); tap++)
                for (size_t i = 0; i < phrase.played.size(); i++)
                    heard[i + tap] += room[tap] * phrase.played[i];
            std::transform(heard.begin(), heard.end(), phrase.echo.begin(),
                           [](float v) { return static_cast<int16_t>(std::lrint(v)); });
        }
        return all;
    }

private:
    double uniform(double from, double to)
    {
        return std::uniform_real_distribution<double>(from, to)(random_);
    }

    // Noise through a low-pass at 800 Hz in syllables of a quarter of a second.
    std::vector<int16_t> speech(double seconds)
    {
        const int syllable = rate_ / 4;
        std::vector<int16_t> samples(static_cast<size_t>(seconds * rate_));
        const double pole = std::exp(-2 * M_PI * 800 / rate_);
        double low = 0, loudness = 0;
        for (size_t i = 0; i < samples.size(); i++) {
            const int at = static_cast<int>(i) % syllable;
            if (at == 0) loudness = uniform(0.2, 1.0);
            const double peak = 12000 * std::sqrt((1 + pole) / (1 - pole));
            low = pole * low + (1 - pole) * uniform(-peak, peak);
            const double value = low * loudness * std::sin(M_PI * at / syllable);
            samples[i] = static_cast<int16_t>(std::lrint(std::clamp(value, -32768.0, 32767.0)));
        }
        return samples;
    }

    // A direct sound and a tail of 24 ms that decays by 60 dB in 60 ms.
    std::vector<float> room_response()
    {
        std::vector<float> room(static_cast<size_t>(rate_ * 24 / 1000));
        for (size_t i = 0; i < room.size(); i++)
            room[i] =
                static_cast<float>(uniform(-3, 3) / std::sqrt(rate_) *
                                   std::pow(10.0, -3.0 * static_cast<double>(i) / rate_ / 0.060));
        room[0] = 0.3f;
        return room;
    }

    int rate_;
    std::mt19937 random_;
};

// One talker: phrases in random order with pauses between them.
class Talker {
public:
    Talker(int rate, std::vector<Phrase> phrases, double least_pause_s, double most_pause_s,
           uint32_t seed)
        : rate_(rate), phrases_(std::move(phrases)), pause_(least_pause_s, most_pause_s),
          random_(seed)
    {}

    void be_silent(double seconds) { extra_pause_ = samples(seconds); }
    void stop(bool stopped) { stopped_ = stopped; }

    // The next sample played and its echo, not yet delayed.
    void next(int16_t &played, int16_t &echo)
    {
        if (left_ == 0) choose();
        left_--;
        const Phrase &phrase = phrases_[now_];
        played = at_ < phrase.played.size() ? phrase.played[at_] : int16_t{0};
        echo = at_ < phrase.echo.size() ? phrase.echo[at_] : int16_t{0};
        at_++;
    }
    bool talking() const { return left_ > 0 && at_ < phrases_[now_].played.size(); }

private:
    void choose()
    {
        if (stopped_) { // stay behind the end of the phrase
            left_ = rate_;
            return;
        }
        now_ = random_() % phrases_.size();
        at_ = 0;
        left_ = static_cast<int64_t>(phrases_[now_].echo.size()) + samples(pause_(random_)) +
                extra_pause_;
        extra_pause_ = 0;
    }

    int64_t samples(double seconds) const { return static_cast<int64_t>(seconds * rate_); }

    int rate_;
    std::vector<Phrase> phrases_;
    std::uniform_real_distribution<double> pause_;
    std::mt19937 random_;
    size_t now_ = 0, at_ = SIZE_MAX / 2;
    int64_t left_ = 0, extra_pause_ = 0;
    bool stopped_ = false;
};

struct Memory {
    long private_pages; // resident and not backed by a file
    size_t heap_bytes;  // handed out by malloc
    bool operator==(const Memory &) const = default;
};

Memory memory_now()
{
    // Summed by the kernel over the page tables, so exact to the page.
    FILE *file = fopen("/proc/self/smaps_rollup", "r");
    long kilobytes = -1;
    char line[128];
    while (file && fgets(line, sizeof line, file))
        if (sscanf(line, "Anonymous: %ld", &kilobytes) == 1) break;
    if (file) fclose(file);
    return {kilobytes / 4, mallinfo2().uordblks};
}

struct Run {
    int64_t differences = 0;                    // frames in which the entry points differ
    int64_t steps = 0, not_found = 0;           // before the next step, in more than FIND_S
    double judged_s = 0, wrong_s = 0;           // active far end after FIND_S
    double worst_find_s = 0;                    // longest active far end from a step to right
    double heard = 0, left = 0, suppressed = 0; // energy of the last minute
    double library_s = 0;                       // spent in the library
    Memory first = {}, last = {};
    int64_t memory_changes = 0;
    int delay = 0, applied = 0;
    bool right = false;
};

Run soak(int rate, double hours, uint32_t seed)
{
    const int frame = rate * 16 / 1000;
    const int64_t frames = static_cast<int64_t>(hours * 3600 / FRAME_S);
    Material material(rate);
    Talker far(rate, material.phrases(32, true), 0.05, 1.5, seed);
    Talker near(rate, material.phrases(16, false), 1.0, 16.0, seed + 1);
    std::mt19937 random(seed + 2);
    const auto uniform = [&random](double from, double to) {
        return std::uniform_real_distribution<double>(from, to)(random);
    };

    nax_aec_param by_samples = {1, 0, NAX_AEC_DELAY_ESTIMATION, 0, 0, nullptr};
    nax_aec_param by_bytes = {0, 0, NAX_AEC_DELAY_ESTIMATION, 0, 0, nullptr};
    nax_aec_state *samples_state = nax_aec_state_init(rate, 16, 1, 1, &by_samples);
    nax_aec_state *bytes_state = nax_aec_state_init(rate, 16, 1, 1, &by_bytes);
    nax_res_state *suppressor = nax_res_state_init(rate, 1, 1);
    if (!samples_state || !bytes_state || !suppressor) exit(2);

    const size_t size = static_cast<size_t>(2 * frame);
    std::vector<int16_t> in(size), out(size), out_2(size), echo(size / 2), echo_2(size / 2);
    std::vector<int16_t> suppressed(size / 2);
    std::vector<uint8_t> bytes(2 * size);
    std::vector<int16_t> late(16384); // the echo on its way; a power of two
    Run run;
    run.delay = static_cast<int>(uniform(0, REACH - 2 * frame));
    double next_step_s = 300, next_silence_s = 1500, since_step_s = 0;
    bool noisy = true, was_right = false;
    uint32_t clock = 0, noise = seed;

    for (int64_t t = 0; t < frames; t++) {
        const double now_s = static_cast<double>(t) * FRAME_S;
        const bool last = t >= frames - static_cast<int64_t>(LAST_CALM_S / FRAME_S);
        near.stop(last);
        if (now_s >= next_step_s && !last) {
            if (!was_right && since_step_s > FIND_S) run.not_found++;
            run.steps++;
            run.delay = static_cast<int>(uniform(0, REACH - 2 * frame));
            next_step_s = now_s + uniform(60, 900);
            since_step_s = 0;
            was_right = false;
        }
        if (now_s >= next_silence_s && !last) {
            far.be_silent(uniform(60, 240));
            noisy = !noisy; // every other stretch has a microphone without any noise
            next_silence_s = now_s + uniform(600, 3000);
        }

        bool active = false;
        for (int i = 0; i < frame; i++) {
            int16_t played, heard, near_played, unused;
            far.next(played, heard);
            near.next(near_played, unused);
            active |= far.talking();
            late[clock % late.size()] = heard;
            int mic = late[(clock - static_cast<uint32_t>(run.delay)) % late.size()] + near_played;
            clock++;
            noise = noise * 1664525u + 1013904223u;
            if (noisy) mic += static_cast<int>(noise >> 28) - 8;
            const size_t at = static_cast<size_t>(2 * i);
            in[at] = static_cast<int16_t>(std::clamp(mic, -32768, 32767));
            in[at + 1] = played;
            bytes[2 * at] = static_cast<uint8_t>(played >> 8 & 0xff);
            bytes[2 * at + 1] = static_cast<uint8_t>(played & 0xff);
            bytes[2 * at + 2] = static_cast<uint8_t>(in[at] >> 8 & 0xff);
            bytes[2 * at + 3] = static_cast<uint8_t>(in[at] & 0xff);
        }

        const auto begin = Clock::now();
        uint8_t *audio = bytes.data();
        run.applied = nax_aec_short(samples_state, in.data(), out.data(), echo.data(), 2 * frame);
        const int applied_2 = nax_aec_byte(bytes_state, &audio, out_2.data(), echo_2.data(),
                                           4 * frame, NAX_AEC_BIG_ENDIAN);
        run.library_s += std::chrono::duration<double>(Clock::now() - begin).count();
        nax_res_short(suppressor, out.data(), echo.data(), suppressed.data());
        if (run.applied != applied_2 || out != out_2 || echo != echo_2) run.differences++;

        run.right =
            run.applied <= run.delay + rate / 4000 && run.applied >= run.delay - frame * 9 / 8;
        if (active) {
            since_step_s += FRAME_S;
            if (run.right && !was_right)
                run.worst_find_s = std::max(run.worst_find_s, since_step_s);
            was_right |= run.right;
            if (since_step_s > FIND_S) {
                run.judged_s += FRAME_S;
                if (!run.right) run.wrong_s += FRAME_S;
            }
        }
        if (t >= frames - static_cast<int64_t>(60 / FRAME_S))
            for (size_t i = 0; i < size; i += 2) {
                run.heard += double{1} * in[i] * in[i];
                run.left += double{1} * out[i] * out[i];
                run.suppressed += double{1} * suppressed[i / 2] * suppressed[i / 2];
            }
        if (t % 3750 == 3749) { // a minute
            run.last = memory_now();
            if (t == 3749) run.first = run.last;
            if (run.last != run.first) run.memory_changes++;
        }
    }
    nax_aec_state_destroy(samples_state);
    nax_aec_state_destroy(bytes_state);
    nax_res_state_destroy(suppressor);
    return run;
}

// Lines of a file that name the library's restart after frames it could not explain.
int resets_in(FILE *messages)
{
    rewind(messages);
    char line[256];
    int resets = 0;
    while (fgets(line, sizeof line, messages))
        if (strstr(line, "slapped")) resets++;
    return resets;
}

} // namespace

int main(int argc, char **argv)
{
    const int rate = argc > 1 ? atoi(argv[1]) : 0;
    const double hours = argc > 2 ? atof(argv[2]) : 24;
    const uint32_t seed = argc > 3 ? static_cast<uint32_t>(atoi(argv[3])) : 1;
    if ((rate != 8000 && rate != 16000 && rate != 32000 && rate != 48000) || !(hours >= 0.08)) {
        fprintf(stderr, "Usage: soak RATE [HOURS [SEED]], at least 0.08 hours\n");
        return 2;
    }
    FILE *messages = tmpfile(); // standard error, which the canceller library writes to
    if (!messages || dup2(fileno(messages), STDERR_FILENO) < 0) return 2;
    fprintf(stderr, "soak: the first message touches as much stack as any\n");
    const auto begin = Clock::now();
    const Run run = soak(rate, hours, seed);
    const double took_s = std::chrono::duration<double>(Clock::now() - begin).count();
    const double frames = hours * 3600 / FRAME_S;
    printf("| %d | %.2f | %.0f | %.1f | %lld | %ld to %ld | %zu to %zu | %d | %lld | %lld | %.2f | "
           "%.2f "
           "| %d of %d, %s | %.1f |\n",
           rate, hours, took_s, 1e6 * run.library_s / (2 * frames),
           static_cast<long long>(run.differences), run.first.private_pages, run.last.private_pages,
           run.first.heap_bytes, run.last.heap_bytes, resets_in(messages),
           static_cast<long long>(run.steps), static_cast<long long>(run.not_found),
           run.worst_find_s, 100 * run.wrong_s / run.judged_s, run.applied, run.delay,
           run.right ? "right" : "wrong", 10 * std::log10(run.heard / run.left));
    return run.differences || run.memory_changes || !run.right || run.suppressed >= run.left;
}
