// A call for scripts/bench worst-frame, which runs it under callgrind: the instructions of
// every frame go into a dump of their own. The far end talks with pauses, its echo moves
// to another delay every 8 s, at times the near end talks as well or both microphones are
// muted. Two microphones hear one reference.
#include "extremes.h"

#include "nax_aec.h"

#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

int main(int argc, char **argv)
{
    const int32_t rate = argc > 1 ? atoi(argv[1]) : 0;
    const int32_t frames = argc > 2 ? atoi(argv[2]) : 0;
    const nax_aec_param param = {1, 0, NAX_AEC_DELAY_ESTIMATION, 0, 0, nullptr};
    nax_aec_state *state = nax_aec_state_init(rate, 16, 2, 1, &param);
    if (!state || frames < 1) {
        fprintf(stderr, "Usage: worst_frame RATE FRAMES\n");
        return 2;
    }

    const int32_t frame = rate * 16 / 1000;
    std::vector<int16_t> in(static_cast<size_t>(3 * frame)), out(in.size());
    int32_t moves = 0, delay = 0;
    for (int32_t t = 0; t < frames; t++) {
        const int64_t late = 1 + (t / 500 * 37 % 11) * int64_t{frame};
        const bool muted = t % 1000 >= 900, both_talk = t % 400 >= 300;
        for (int32_t i = 0; i < frame; i++) {
            const int64_t n = int64_t{t} * frame + i;
            const auto played = [rate](int64_t at) {
                const bool pause = at < 0 || at % (5 * rate) >= 4 * rate;
                return pause ? int16_t{0} : talker(at, rate);
            };
            const double heard =
                0.5 * played(n - late) + (both_talk ? talker(n + rate / 3, rate) / 2 : 0);
            int16_t *instant = &in[static_cast<size_t>(3 * i)];
            instant[0] = static_cast<int16_t>(muted ? 0 : heard + scatter(~n, 8.0));
            instant[1] = static_cast<int16_t>(muted ? 0 : 0.7 * heard + scatter(-n, 8.0));
            instant[2] = played(n);
        }
        CALLGRIND_TOGGLE_COLLECT;
        const int32_t now = nax_aec_short(state, in.data(), out.data(), nullptr, 3 * frame);
        CALLGRIND_TOGGLE_COLLECT;
        CALLGRIND_DUMP_STATS_AT("frame");
        if (now != delay) moves++;
        delay = now;
    }
    printf("%d\n", moves);
    nax_aec_state_destroy(state);
    return 0;
}
