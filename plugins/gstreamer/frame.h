/*
 * One frame: taken in, cancelled, measured.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#ifndef NAX_AEC_FRAME_H
#define NAX_AEC_FRAME_H

#include "naxaec.h"

/* Begins one of a number of sample instants with silence. */
void frame_begin(NaxAec *self, guint instants);

/* Takes in what a pad has of it. */
gboolean frame_take_in(GstAudioAggregator *aggregator, GstAudioAggregatorPad *pad, GstBuffer *in,
                       guint in_at, GstBuffer *out, guint out_at, guint instants);

/* Runs the canceller and writes the frame. */
void frame_cancel(NaxAec *self, GstBuffer *buffer);

/* The microphones' end is the end, also when the reference goes on. */
void frame_trim(NaxAec *self, GstBuffer *buffer);

#endif
