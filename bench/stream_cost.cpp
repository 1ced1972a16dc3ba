// Processor time that the library and what stands beside it take for one stream, for
// bench/peers_cost: stream_cost RATE AUDIO, a raw int16 file of one microphone and one
// reference, interleaved. Prints a line for each system: its name, s of processor time.
#include "nax_aec.h"
#include "nax_res.h"

#include <speex/speex_echo.h>
#include <speex/speex_preprocess.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <time.h>

namespace {

struct Stream {
    int rate, frame;
    std::vector<int16_t> both, mic, ref;
    int frames() const { return static_cast<int>(mic.size()) / frame; }
};

bool read(const char *path, Stream &s)
{
    FILE *file = fopen(path, "rb");
    int16_t pair[2];
    while (file && fread(pair, sizeof pair, 1, file) == 1) {
        s.both.insert(s.both.end(), pair, pair + 2);
        s.mic.push_back(pair[0]);
        s.ref.push_back(pair[1]);
    }
    return file && fclose(file) == 0 && s.frames() > 0;
}

void run_library(const Stream &s, bool suppressed)
{
    const nax_aec_param param = {.pos = 1,
                                 .drop_channel = 0,
                                 .model_aec_en = NAX_AEC_DELAY_ESTIMATION,
                                 .delay_len = 0,
                                 .look_ahead = 0,
                                 .array_list = nullptr};
    nax_aec_state *state = nax_aec_state_init(s.rate, 16, 1, 1, &param);
    nax_res_state *suppressor = nax_res_state_init(s.rate, 1, 1);
    const size_t size = static_cast<size_t>(s.frame);
    std::vector<int16_t> in(s.both), out(2 * size), echo(size);
    for (int i = 0; i < s.frames(); i++) {
        nax_aec_short(state, &in[static_cast<size_t>(2 * i * s.frame)], out.data(), echo.data(),
                      2 * s.frame);
        if (suppressed) nax_res_short(suppressor, out.data(), echo.data(), echo.data());
    }
    nax_res_state_destroy(suppressor);
    nax_aec_state_destroy(state);
}

// libspeexdsp on whole frames, a filter of two as behind the library's alignment.
void run_speex(const Stream &s, bool preprocessed)
{
    int rate = s.rate;
    SpeexEchoState *echo = speex_echo_state_init(s.frame, 2 * s.frame);
    speex_echo_ctl(echo, SPEEX_ECHO_SET_SAMPLING_RATE, &rate);
    SpeexPreprocessState *after = speex_preprocess_state_init(s.frame, rate);
    speex_preprocess_ctl(after, SPEEX_PREPROCESS_SET_ECHO_STATE, echo);
    std::vector<int16_t> out(static_cast<size_t>(s.frame));
    for (int i = 0; i < s.frames(); i++) {
        const size_t at = static_cast<size_t>(i * s.frame);
        speex_echo_cancellation(echo, &s.mic[at], &s.ref[at], out.data());
        if (preprocessed) speex_preprocess_run(after, out.data());
    }
    speex_preprocess_state_destroy(after);
    speex_echo_state_destroy(echo);
}

double now()
{
    timespec t;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

template <typename Run> void time(const char *name, const Run &run)
{
    const double begun = now();
    run();
    printf("%s %.6f\n", name, now() - begun);
}

} // namespace

int main(int argc, char **argv)
{
    Stream s;
    if (argc != 3 || (s.frame = (s.rate = atoi(argv[1])) * 16 / 1000) <= 0 || !read(argv[2], s)) {
        fprintf(stderr, "Usage: stream_cost RATE AUDIO\n");
        return 2;
    }
    time("library", [&] { run_library(s, false); });
    time("suppressed", [&] { run_library(s, true); });
    time("speex", [&] { run_speex(s, false); });
    time("speex_preprocessed", [&] { run_speex(s, true); });
    return 0;
}
