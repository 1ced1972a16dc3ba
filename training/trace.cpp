// Runs the canceller and the suppressor over a mixture and writes what the presence network
// sees, with the truth. Built from the library's own sources; training/clips.py calls it.
//
//   trace RATE < samples > frames
//
// samples: for each sample instant the microphone, the reference and the near end's part of
// the microphone, 16-bit samples. frames: for each frame JUDGED_BANDS x FEATURES features
// (int8), then the power in each judged band of the near end in the cleaned microphone and
// of the rest of it (float); 0 where the rate has no such band.
#include "nax_aec.h"
#include "suppressor/state.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

using namespace nax::res;

static void band_powers(nax_res_state &state, const Window &window, float *means)
{
    float power[MAX_BINS] = {}, all[MAX_BANDS] = {};
    analyse(state.spectra, window.samples, state.spectrum);
    add_power(state.spectrum, power, padded_bins(state.bands));
    band_means(state.bands, power, all);
    std::copy_n(all, JUDGED_BANDS, means);
}

static void append(Window &window, const int16_t *frame, int32_t frame_size)
{
    std::copy_n(window.samples + frame_size, frame_size, window.samples);
    std::copy_n(frame, frame_size, window.samples + frame_size);
}

int main(int argc, char **argv)
{
    const int32_t rate = argc == 2 ? atoi(argv[1]) : 0, frame_size = rate * 16 / 1000;
    nax_aec_param param = {};
    param.pos = 1;
    param.model_aec_en = 1; // with delay estimation
    nax_aec_state *aec = nax_aec_state_init(rate, 16, 1, 1, &param);
    nax_res_state *res = nax_res_state_init(rate, 1, 1);
    if (!aec || !res) return 1;
    const size_t count = static_cast<size_t>(frame_size);
    std::vector<int16_t> samples(3 * count), in(2 * count), cleaned(2 * count), echo(count),
        out(count), near(count), rest(count);
    Window near_window = {}, rest_window = {};
    while (fread(samples.data(), 6, count, stdin) == count) {
        for (size_t i = 0; i < count; i++) {
            in[2 * i] = samples[3 * i];
            in[2 * i + 1] = samples[3 * i + 1];
            near[i] = samples[3 * i + 2];
        }
        nax_aec_short(aec, in.data(), cleaned.data(), echo.data(), 2 * frame_size);
        nax_res_short(res, cleaned.data(), echo.data(), out.data());
        for (size_t i = 0; i < count; i++)
            rest[i] = static_cast<int16_t>(std::clamp(cleaned[2 * i] - near[i], -32768, 32767));
        append(near_window, near.data(), frame_size);
        append(rest_window, rest.data(), frame_size);
        float powers[2][JUDGED_BANDS];
        band_powers(*res, near_window, powers[0]);
        band_powers(*res, rest_window, powers[1]);
        fwrite(res->microphones[0].presence.inputs, JUDGED_BANDS * FEATURES, 1, stdout);
        fwrite(powers, sizeof powers, 1, stdout);
    }
    nax_aec_state_destroy(aec);
    nax_res_state_destroy(res);
}
