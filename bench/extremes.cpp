// What the signals of extremes.h cost and do, in a table: 6 s of a call, the
// signal, and the call again.
//   cost     median processor time of a frame of the signal over that in the call before
//   resets   of the canceller library, per minute of the signal
//   louder   peak of the cleaned microphone over that of the microphone in the last half,
//            dB; when the microphone is silent the peak itself, in samples
//   after    echo removed in the 6th second of the call afterwards, dB; in the row
//            "none" that of a call without interruption
#include "extremes.h"

#include "nax_aec.h"

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

namespace {

constexpr double CALL_S = 6, EXTREME_S = 60;

// The far end talks, its echo comes late through two reflections, over a little noise.
Instant call(int64_t n, int32_t rate)
{
    const int64_t late = rate / 10;
    const auto played = [rate](int64_t at) { return at < 0 ? 0.0 : talker(at, rate); };
    const double heard = 0.4 * played(n - late) - 0.2 * played(n - late - rate / 400) +
                         0.1 * played(n - late - rate / 120) + scatter(~n, 8.0);
    return {static_cast<int16_t>(heard), talker(n, rate)};
}

// Processor time of this thread, which does not count its waiting for others.
double now_us()
{
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return 1e6 * static_cast<double>(now.tv_sec) + 1e-3 * static_cast<double>(now.tv_nsec);
}

struct Stretch {
    std::vector<double> us;     // processor time of each frame
    double heard = 0, left = 0; // energy of the last second
    int loudest_in = 0, loudest_out = 0;
    int32_t delay = 0;

    double median_us()
    {
        const auto middle = us.begin() + static_cast<ptrdiff_t>(us.size() / 2);
        std::nth_element(us.begin(), middle, us.end());
        return *middle;
    }
    double removed_db() const { return 10 * std::log10(heard / left); }
};

Stretch play(nax_aec_state *state, int32_t rate, double seconds,
             Instant (*at)(int64_t n, int32_t sample_rate))
{
    const int32_t frame = rate * 16 / 1000;
    const int64_t frames = static_cast<int64_t>(seconds / 0.016);
    std::vector<int16_t> in(static_cast<size_t>(2 * frame)), out(in.size()), echo(in.size() / 2);
    Stretch stretch;
    for (int64_t t = 0; t < frames; t++) {
        for (int32_t i = 0; i < frame; i++) {
            const Instant now = at(t * frame + i, rate);
            in[static_cast<size_t>(2 * i)] = now.mic;
            in[static_cast<size_t>(2 * i + 1)] = now.ref;
        }
        const double begin = now_us();
        stretch.delay = nax_aec_short(state, in.data(), out.data(), echo.data(), 2 * frame);
        stretch.us.push_back(now_us() - begin);
        if (t < frames / 2) continue;
        for (size_t i = 0; i < in.size(); i += 2) {
            stretch.loudest_in = std::max(stretch.loudest_in, std::abs(in[i]));
            stretch.loudest_out = std::max(stretch.loudest_out, std::abs(out[i]));
            if (t < frames - 62) continue;
            stretch.heard += double{1} * in[i] * in[i];
            stretch.left += double{1} * out[i] * out[i];
        }
    }
    return stretch;
}

// Lines of the library that name a restart, since the last call.
int resets_since(FILE *messages)
{
    char line[256];
    int resets = 0;
    while (fgets(line, sizeof line, messages))
        if (strstr(line, "slapped")) resets++;
    clearerr(messages);
    return resets;
}

} // namespace

int main()
{
    FILE *written = tmpfile(); // standard error, which the canceller library writes to
    if (!written || dup2(fileno(written), STDERR_FILENO) < 0) return 1;
    char path[64];
    snprintf(path, sizeof path, "/proc/self/fd/%d", fileno(written));
    FILE *messages = fopen(path, "r");
    if (!messages) return 1;

    printf("| rate, Hz | signal | cost | resets a minute | louder | after, dB |\n");
    printf("|---|---|---|---|---|---|\n");
    const nax_aec_param param = {1, 0, NAX_AEC_DELAY_ESTIMATION, 0, 0, nullptr};
    for (const int32_t rate : {8000, 16000, 32000, 48000}) {
        nax_aec_state *calm = nax_aec_state_init(rate, 16, 1, 1, &param);
        play(calm, rate, CALL_S, call);
        Stretch alone = play(calm, rate, CALL_S, call);
        nax_aec_state_destroy(calm);
        printf("| %d | none | 1.00 | %d | | %.1f |\n", rate, resets_since(messages),
               alone.removed_db());
        for (const Extreme &extreme : EXTREMES) {
            nax_aec_state *state = nax_aec_state_init(rate, 16, 1, 1, &param);
            Stretch before = play(state, rate, CALL_S, call);
            resets_since(messages);
            Stretch during = play(state, rate, EXTREME_S, extreme.at);
            const int resets = resets_since(messages);
            Stretch after = play(state, rate, CALL_S, call);
            nax_aec_state_destroy(state);
            char louder[32];
            if (during.loudest_in == 0)
                snprintf(louder, sizeof louder, "%d samples", during.loudest_out);
            else
                snprintf(louder, sizeof louder, "%.1f dB",
                         20 * std::log10((during.loudest_out + 0.5) / during.loudest_in));
            printf("| %d | %s | %.2f | %.1f | %s | %.1f |\n", rate, extreme.name,
                   during.median_us() / before.median_us(), resets * 60 / EXTREME_S, louder,
                   after.removed_db());
            fflush(stdout);
        }
    }
    return 0;
}
