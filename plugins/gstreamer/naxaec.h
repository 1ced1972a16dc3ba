/*
 * The record of the element "naxaec", and what its files do for each other:
 *   naxaec.c      the class, with the list of its callbacks in the order of their calls
 *   properties.c  the settings as they are set, and what is told
 *   pads.c        the pad "reference", which comes and goes
 *   format.c      what the pads carry, where the references come from, and the canceller
 *   stream.c      a buffer's way through the element
 *   frame.c       the samples of one frame
 * A file writes only the part of the record that is named after it.
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

/* The base class as GST_..._CLASS: its methods do what ours leave to them. */
#define PARENT(kind) (GST_##kind##_CLASS(g_type_class_peek(GST_TYPE_AUDIO_AGGREGATOR)))

#define NAX_AEC_FRAME_TIME (16 * GST_MSECOND)

/* ---- the record ------------------------------------------------------------------ */

/* properties.c. Any thread, under the object lock. */
struct properties {
    struct settings settings;                 /* without channels: the pads give them */
    gint refs;                                /* references among the microphones' channels */
    gchar *probe;                             /* name, or null */
    gboolean settings_changed, probe_changed; /* since they were taken */
    nax_meter_report report;                  /* of the last frame, or NO_REPORT */
};

/* Without a canceller. */
extern const nax_meter_report NO_REPORT;

/* pads.c. Any thread, under the object lock. */
struct pads {
    gboolean has_reference;
    GThread *gatherer; /* the thread that goes through the pads now, or null */
    guint releasing;   /* threads that release the reference's pad */
    GCond gathered;
};

/* format.c. The streaming thread. */
struct format {
    struct framer *framer;    /* null: audio passes through */
    struct settings settings; /* of the framer */
    gint rate;                /* Hz, of the microphones */
    gint captured;            /* "refs" when the microphones' format came */
    gboolean failed;          /* an error was posted: the stream ends */
    gboolean from_probe;      /* the references come from a probe */
    NaxEchoProbe *probe;      /* null: there is none of the name */
    gint probe_channels;      /* that it named last; 0: never any */
    guint frames_without_probe;
    GstClockTime lag; /* by which the probe is read later than its lead asks for */
    gint16 *played;   /* a frame of the probe */
};

/* The place of a frame, and the number of sample instants that the microphones have in it. */
struct part {
    GstClockTime pts;
    guint64 offset;
    guint instants;
};

/* frame.c. The streaming thread. */
struct frame {
    GstBuffer *buffer;   /* the base class's, from frame_begin to frame_end; else null */
    guint instants;      /* its length */
    guint mic_instants;  /* of these, from the beginning, that the microphones gave */
    gboolean misfits;    /* its length is not the framer's */
    GstClockTime gap_to; /* running time at which the microphones' last gap ends */
    struct part held;    /* of the frame that the suppressor holds */
};

/* stream.c. The streaming thread. */
struct stream {
    gboolean started; /* the microphones' first buffer came */
    gboolean flushed; /* the framer still holds sound from before a flush */
};

struct _NaxAec {
    GstAudioAggregator parent;
    GstPad *mic; /* "sink" */
    struct properties properties;
    struct pads pads;
    struct format format;
    struct stream stream;
    struct frame frame;
};

/* ---- properties.c ---------------------------------------------------------------- */

void properties_install(GObjectClass *object);
void properties_set(GObject *object, guint id, const GValue *value, GParamSpec *spec);
void properties_get(GObject *object, guint id, GValue *value, GParamSpec *spec);

/* Copies the settings. Returns whether one changed since the last call. */
gboolean properties_take(NaxAec *self, struct settings *settings);

/* Gives whether "probe" names one. Returns whether it changed since the last call. */
gboolean properties_take_probe(NaxAec *self, gboolean *named);

/* The probe that "probe" names, which the caller unrefs, or null. */
NaxEchoProbe *properties_find_probe(NaxAec *self, gint rate);

gint properties_refs(NaxAec *self);

/* Sets the read-only ones. Notifies of a delay and a verdict that changed, and posts the
 * message of the verdict. */
void properties_tell(NaxAec *self, const nax_meter_report *report);

/* ---- pads.c ---------------------------------------------------------------------- */

/* Makes a sink pad. It accepts every rate: format.c names the two that differ. */
GstAggregatorPad *pads_create(GstPadTemplate *template, const gchar *name);

