/*
 * What the pads carry, where the references come from, and the canceller for that.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "format.h"

/* Frames until a probe that is named and not there is worth a warning: a second. */
enum { PATIENCE_FRAMES = 62 };

GstAudioInfo format_of(GstPad *pad)
{
    GstAudioInfo info;
    gst_audio_info_init(&info);
    if (!pad) return info;
    GST_OBJECT_LOCK(pad);
    info = GST_AUDIO_AGGREGATOR_PAD(pad)->info;
    GST_OBJECT_UNLOCK(pad);
    return info;
}

/* 0 until the pad has a format. */
static gint channels_of(const GstAudioInfo *info)
{
    return info->finfo && info->rate > 0 ? info->channels : 0;
}

/* Where the references come from, and how many. */
static gint count_references(NaxAec *self, gint captured, gint rate)
{
    const GstAudioInfo reference = format_of(self->reference);
    if (captured > 0) return captured;
    if (self->reference) return channels_of(&reference);
    return self->probe ? nax_echo_probe_channels(self->probe, rate) : 0;
}

static void warn_of_no_probe(NaxAec *self)
{
    GST_ELEMENT_WARNING(
        self, RESOURCE, NOT_FOUND, ("No reference: audio passes through with its echo."),
        ("the naxechoprobe that \"probe\" names %s",
         self->probe ? "plays nothing, or not at the microphones' rate" : "does not exist"));
}

/* One that plays nothing may have been replaced by another of its name. */
static void find_probe(NaxAec *self, gint rate)
{
    gboolean plays = self->probe && nax_echo_probe_channels(self->probe, rate) > 0;
    GST_OBJECT_LOCK(self);
    const gboolean named = self->probe_name != NULL;
    if (self->probe_changed || !plays) {
        gst_clear_object(&self->probe);
        if (named) self->probe = nax_echo_probe_find(self->probe_name);
        plays = self->probe && nax_echo_probe_channels(self->probe, rate) > 0;
        self->probe_changed = FALSE;
    }
    GST_OBJECT_UNLOCK(self);
    self->frames_without_probe = named && !plays ? self->frames_without_probe + 1 : 0;
    if (self->frames_without_probe == PATIENCE_FRAMES) warn_of_no_probe(self);
}

static void set_up(NaxAec *self, const struct settings *wanted, gint rate)
{
    const char *fault = wanted->mics < 1 || wanted->mics > MAX_MICS
                            ? "there must be 1 or 2 microphones beside the references"
                            : settings_check(wanted);
    framer_destroy(self->framer);
    self->framer = fault ? NULL : framer_create(wanted, rate);
    if (!self->framer) {
        GST_ELEMENT_ERROR(self, LIBRARY, SETTINGS, ("The echo canceller cannot run."),
                          ("%s", fault ? fault : "memory is short"));
        self->failed = TRUE;
        return;
    }
    g_free(self->played);
    self->played = g_new0(gint16, self->framer->size * (gsize)wanted->refs);
    self->heard = self->left = 0;
    self->lag = 0;
}

void format_adapt(NaxAec *self)
{
    const GstAudioInfo mic = format_of(self->mic);
    find_probe(self, mic.rate);
    GST_OBJECT_LOCK(self);
    struct settings wanted = self->settings;
    const gint captured = self->captured_refs;
    const gboolean changed = self->settings_changed;
    self->settings_changed = FALSE;
    GST_OBJECT_UNLOCK(self);

    wanted.refs = count_references(self, captured, mic.rate);
    wanted.mics = channels_of(&mic) - captured;
    if (captured == 0) wanted.mics_first = true; /* the pads tell */
    if (wanted.refs == 0) {
        framer_destroy(self->framer);
        self->framer = NULL;
    } else if (!self->framer || changed || wanted.refs != self->used.refs ||
               wanted.mics != self->used.mics || mic.rate != self->rate) {
        set_up(self, &wanted, mic.rate);
    }
    self->used = wanted;
    self->rate = mic.rate;
}

GstFlowReturn format_update_src_caps(GstAggregator *aggregator, GstCaps *downstream, GstCaps **caps)
{
    NaxAec *self = NAX_AEC_ELEMENT(aggregator);
    GstAudioInfo info = format_of(self->mic);
    if (!channels_of(&info)) return GST_AGGREGATOR_FLOW_NEED_DATA;
    GST_OBJECT_LOCK(self);
    const gint captured = self->captured_refs;
    GST_OBJECT_UNLOCK(self);
    if (captured > 0) {
        if (info.channels <= captured) {
            GST_ELEMENT_ERROR(
                self, LIBRARY, SETTINGS, ("The echo canceller cannot run."),
                ("%d channels leave no microphone beside %d references", info.channels, captured));
            return GST_FLOW_NOT_NEGOTIATED;
        }
        gst_audio_info_set_format(&info, GST_AUDIO_FORMAT_S16, info.rate, info.channels - captured,
                                  NULL);
    }
    GstCaps *own = gst_audio_info_to_caps(&info);
    *caps = gst_caps_intersect(own, downstream);
    gst_caps_unref(own);
    return GST_FLOW_OK;
}

GstCaps *format_accepted(NaxAec *self, GstPad *pad, GstCaps *filter)
{
    const GstAudioInfo other = format_of(pad == self->mic ? self->reference : self->mic);
    GstCaps *caps = gst_caps_make_writable(gst_pad_get_pad_template_caps(pad));
    if (channels_of(&other)) gst_caps_set_simple(caps, "rate", G_TYPE_INT, other.rate, NULL);
    if (filter) {
        GstCaps *both = gst_caps_intersect_full(filter, caps, GST_CAPS_INTERSECT_FIRST);
        gst_caps_unref(caps);
        caps = both;
    }
    return caps;
}

gboolean format_set(NaxAec *self, GstPad *pad, GstCaps *caps)
{
    const GstAudioInfo other = format_of(pad == self->mic ? self->reference : self->mic);
    GstAudioInfo info;
    gboolean fits = gst_audio_info_from_caps(&info, caps);
    if (fits && channels_of(&other) && other.rate != info.rate && pad == self->reference) {
        GST_ELEMENT_ERROR(self, STREAM, FORMAT, ("Microphones and reference differ in rate."),
                          ("%d and %d Hz", other.rate, info.rate));
        fits = FALSE;
    }
    if (fits) {
        gst_audio_aggregator_set_sink_caps(GST_AUDIO_AGGREGATOR(self),
                                           GST_AUDIO_AGGREGATOR_PAD(pad), caps);
        gst_pad_mark_reconfigure(GST_AGGREGATOR_SRC_PAD(self));
    }
    return fits;
}
