/*
 * Frames of 16 ms out of buffers of any size.
 *
 * Channels are selected here rather than by nax_aec_byte, whose first call allocates.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "framer.h"

#include <stdlib.h>
#include <string.h>

/* Samples after which the canceller gives silence for silence. It keeps two frames of the
 * reference, 1536 samples at 48 kHz. Its high-pass filter of the microphones has a pole at
 * 0.992: of a step of full scale less than 0.001 is left after 2304 samples. */
enum { CANCELLER_KEEPS = 2304 };

/* Frames that the suppressor keeps of what the canceller gives. */
enum { SUPPRESSOR_KEEPS = 2 };

static nax_aec_state *create_state(const struct settings *settings, int rate)
{
    const nax_aec_param param = {
        .pos = 1,
        .drop_channel = settings->drop,
        .model_aec_en = settings->delay_estimation ? NAX_AEC_DELAY_ESTIMATION : 0,
        .delay_len = settings->delay,
    };
    return nax_aec_state_init(rate, 16, settings->mics, settings->refs, &param);
}

static void select_channels(struct framer *framer, const struct settings *settings)
{
    const int mics = settings->mics, kept = settings->refs - settings->drop;
    const int first_mic = settings->mics_first ? 0 : settings->refs;
    const int first_ref = settings->mics_first ? mics : 0;
    for (int m = 0; m < mics; m++)
        framer->source[m] = settings->remap_count > 0 ? settings->remap[m] : first_mic + m;
    for (int r = 0; r < kept; r++)
        framer->source[mics + r] = first_ref + r;
    framer->mics = (size_t)mics;
    framer->selected = (size_t)(mics + kept);
    framer->channels = (size_t)(mics + settings->refs);
}

struct framer *framer_create(const struct settings *settings, int rate)
{
    if (rate != 8000 && rate != 16000 && rate != 32000 && rate != 48000) return NULL;
    struct framer *framer = calloc(1, sizeof *framer);
    if (!framer) return NULL;
    framer->size = (size_t)(rate * 2 / 125); /* 16 ms */
    select_channels(framer, settings);
    framer->in = calloc(framer->size * framer->selected, sizeof *framer->in);
    framer->out = calloc(framer->size * framer->channels, sizeof *framer->out);
    framer->echo = calloc(framer->size * framer->mics, sizeof *framer->echo);
    framer->suppressed = calloc(framer->size * framer->mics, sizeof *framer->suppressed);
    framer->ready = settings->suppress ? framer->suppressed : framer->out;
    framer->stride = settings->suppress ? framer->mics : framer->channels;
    if (settings->suppress)
        framer->suppressor = nax_res_state_init(rate, settings->mics, settings->refs);
    framer->meter = nax_meter_state_init(rate, settings->mics, settings->refs);
    nax_meter_drop(framer->meter, settings->drop);
    if (framer->in && framer->out && framer->echo && framer->suppressed && framer->meter &&
        (framer->suppressor || !settings->suppress))
        framer->state = create_state(settings, rate);
    if (!framer->state) {
        framer_destroy(framer);
        return NULL;
    }
    return framer;
}

void framer_destroy(struct framer *framer)
{
    if (!framer) return;
    nax_aec_state_destroy(framer->state);
    nax_res_state_destroy(framer->suppressor);
    nax_meter_state_destroy(framer->meter);
    free(framer->in);
    free(framer->out);
    free(framer->echo);
    free(framer->suppressed);
    free(framer);
}

static void run_frame(struct framer *framer)
{
    framer->delay = nax_aec_short(framer->state, framer->in, framer->out, framer->echo,
                                  (int32_t)(framer->size * framer->channels));
    if (framer->suppressor)
        nax_res_short(framer->suppressor, framer->out, framer->echo, framer->suppressed);
}

void framer_advance(struct framer *framer, size_t count)
{
    framer->heard = true;
    framer->at += count;
    if (framer->at < framer->size) return;
    framer->at = 0;
    run_frame(framer);
    nax_meter_short(framer->meter, framer->in, framer->out, framer->delay);
}

void framer_drain(struct framer *framer)
{
    memset(framer->out, 0, framer->size * framer->channels * sizeof *framer->out);
    memset(framer->echo, 0, framer->size * framer->mics * sizeof *framer->echo);
    nax_res_short(framer->suppressor, framer->out, framer->echo, framer->suppressed);
}

void framer_restart(struct framer *framer)
{
    framer->at = 0;
    if (!framer->heard) return;
    framer->heard = false;
    memset(framer->in, 0, framer->size * framer->selected * sizeof *framer->in);
    /* With a length of 0 a frame reaches the delay lines but not the canceller. A canceller
     * that hears the old reference beside a silent microphone would unlearn the echo path. */
    for (size_t written = 0; written < MAX_DELAY; written += framer->size)
        nax_aec_short(framer->state, framer->in, framer->out, framer->echo, 0);
    const size_t kept = CANCELLER_KEEPS + SUPPRESSOR_KEEPS * framer->size;
    for (size_t run = 0; run < kept; run += framer->size)
        run_frame(framer);
}
