/*
 * Element "naxaec": acoustic echo cancellation of 16-bit audio.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#ifndef NAX_AEC_ELEMENT_H
#define NAX_AEC_ELEMENT_H

#include <gst/audio/gstaudioaggregator.h>

G_DECLARE_FINAL_TYPE(NaxAec, nax_aec_element, NAX, AEC_ELEMENT, GstAudioAggregator)

#endif
