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

/* The class that the element is of beside its own: GST_..._CLASS of it. */
#define PARENT(kind) (GST_##kind##_CLASS(g_type_class_peek(GST_TYPE_AUDIO_AGGREGATOR)))

#define NAX_AEC_FRAME_TIME (16 * GST_MSECOND)

/* A frame's place, and how many of its sample instants the microphones have. */
struct part {
    GstClockTime pts;
    guint64 offset;
    guint instants;
};

struct _NaxAec {
    GstAudioAggregator parent;
    GstPad *mic;

    /* Under the object lock. */
    struct settings settings;
    gint captured_refs; /* "refs": taken with the microphones' format */
    gchar *probe_name;
    gboolean settings_changed, probe_changed;
    gint applied_delay;
    gdouble echo_removed;
    gboolean has_reference;
    GThread *gatherer; /* that goes through the pads now, or null: see pads.h */
    guint releasing;   /* threads that take the pad away */
    GCond gathered;

    /* Of the streaming thread, and of others while that is stopped. */
    struct framer *framer; /* null: pass through */
    struct settings used;
    gint rate;
    gint captured;       /* "refs", as it was taken */
    gboolean from_probe; /* the references of `used` */
    NaxEchoProbe *probe;
    gint probe_channels; /* that the probe named last played; 0: it never did */
    gint16 *played;      /* a frame from the probe */
    GstClockTime lag;    /* by which it is read later than the probe would have it */
    guint frames_without_probe;
    gdouble heard, left; /* powers of microphones and output while something plays, smoothed */
    gboolean failed;

    gboolean started;    /* the microphones have begun */
    gboolean ended;      /* and ended */
    gboolean flushed;    /* what was heard before must not come out */
    GstBuffer *begun;    /* the base class's output buffer that is gathered, or null */
    guint instants;      /* in it */
    guint mic_instants;  /* from its beginning, that are there */
    GstClockTime gap_to; /* running time at which the microphones' last gap ends */
    struct part held;    /* of the frame that the suppressor holds */
};

#endif
