/*
 * The streaming thread: frame after frame from the base class, and what goes out of each.
 *
 * The output begins and ends with the microphones and has their timestamps: what the
 * suppressor holds goes out under its own, and last of all. The methods are those of the base
 * classes.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#ifndef NAX_AEC_STREAM_H
#define NAX_AEC_STREAM_H

#include "naxaec.h"

/* Forgets where the audio was. While no thread streams. */
void stream_begin_anew(NaxAec *self);

/* New caps of a sink pad. Those of the microphones end the frame that is begun. */
gboolean stream_set_caps(NaxAec *self, GstAggregatorPad *pad, GstCaps *caps);

GstClockTime stream_get_next_time(GstAggregator *aggregator);
GstBuffer *stream_clip(GstAggregator *aggregator, GstAggregatorPad *pad, GstBuffer *buffer);
GstFlowReturn stream_aggregate(GstAggregator *aggregator, gboolean timeout);
GstBuffer *stream_create_output_buffer(GstAudioAggregator *aggregator, guint instants);
GstFlowReturn stream_finish_buffer(GstAggregator *aggregator, GstBuffer *buffer);

#endif
