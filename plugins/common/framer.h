/*
 * Frames of 16 ms out of buffers of any size, for hosts that have buffers of their own.
 *
 * A host exchanges sample instants one for one. It writes its input to framer_in, reads
 * from framer_out the microphones that were cleaned a frame earlier, and calls
 * framer_advance with the number of instants. The library runs when a frame is full. So the
 * microphones come out framer_late samples after they went in, whatever the sizes of the
 * buffers. A host that has whole frames reads framer_out after framer_advance, and its
 * output is a frame earlier.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#ifndef FRAMER_H
#define FRAMER_H

#include "settings.h"

#include "nax_aec.h"
#include "nax_meter.h"
#include "nax_res.h"

#include <stddef.h>

struct framer {
    nax_aec_state *state;
    nax_res_state *suppressor; /* null without one */
    nax_meter_state *meter;    /* any thread may read it */
    size_t size;               /* samples of a channel in a frame */
    size_t mics;               /* channels that come out */
    size_t selected; /* channels that go in: microphones and references that are not dropped */
    size_t channels; /* microphones and all references */
    size_t at;       /* sample instants of the frame that were exchanged */
    bool heard;      /* audio went in since the creation or the last restart */
    int delay;       /* samples that the last frame's reference was held back */
    int source[MAX_CHANNELS]; /* the host's channel, from 0, for each that goes in */
    int16_t *in, *out, *echo, *suppressed;
    const int16_t *ready; /* the frame that comes out: out or suppressed */
    size_t stride;        /* its channels */
};

/* Returns null when the library does not serve the rate, and when memory is short. The library
 * writes its banner of two lines and two empty ones to standard error. */
struct framer *framer_create(const struct settings *settings, int rate);
void framer_destroy(struct framer *framer);

/* Sample instants that are missing in the frame, 1 or more. */
static inline size_t framer_room(const struct framer *framer) { return framer->size - framer->at; }

/* The place of the next instants' input: interleaved, in the order of source. */
static inline int16_t *framer_in(struct framer *framer)
{
    return framer->in + framer->at * framer->selected;
}

/* The cleaned microphones for the same instants. An instant is stride samples after the last. */
static inline const int16_t *framer_out(const struct framer *framer)
{
    return framer->ready + framer->at * framer->stride;
}

/* Takes count instants as exchanged, at most framer_room. Allocates nothing, locks nothing and
 * calls nothing of the system. */
void framer_advance(struct framer *framer, size_t count);

/* Brings out the frame that the suppressor, which there must be, holds. The canceller takes no
 * part: the delayed reference would make it give an echo of its own. */
void framer_drain(struct framer *framer);

/* Prepares for a stream that starts again. Silence takes the place of all earlier sound. What
 * was learnt about the room stays. Costs as much as 6 (48 kHz) to 18 frames (8 kHz); allocates nothing,
 * locks nothing and calls nothing of the system. */
void framer_restart(struct framer *framer);

/* Samples by which the output is later than the input, where a host exchanges them. */
static inline size_t framer_late(const struct framer *framer)
{
    return framer->size * (framer->suppressor ? 2 : 1);
}

#endif
