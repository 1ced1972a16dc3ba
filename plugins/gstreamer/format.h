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

/* What a sink pad would like: the other one's rate, if that has one. */
GstCaps *format_wish(NaxAec *self, GstPad *pad, GstCaps *filter);

/* What comes out: the microphones' format, without the captured references. */
GstFlowReturn format_update_src_caps(GstAggregator *aggregator, GstCaps *downstream,
                                     GstCaps **caps);

/* Before each frame: whether pads, probe and settings ask for another canceller than is
 * there, and for which. */
gboolean format_differs(NaxAec *self, struct settings *wanted);

/* Exchanges the canceller: none where no references are wanted. An error that stops the
 * element where it cannot be. */
void format_set_up(NaxAec *self, const struct settings *wanted);

/* Posts an error that names a fault of the settings, and stops the element. */
void format_fail(NaxAec *self, const char *fault);

#endif
