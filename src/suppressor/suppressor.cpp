// The calls of nax_res.h. A frame is transformed, its residual echo is estimated, the gain
// is applied, and the result is transformed back.
#include "suppressor/state.h"

#include "kernels/float_mode.h"
#include "kernels/kernels.h"
#include "kernels/rates.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>

using namespace nax::res;

template <typename Type> static Type *allocate(int32_t count)
{
    return static_cast<Type *>(calloc(static_cast<size_t>(count), sizeof(Type)));
}

nax_res_state *nax_res_state_init(int32_t sample_rate, int32_t num_src_channel,
                                  int32_t num_ref_channel)
{
    const nax::FloatMode mode;
    if (!nax::is_served(sample_rate) || num_src_channel < 1 || num_src_channel > 2 ||
        num_ref_channel < 1 || num_ref_channel > INT32_MAX - num_src_channel)
        return nullptr;
    nax_res_state *state = allocate<nax_res_state>(1);
    if (!state) return nullptr;
    state->frame_size = nax::frame_size_of(sample_rate);
    state->mics = num_src_channel;
    state->refs = num_ref_channel;
    state->bands = bands_for(state->frame_size);
    state->ref_windows = allocate<Window>(num_ref_channel);
    state->microphones = allocate<Microphone>(num_src_channel);
    const bool transforms = spectra_init(state->spectra, state->frame_size);
    if (!state->ref_windows || !state->microphones || !transforms) {
        nax_res_state_destroy(state);
        return nullptr;
    }
    for (int32_t m = 0; m < num_src_channel; m++)
        noise_init(state->microphones[m].noise);
    return state;
}

void nax_res_state_destroy(nax_res_state *state)
{
    if (!state) return;
    spectra_release(state->spectra);
    free(state->microphones);
    free(state->ref_windows);
    free(state);
}

static void append(Window &window, const int16_t *channel, int32_t stride, int32_t frame_size)
{
    std::copy_n(window.samples + frame_size, frame_size, window.samples);
    nax::copy_channel(channel, stride, window.samples + frame_size, 1, frame_size);
}

static bool is_silent(const Window &window, int32_t frame_size)
{
    return std::all_of(window.samples, window.samples + 2 * frame_size,
                       [](int16_t sample) { return sample == 0; });
}

// Number of zeros at the end of the newest frame.
static int32_t zeros_at_end(const Window &window, int32_t frame_size)
{
    int32_t zeros = 0;
    while (zeros < frame_size && window.samples[2 * frame_size - 1 - zeros] == 0)
        zeros++;
    return zeros;
}

static void take_in_references(nax_res_state &state)
{
    std::fill_n(state.reference.power, padded_bins(state.bands), 0.0f);
    int32_t zeros = state.frame_size;
    for (int32_t r = 0; r < state.refs; r++) {
        if (is_silent(state.ref_windows[r], state.frame_size)) continue; // always, when dropped
        analyse(state.spectra, state.ref_windows[r].samples, state.spectrum);
        add_power(state.spectrum, state.reference.power, padded_bins(state.bands));
        zeros = std::min(zeros, zeros_at_end(state.ref_windows[r], state.frame_size));
    }
    reference_update(state.reference, state.bands,
                     static_cast<float>(zeros) / static_cast<float>(state.frame_size));
}

static void suppress(nax_res_state &state, Microphone &mic)
{
    analyse(state.spectra, mic.cleaned.samples, state.spectrum);
    analyse(state.spectra, mic.echo.samples, state.echo_spectrum);
    Comparison comparison = {};
    compare(state.bands, state.spectrum, state.echo_spectrum, state.cleaned_power, state.echo_power,
            comparison);
    noise_update(mic.noise, state.bands, state.cleaned_power, mic.residual.heard);
    residual_update(mic.residual, state.bands, state.reference, state.echo_power, comparison,
                    mic.noise);
    coherence_update(mic.coherence, state.bands, comparison);
    presence_update(mic.presence, state.bands,
                    {&comparison, mic.coherence.value, &state.reference, mic.residual.mean,
                     mic.noise.mean, state.cleaned_power, state.echo_power});
    gain_apply(mic.gain, state.bands,
               {mic.presence.talker, mic.coherence.value, comparison.cleaned, mic.residual.mean},
               mic.residual.power, mic.noise.power, state.cleaned_power, state.spectrum);
    synthesise(state.spectra, state.spectrum, mic.left_over, mic.frame);
}

int32_t nax_res_short(nax_res_state *state, const int16_t *aec, const int16_t *echo, int16_t *out)
{
    if (!state || !aec || !echo || !out) return -1;
    const nax::FloatMode mode;
    const int32_t frame = state->frame_size, mics = state->mics, stride = mics + state->refs;

    // out may be the same buffer as aec or echo, so both are read completely first.
    for (int32_t r = 0; r < state->refs; r++)
        append(state->ref_windows[r], aec + mics + r, stride, frame);
    for (int32_t m = 0; m < mics; m++) {
        append(state->microphones[m].cleaned, aec + m, stride, frame);
        append(state->microphones[m].echo, echo + m, mics, frame);
    }
    take_in_references(*state);
    for (int32_t m = 0; m < mics; m++) {
        suppress(*state, state->microphones[m]);
        nax::copy_channel(state->microphones[m].frame, 1, out + m, mics, frame);
    }
    return 0;
}
