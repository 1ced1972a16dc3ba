/*
 * Element "naxaec": acoustic echo cancellation of 16-bit audio.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#ifndef NAX_AEC_ELEMENT_H
#define NAX_AEC_ELEMENT_H

#include "naxechoprobe.h"

#include "framer.h"

#include <gst/audio/audio.h>
#include <gst/audio/gstaudioaggregator.h>

GST_DEBUG_CATEGORY_EXTERN(nax_aec_debug);
#define GST_CAT_DEFAULT nax_aec_debug

G_DECLARE_FINAL_TYPE(NaxAec, nax_aec_element, NAX, AEC_ELEMENT, GstAudioAggregator)

struct _NaxAec {
    GstAudioAggregator parent;
    GstPad *mic, *reference; /* reference: null without one */

    /* Under the object lock. */
    struct settings settings;
    gint captured_refs; /* references among the channels of the microphones' pad */
    gchar *probe_name;
    gboolean settings_changed, probe_changed;
    gint applied_delay;
    gdouble echo_removed;

    /* Of the streaming thread. */
    struct framer *framer; /* null: pass through */
    struct settings used;
    gint rate;
    NaxEchoProbe *probe;
    gint16 *played;     /* a frame from the probe */
    GstClockTime lag;   /* by which it is read later than the probe would have it */
    guint mic_instants; /* of the frame, that are there */
    guint frames_without_probe;
    gdouble heard, left; /* powers of microphones and output while something plays, smoothed */
    gboolean failed;
};

#endif
