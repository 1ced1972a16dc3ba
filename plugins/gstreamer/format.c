/*
 * What the pads carry, where the references come from, and the canceller for that.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "naxaec.h"

/* Frames after which a warning says that the probe is missing: a second. */
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

GstCaps *format_accepted(NaxAec *self, GstPad *pad, GstCaps *filter)
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

void format_take_captured(NaxAec *self) { self->format.captured = properties_refs(self); }

GstFlowReturn format_update_src_caps(GstAggregator *aggregator, GstCaps *downstream, GstCaps **caps)
{
    NaxAec *self = NAX_AEC_ELEMENT(aggregator);
    const gint captured = self->format.captured;
    GstAudioInfo info = format_of(self->mic);
    if (info.channels == 0) return GST_AGGREGATOR_FLOW_NEED_DATA;
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

void format_fail(NaxAec *self, const char *reason)
{
    GST_ELEMENT_ERROR(self, LIBRARY, SETTINGS, ("The echo canceller cannot run."), ("%s", reason));
    self->format.failed = TRUE;
}

/* ---- the references -------------------------------------------------------------- */

static void warn_of_no_probe(NaxAec *self)
{
    GST_ELEMENT_WARNING(
        self, RESOURCE, NOT_FOUND, ("No reference: audio passes through with its echo."),
        ("the naxechoprobe that \"probe\" names %s",
         self->format.probe ? "plays nothing, or not at the microphones' rate" : "does not exist"));
}

/* A probe that plays nothing may have been replaced by another of its name: it is looked for
 * before each frame. A probe that is gone keeps its number of channels, and its audio is
 * silence, so that the canceller stays with what it learnt. */
static void follow_probe(NaxAec *self, gint rate)
{
    struct format *format = &self->format;
    gboolean named;
    const gboolean changed = properties_take_probe(self, &named);
    gint channels = format->probe ? nax_echo_probe_channels(format->probe, rate) : 0;
    if (changed || channels == 0) {
        gst_clear_object(&format->probe);
        format->probe = properties_find_probe(self, rate);
        channels = format->probe ? nax_echo_probe_channels(format->probe, rate) : 0;
    }
    if (changed || channels > 0 || rate != format->rate) format->probe_channels = channels;
    format->frames_without_probe =
        named && format->probe_channels == 0 ? format->frames_without_probe + 1 : 0;
    if (format->frames_without_probe == PATIENCE_FRAMES) warn_of_no_probe(self);
}

/* References at the pad; 0 without the pad. */
static gint count_at_pad(NaxAec *self, GstPad *reference, gint rate)
{
    const GstAudioInfo info = format_of(reference);
    if (info.channels > 0 && info.rate != rate &&
        gst_aggregator_pad_has_buffer(GST_AGGREGATOR_PAD(reference))) {
        GST_ELEMENT_ERROR(self, STREAM, FORMAT, ("Microphones and reference differ in rate."),
                          ("%d and %d Hz", rate, info.rate));
        self->format.failed = TRUE;
    }
    return info.channels;
}

/* The probe's lead is reduced where playback comes later than it asks for. */
const gint16 *format_read_probe(NaxAec *self, GstClockTime running)
{
    struct format *format = &self->format;
    const gsize instants = format->framer->size;
    if (!format->probe || !format->from_probe || !GST_CLOCK_TIME_IS_VALID(running)) return NULL;
    const GstClockTime now = gst_element_get_base_time(GST_ELEMENT(self)) + running;
    gsize late;
    while ((late = nax_echo_probe_read(format->probe, now > format->lag ? now - format->lag : 0,
                                       format->settings.refs, format->played, instants)) > 0 &&
           late < instants && format->lag < NAX_ECHO_PROBE_LEAD)
        format->lag = MIN(format->lag + 5 * GST_MSECOND, NAX_ECHO_PROBE_LEAD);
    return format->played;
}

/* ---- the canceller --------------------------------------------------------------- */

gboolean format_differs(NaxAec *self, struct settings *wanted)
{
    struct format *format = &self->format;
    const GstAudioInfo mic = format_of(self->mic);
    GstPad *reference = pads_reference(self);
    follow_probe(self, mic.rate);
    const gboolean changed = properties_take(self, wanted);

    format->from_probe = format->captured == 0 && !reference;
    wanted->mics = mic.channels - format->captured;
    wanted->refs = format->captured > 0 ? format->captured
                   : reference          ? count_at_pad(self, reference, mic.rate)
                                        : format->probe_channels;
    if (format->captured == 0) wanted->mics_first = true; /* they have pads of their own */
    gst_clear_object(&reference);
    const gboolean other_rate = mic.rate != format->rate;
    format->rate = mic.rate;
    if (!format->framer) return wanted->refs > 0;
    return changed || other_rate || wanted->refs != format->settings.refs ||
           wanted->mics != format->settings.mics;
}

void format_set_up(NaxAec *self, const struct settings *wanted)
{
    struct format *format = &self->format;
    framer_destroy(format->framer);
    format->framer = NULL;
    format->settings = *wanted;
    format->lag = 0;
    if (wanted->refs == 0) return properties_tell(self, &NO_REPORT);
    const char *fault = wanted->mics < 1 || wanted->mics > MAX_MICS
                            ? "there must be 1 or 2 microphones beside the references"
                            : settings_check(wanted);
    if (!fault && !(format->framer = framer_create(wanted, format->rate)))
        fault = "memory is short";
    if (fault) return format_fail(self, fault);
    g_free(format->played);
    format->played = g_new0(gint16, format->framer->size * (gsize)wanted->refs);
}

void format_clear(NaxAec *self)
{
    framer_destroy(self->format.framer);
    gst_clear_object(&self->format.probe);
    g_free(self->format.played);
    self->format = (struct format){0};
}