/* The pad "reference", which the caller unrefs, or null. */
GstPad *pads_reference(NaxAec *self);

/* No pad is released between these two. The second may be called twice. */
void pads_hold(NaxAec *self);
void pads_let_go(NaxAec *self);

GstPad *pads_request(GstElement *element, GstPadTemplate *template, const gchar *name,
                     const GstCaps *caps);
void pads_release(GstElement *element, GstPad *pad);

/* Sends an end of stream to a reference that nothing is linked to. Where nothing is live the
 * base class would wait for its audio for ever. A new link starts the pad's stream again. */
void pads_end_unlinked(GstPad *reference);

/* ---- format.c -------------------------------------------------------------------- */

/* A pad's format; rate and channels are 0 without a pad and before its format. */
GstAudioInfo format_of(GstPad *pad);

/* The caps that a sink pad accepts: with the other pad's rate, if that has one. */
GstCaps *format_accepted(NaxAec *self, GstPad *pad, GstCaps *filter);

/* The microphones have a new format: takes "refs" with it. */
void format_take_captured(NaxAec *self);

/* The output's format: the microphones' without the captured references. */
GstFlowReturn format_update_src_caps(GstAggregator *aggregator, GstCaps *downstream,
                                     GstCaps **caps);

/* Returns whether pads, probe and settings need another canceller than there is, and the
 * settings for it. Called before each frame. */
gboolean format_differs(NaxAec *self, struct settings *wanted);

/* Replaces the canceller; without references there is none. */
void format_set_up(NaxAec *self, const struct settings *wanted);

/* The probe's audio for a frame that begins at a running time: as many interleaved channels
 * as there are references. Null where the references come from elsewhere. */
const gint16 *format_read_probe(NaxAec *self, GstClockTime running);

/* Posts an error with a reason. The stream ends. */
void format_fail(NaxAec *self, const char *reason);

/* Releases canceller and probe. */
void format_clear(NaxAec *self);

/* ---- stream.c -------------------------------------------------------------------- */

/* A sink pad has new caps. Those of the microphones end the frame that is begun. */
gboolean stream_set_caps(NaxAec *self, GstAggregatorPad *pad, GstCaps *caps);

/* The base class's methods, in the order of its calls. */
GstBuffer *stream_clip(GstAggregator *aggregator, GstAggregatorPad *pad, GstBuffer *buffer);
GstClockTime stream_get_next_time(GstAggregator *aggregator);
GstFlowReturn stream_aggregate(GstAggregator *aggregator, gboolean timeout);
GstBuffer *stream_create_output_buffer(GstAudioAggregator *aggregator, guint instants);
GstFlowReturn stream_finish_buffer(GstAggregator *aggregator, GstBuffer *buffer);

/* Forgets where the audio was. After a flush the framer's sound of before is silenced. */
void stream_clear(NaxAec *self, gboolean flushed);

/* ---- frame.c --------------------------------------------------------------------- */

/* Begins a frame of a number of sample instants, all silent, in the base class's buffer. */
void frame_begin(NaxAec *self, GstBuffer *buffer, guint instants);

/* Takes in a pad's samples for it; the base class's method. */
gboolean frame_take_in(GstAudioAggregator *aggregator, GstAudioAggregatorPad *pad, GstBuffer *in,
                       guint in_at, GstBuffer *out, guint out_at, guint instants);

/* Notes a gap of the microphones: it counts as their audio, and the base class passes no
 * samples for it. */
void frame_note_gap(NaxAec *self, const GstSegment *segment, const GstBuffer *gap);

/* Ends the frame begun: cancels it and fills the buffer, which has its timestamp. With a
 * suppressor the buffer gets the samples and the timestamp of the frame before. `ends`: the
 * microphones end in this frame; without audio of theirs *ended is set. Returns whether the
 * buffer holds anything. */
gboolean frame_end(NaxAec *self, GstBuffer *buffer, gboolean ends, gboolean *ended);

/* Whether the suppressor holds a frame, and fills a buffer with it. */
gboolean frame_is_held(const NaxAec *self);
gboolean frame_drain(NaxAec *self, GstBuffer *buffer);

/* Drops the frame begun, but not the one that is held. */
void frame_drop(NaxAec *self);

/* Forgets all frames and gaps. */
void frame_clear(NaxAec *self);

#endif
