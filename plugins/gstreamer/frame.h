/*
 * One frame: taken in, cancelled, measured, cut to what the microphones have of it.
 *
 * The suppressor hands out the frame before, so that is what a buffer is filled with, under
 * its own timestamp.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#ifndef NAX_AEC_FRAME_H
#define NAX_AEC_FRAME_H

#include "naxaec.h"

/* Begins one of a number of sample instants with silence. */
void frame_begin(NaxAec *self, GstBuffer *buffer, guint instants);

/* Takes in what a pad has of it. */
gboolean frame_take_in(GstAudioAggregator *aggregator, GstAudioAggregatorPad *pad, GstBuffer *in,
                       guint in_at, GstBuffer *out, guint out_at, guint instants);

/* A gap of the microphones, by its buffer: it counts as audio, though the base class has
 * nothing to take in. */
void frame_note_gap(NaxAec *self, const GstSegment *segment, const GstBuffer *gap);

/* Fills the buffer, which holds the place of the frame begun. Returns whether there is
 * something to hand out. With `ends` the microphones' end is the frame's. */
gboolean frame_finish(NaxAec *self, GstBuffer *buffer, gboolean ends);

/* The same for the frame that is held, at the end of the audio or of the canceller. */
gboolean frame_holds(const NaxAec *self);
gboolean frame_drain(NaxAec *self, GstBuffer *buffer);

#endif
