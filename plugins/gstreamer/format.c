/*
 * What the pads carry, where the references come from, and the canceller for that.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "format.h"
#include "pads.h"
#include "properties.h"

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

GstCaps *format_wish(NaxAec *self, GstPad *pad, GstCaps *filter)
{
    GstPad *reference = pads_reference(self);
    const GstAudioInfo other = format_of(pad == self->mic ? reference : self->mic);
    gst_clear_object(&reference);
    GstCaps *caps = gst_caps_make_writable(gst_pad_get_pad_template_caps(pad));
    if (other.channels > 0) gst_caps_set_simple(caps, "rate", G_TYPE_INT, other.rate, NULL);
    if (filter) {
        GstCaps *both = gst_caps_intersect_full(filter, caps, GST_CAPS_INTERSECT_FIRST);
        gst_caps_unref(caps);
        caps = both;
    }
    return caps;
}

GstFlowReturn format_update_src_caps(GstAggregator *aggregator, GstCaps *downstream, GstCaps **caps)
{
    NaxAec *self = NAX_AEC_ELEMENT(aggregator);
    GstAudioInfo info = format_of(self->mic);
    if (info.channels == 0) return GST_AGGREGATOR_FLOW_NEED_DATA;
    if (self->captured > 0) {
        if (info.channels <= self->captured) {
            GST_ELEMENT_ERROR(self, LIBRARY, SETTINGS, ("The echo canceller cannot run."),
                              ("%d channels leave no microphone beside %d references",
                               info.channels, self->captured));
            return GST_FLOW_NOT_NEGOTIATED;
        }
        gst_audio_info_set_format(&info, GST_AUDIO_FORMAT_S16, info.rate,
                                  info.channels - self->captured, NULL);
    }
    GstCaps *own = gst_audio_info_to_caps(&info);
    *caps = gst_caps_intersect(own, downstream);
    gst_caps_unref(own);
    return GST_FLOW_OK;
}

void format_fail(NaxAec *self, const char *fault)
{
    GST_ELEMENT_ERROR(self, LIBRARY, SETTINGS, ("The echo canceller cannot run."), ("%s", fault));
    self->failed = TRUE;
}

static void warn_of_no_probe(NaxAec *self)
{
    GST_ELEMENT_WARNING(
        self, RESOURCE, NOT_FOUND, ("No reference: audio passes through with its echo."),
        ("the naxechoprobe that \"probe\" names %s",
         self->probe ? "plays nothing, or not at the microphones' rate" : "does not exist"));
}

/* One that plays nothing may have been replaced by another of its name; when it is gone
 * silence is played, so that what was learnt about the room stays. */
static void follow_probe(NaxAec *self, gint rate)
{
    gint channels = self->probe ? nax_echo_probe_channels(self->probe, rate) : 0;
    NaxEchoProbe *before = NULL;
    GST_OBJECT_LOCK(self);
    const gboolean named = self->probe_name != NULL, other = self->probe_changed;
    if (other || channels == 0) {
        before = self->probe;
        self->probe = named ? nax_echo_probe_find(self->probe_name, rate) : NULL;
        self->probe_changed = FALSE;
    }
    GST_OBJECT_UNLOCK(self);
    gst_clear_object(&before); /* perhaps the last one's: not under the lock */
    channels = self->probe ? nax_echo_probe_channels(self->probe, rate) : 0;
    if (other || channels > 0 || rate != self->rate) self->probe_channels = channels;
    self->frames_without_probe =
        named && self->probe_channels == 0 ? self->frames_without_probe + 1 : 0;
    if (self->frames_without_probe == PATIENCE_FRAMES) warn_of_no_probe(self);
}

/* The references at the pad; 0 without it. */
static gint count_at_pad(NaxAec *self, GstPad *reference, gint rate)
{
    const GstAudioInfo info = format_of(reference);
    if (info.channels > 0 && info.rate != rate &&
        gst_aggregator_pad_has_buffer(GST_AGGREGATOR_PAD(reference))) {
        GST_ELEMENT_ERROR(self, STREAM, FORMAT, ("Microphones and reference differ in rate."),
                          ("%d and %d Hz", rate, info.rate));
        self->failed = TRUE;
    }
    return info.channels;
}

gboolean format_differs(NaxAec *self, struct settings *wanted)
{
    const GstAudioInfo mic = format_of(self->mic);
    GstPad *reference = pads_reference(self);
    follow_probe(self, mic.rate);
    GST_OBJECT_LOCK(self);
    *wanted = self->settings;
    const gboolean changed = self->settings_changed;
    self->settings_changed = FALSE;
    GST_OBJECT_UNLOCK(self);

    self->from_probe = self->captured == 0 && !reference;
    wanted->mics = mic.channels - self->captured;
    wanted->refs = self->captured > 0 ? self->captured
                   : reference        ? count_at_pad(self, reference, mic.rate)
                                      : self->probe_channels;
    if (self->captured == 0) wanted->mics_first = true; /* the pads tell */
    gst_clear_object(&reference);
    const gboolean other_rate = mic.rate != self->rate;
    self->rate = mic.rate;
    if (!self->framer) return wanted->refs > 0;
    return changed || other_rate || wanted->refs != self->used.refs ||
           wanted->mics != self->used.mics;
}

void format_set_up(NaxAec *self, const struct settings *wanted)
{
    framer_destroy(self->framer);
    self->framer = NULL;
    self->used = *wanted;
    self->heard = self->left = 0;
    self->lag = 0;
    if (wanted->refs == 0) return properties_tell(self, 0, 0);
    const char *fault = wanted->mics < 1 || wanted->mics > MAX_MICS
                            ? "there must be 1 or 2 microphones beside the references"
                            : settings_check(wanted);
    if (!fault && !(self->framer = framer_create(wanted, self->rate))) fault = "memory is short";
    if (fault) return format_fail(self, fault);
    g_free(self->played);
    self->played = g_new0(gint16, self->framer->size * (gsize)wanted->refs);
}
