/*
 * What the pads carry, where the references come from, and the canceller for that.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#ifndef NAX_AEC_FORMAT_H
#define NAX_AEC_FORMAT_H

#include "naxaec.h"

/* A pad's format; without rate and channels where there is no pad or no format yet. */
GstAudioInfo format_of(GstPad *pad);

/* What a sink pad takes: the other one's rate, if that has one. */
GstCaps *format_accepted(NaxAec *self, GstPad *pad, GstCaps *filter);

/* Takes the caps of a sink pad; returns whether they serve. */
gboolean format_set(NaxAec *self, GstPad *pad, GstCaps *caps);

/* What comes out: the microphones' format, without the captured references. */
GstFlowReturn format_update_src_caps(GstAggregator *aggregator, GstCaps *downstream,
                                     GstCaps **caps);

/* Before each frame: the canceller that the pads, the probe and the settings ask for. */
void format_adapt(NaxAec *self);

#endif
