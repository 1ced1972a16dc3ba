/*
 * The microphones come in at "sink". The references come from one of
 *   - a pad "reference", on request,
 *   - the naxechoprobe that "probe" names, in whatever pipeline,
 *   - "sink" itself, whose last or first channels they are: "refs".
 * Without any, audio passes through.
 *
 * GstAudioAggregator gathers 16 ms of both pads by their timestamps, fills gaps with
 * silence, and in a live pipeline does not wait longer for the reference than for the
 * microphones: its output buffers are the library's frames.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "naxaec.h"
#include "naxechoprobe.h"

#include "framer.h"

#include <gst/audio/audio.h>
#include <math.h>
#include <string.h>

GST_DEBUG_CATEGORY_STATIC(nax_aec_debug);
#define GST_CAT_DEFAULT nax_aec_debug

/* Frames until a probe that is named and not there is worth a warning: a second. */
enum { PATIENCE_FRAMES = 62 };

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

G_DEFINE_TYPE(NaxAec, nax_aec_element, GST_TYPE_AUDIO_AGGREGATOR)

enum {
    PROPERTY_PROBE = 1,
    PROPERTY_REFS,
    PROPERTY_ORDER,
    PROPERTY_DROP,
    PROPERTY_DELAY,
    PROPERTY_DELAY_ESTIMATION,
    PROPERTY_REMAP,
    PROPERTY_SUPPRESS,
    PROPERTY_APPLIED_DELAY,
    PROPERTY_ECHO_REMOVED,
    PROPERTIES
};
static GParamSpec *properties[PROPERTIES];

#define CAPS(channels)                                                                             \
    "audio/x-raw, format = " GST_AUDIO_NE(                                                         \
        S16) ", layout = interleaved, "                                                            \
             "rate = { 8000, 16000, 32000, 48000 }, channels = " channels
static GstStaticPadTemplate sink_template = GST_STATIC_PAD_TEMPLATE(
    "sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(CAPS("[ 1, 32 ]")));
static GstStaticPadTemplate reference_template = GST_STATIC_PAD_TEMPLATE(
    "reference", GST_PAD_SINK, GST_PAD_REQUEST, GST_STATIC_CAPS(CAPS("[ 1, 30 ]")));
static GstStaticPadTemplate src_template =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(CAPS("[ 1, 32 ]")));

#define PARENT(kind) (GST_##kind##_CLASS(nax_aec_element_parent_class))

/* ---- the format ------------------------------------------------------------------- */

static GstAudioInfo info_of(GstPad *pad)
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
    const GstAudioInfo reference = info_of(self->reference);
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

/* Before each frame: the canceller that the pads, the probe and the settings ask for. */
static void adapt_to_format(NaxAec *self)
{
    const GstAudioInfo mic = info_of(self->mic);
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

static GstFlowReturn update_src_caps(GstAggregator *aggregator, GstCaps *downstream, GstCaps **caps)
{
    NaxAec *self = NAX_AEC_ELEMENT(aggregator);
    GstAudioInfo info = info_of(self->mic);
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

static GstCaps *accepted_caps(NaxAec *self, GstPad *pad, GstCaps *filter)
{
    const GstAudioInfo other = info_of(pad == self->mic ? self->reference : self->mic);
    GstCaps *caps = gst_caps_make_writable(gst_pad_get_pad_template_caps(pad));
    if (channels_of(&other)) gst_caps_set_simple(caps, "rate", G_TYPE_INT, other.rate, NULL);
    if (filter) {
        GstCaps *both = gst_caps_intersect_full(filter, caps, GST_CAPS_INTERSECT_FIRST);
        gst_caps_unref(caps);
        caps = both;
    }
    return caps;
}

static gboolean sink_query(GstAggregator *aggregator, GstAggregatorPad *pad, GstQuery *query)
{
    if (GST_QUERY_TYPE(query) != GST_QUERY_CAPS)
        return PARENT(AGGREGATOR)->sink_query(aggregator, pad, query);
    GstCaps *filter;
    gst_query_parse_caps(query, &filter);
    GstCaps *caps = accepted_caps(NAX_AEC_ELEMENT(aggregator), GST_PAD(pad), filter);
    gst_query_set_caps_result(query, caps);
    gst_caps_unref(caps);
    return TRUE;
}

static gboolean sink_event(GstAggregator *aggregator, GstAggregatorPad *pad, GstEvent *event)
{
    if (GST_EVENT_TYPE(event) != GST_EVENT_CAPS)
        return PARENT(AGGREGATOR)->sink_event(aggregator, pad, event);
    NaxAec *self = NAX_AEC_ELEMENT(aggregator);
    const GstAudioInfo other = info_of(GST_PAD(pad) == self->mic ? self->reference : self->mic);
    GstAudioInfo info;
    GstCaps *caps;
    gst_event_parse_caps(event, &caps);
    gboolean fits = gst_audio_info_from_caps(&info, caps);
    if (fits && channels_of(&other) && other.rate != info.rate && GST_PAD(pad) == self->reference) {
        GST_ELEMENT_ERROR(self, STREAM, FORMAT, ("Microphones and reference differ in rate."),
                          ("%d and %d Hz", other.rate, info.rate));
        fits = FALSE;
    }
    if (fits) {
        gst_audio_aggregator_set_sink_caps(GST_AUDIO_AGGREGATOR(self),
                                           GST_AUDIO_AGGREGATOR_PAD(pad), caps);
        gst_pad_mark_reconfigure(GST_AGGREGATOR_SRC_PAD(aggregator));
    }
    gst_event_unref(event);
    return fits;
}

/* ---- a frame ---------------------------------------------------------------------- */

static GstBuffer *create_output_buffer(GstAudioAggregator *aggregator, guint instants)
{
    NaxAec *self = NAX_AEC_ELEMENT(aggregator);
    adapt_to_format(self);
    self->mic_instants = 0;
    if (self->framer) {
        struct framer *framer = self->framer;
        memset(framer->in, 0, framer->size * framer->selected * sizeof *framer->in);
        if (instants != framer->size && !self->failed) {
            GST_ELEMENT_ERROR(self, LIBRARY, SETTINGS, ("The echo canceller cannot run."),
                              ("output-buffer-duration is not 16 ms"));
            self->failed = TRUE;
        }
    }
    return PARENT(AUDIO_AGGREGATOR)->create_output_buffer(aggregator, instants);
}

/* Copies the channels of a pad that the canceller uses; the pad's first is number first. */
static void take_in(struct framer *framer, gint first, gint channels, const gint16 *from, guint at,
                    guint instants)
{
    for (gsize c = 0; c < framer->selected; c++) {
        const gint channel = framer->source[c] - first;
        if (channel < 0 || channel >= channels) continue;
        gint16 *to = framer->in + at * framer->selected + c;
        for (guint t = 0; t < instants; t++)
            to[t * framer->selected] = from[t * (guint)channels + (guint)channel];
    }
}

static gboolean aggregate_one_buffer(GstAudioAggregator *aggregator, GstAudioAggregatorPad *pad,
                                     GstBuffer *in, guint in_at, GstBuffer *out, guint out_at,
                                     guint instants)
{
    NaxAec *self = NAX_AEC_ELEMENT(aggregator);
    const gboolean is_mic = GST_PAD(pad) == self->mic;
    const guint channels = (guint)pad->info.channels;
    GstMapInfo map;
    if (self->failed || !gst_buffer_map(in, &map, GST_MAP_READ)) return FALSE;
    const gint16 *from = (const gint16 *)(gconstpointer)map.data + in_at * channels;
    if (is_mic) self->mic_instants = MAX(self->mic_instants, out_at + instants);
    if (self->framer)
        take_in(self->framer, is_mic ? 0 : self->used.mics, (gint)channels, from, out_at, instants);
    else if (is_mic)
        gst_buffer_fill(out, out_at * channels * sizeof *from, from,
                        instants * channels * sizeof *from);
    gst_buffer_unmap(in, &map);
    return TRUE;
}

/* The lead that the probe keeps is given up as far as playback is not that early. */
static void take_in_probe(NaxAec *self, GstBuffer *buffer)
{
    const struct framer *framer = self->framer;
    GstSegment *segment = &GST_AGGREGATOR_PAD(GST_AGGREGATOR_SRC_PAD(self))->segment;
    const GstClockTime running =
        gst_segment_to_running_time(segment, GST_FORMAT_TIME, GST_BUFFER_PTS(buffer));
    if (!GST_CLOCK_TIME_IS_VALID(running)) return;
    const GstClockTime now = gst_element_get_base_time(GST_ELEMENT(self)) + running;
    gsize missing;
    while ((missing = nax_echo_probe_read(self->probe, now > self->lag ? now - self->lag : 0,
                                          self->used.refs, self->played, framer->size)) > 0 &&
           missing < framer->size && self->lag < NAX_ECHO_PROBE_LEAD)
        self->lag = MIN(self->lag + 5 * GST_MSECOND, NAX_ECHO_PROBE_LEAD);
    take_in(self->framer, self->used.mics, self->used.refs, self->played, 0, (guint)framer->size);
}

/* Powers over the last two seconds or so in which something was played above -60 dB. */
static void measure(NaxAec *self)
{
    const struct framer *framer = self->framer;
    gfloat heard = 0, left = 0, played = 0;
    for (gsize t = 0; t < framer->size; t++) {
        const gint16 *in = framer->in + t * framer->selected;
        const gint16 *out = framer_out(framer) + t * framer->stride;
        for (gsize m = 0; m < framer->mics; m++) {
            heard += (gfloat)in[m] * in[m];
            left += (gfloat)out[m] * out[m];
        }
        for (gsize r = framer->mics; r < framer->selected; r++)
            played += (gfloat)in[r] * in[r];
    }
    if (played <= 32.768f * 32.768f * (gfloat)framer->size) return;
    self->heard += (heard - self->heard) / 128;
    self->left += (left - self->left) / 128;
}

static void tell(NaxAec *self)
{
    const gdouble removed =
        self->heard > 0 && self->left > 0 ? 10 * log10(self->heard / self->left) : 0;
    GST_OBJECT_LOCK(self);
    const gboolean moved = self->applied_delay != self->framer->delay;
    self->applied_delay = self->framer->delay;
    self->echo_removed = removed;
    GST_OBJECT_UNLOCK(self);
    if (moved) g_object_notify_by_pspec(G_OBJECT(self), properties[PROPERTY_APPLIED_DELAY]);
}

static void cancel(NaxAec *self, GstBuffer *buffer)
{
    struct framer *framer = self->framer;
    GstMapInfo map;
    if (self->probe && !self->reference && self->used.refs > 0) take_in_probe(self, buffer);
    framer_advance(framer, framer->size);
    if (!gst_buffer_map(buffer, &map, GST_MAP_WRITE)) return;
    gint16 *to = (gint16 *)(gpointer)map.data;
    const gint16 *from = framer_out(framer);
    const gsize instants = MIN(map.size / sizeof *to / framer->mics, framer->size);
    for (gsize t = 0; t < instants; t++)
        for (gsize m = 0; m < framer->mics; m++)
            to[t * framer->mics + m] = from[t * framer->stride + m];
    gst_buffer_unmap(buffer, &map);
    measure(self);
    tell(self);
}

/* The microphones' end is the end, also when the reference goes on. */
static GstBuffer *trim(NaxAec *self, GstBuffer *buffer)
{
    const gint channels = info_of(GST_AGGREGATOR_SRC_PAD(self)).channels;
    const gsize bytes = self->mic_instants * (gsize)channels * sizeof(gint16);
    if (gst_buffer_get_size(buffer) > bytes) {
        gst_buffer_set_size(buffer, (gssize)bytes);
        GST_BUFFER_DURATION(buffer) =
            gst_util_uint64_scale(self->mic_instants, GST_SECOND, (guint64)self->rate);
    }
    return buffer;
}

static GstFlowReturn finish_buffer(GstAggregator *aggregator, GstBuffer *buffer)
{
    NaxAec *self = NAX_AEC_ELEMENT(aggregator);
    const gboolean ends = gst_aggregator_pad_is_eos(GST_AGGREGATOR_PAD(self->mic));
    if (self->failed || (ends && self->mic_instants == 0)) {
        gst_buffer_unref(buffer);
        return self->failed ? GST_FLOW_ERROR : GST_FLOW_EOS;
    }
    if (self->framer) cancel(self, buffer);
    if (ends) buffer = trim(self, buffer);
    return PARENT(AGGREGATOR)->finish_buffer(aggregator, buffer);
}

/* ---- life ------------------------------------------------------------------------- */

static gboolean stop(GstAggregator *aggregator)
{
    NaxAec *self = NAX_AEC_ELEMENT(aggregator);
    framer_destroy(self->framer);
    self->framer = NULL;
    gst_clear_object(&self->probe);
    g_clear_pointer(&self->played, g_free);
    self->frames_without_probe = 0;
    self->failed = FALSE;
    return PARENT(AGGREGATOR)->stop(aggregator);
}

static GstPad *request_new_pad(GstElement *element, GstPadTemplate *template, const gchar *name,
                               const GstCaps *caps)
{
    NaxAec *self = NAX_AEC_ELEMENT(element);
    (void)name;
    if (self->reference) return NULL;
    return self->reference = PARENT(ELEMENT)->request_new_pad(element, template, "reference", caps);
}

static GstAggregatorPad *create_new_pad(GstAggregator *aggregator, GstPadTemplate *template,
                                        const gchar *name, const GstCaps *caps)
{
    (void)aggregator, (void)name, (void)caps;
    return g_object_new(GST_TYPE_AUDIO_AGGREGATOR_PAD, "name", "reference", "direction",
                        GST_PAD_SINK, "template", template, NULL);
}

static void release_pad(GstElement *element, GstPad *pad)
{
    NaxAec *self = NAX_AEC_ELEMENT(element);
    if (pad == self->reference) self->reference = NULL;
    PARENT(ELEMENT)->release_pad(element, pad);
}

static void set_text(NaxAec *self, const gchar *name, const gchar *text)
{
    struct settings settings = self->settings;
    const char *fault = settings_set(&settings, name, text ? text : "");
    if (fault)
        g_warning("naxaec: %s: '%s' %s", name, text ? text : "", fault);
    else
        self->settings = settings;
}

static void set_property(GObject *object, guint id, const GValue *value, GParamSpec *spec)
{
    NaxAec *self = NAX_AEC_ELEMENT(object);
    GST_OBJECT_LOCK(self);
    switch (id) {
    case PROPERTY_PROBE:
        g_free(self->probe_name);
        self->probe_name = g_value_dup_string(value);
        self->probe_changed = TRUE;
        break;
    case PROPERTY_REFS: self->captured_refs = g_value_get_int(value); break;
    case PROPERTY_DROP: self->settings.drop = g_value_get_int(value); break;
    case PROPERTY_DELAY: self->settings.delay = g_value_get_int(value); break;
    case PROPERTY_DELAY_ESTIMATION:
        self->settings.delay_estimation = g_value_get_boolean(value);
        break;
    case PROPERTY_SUPPRESS: self->settings.suppress = g_value_get_boolean(value); break;
    case PROPERTY_ORDER:
    case PROPERTY_REMAP: set_text(self, spec->name, g_value_get_string(value)); break;
    default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
    }
    self->settings_changed |= id != PROPERTY_PROBE;
    GST_OBJECT_UNLOCK(self);
}

static void get_remap(const struct settings *settings, GValue *value)
{
    gchar text[16] = "";
    if (settings->remap_count == 1) g_snprintf(text, sizeof text, "%d", settings->remap[0]);
    if (settings->remap_count == 2)
        g_snprintf(text, sizeof text, "%d,%d", settings->remap[0], settings->remap[1]);
    g_value_set_string(value, text);
}

static void get_property(GObject *object, guint id, GValue *value, GParamSpec *spec)
{
    NaxAec *self = NAX_AEC_ELEMENT(object);
    GST_OBJECT_LOCK(self);
    switch (id) {
    case PROPERTY_PROBE: g_value_set_string(value, self->probe_name); break;
    case PROPERTY_REFS: g_value_set_int(value, self->captured_refs); break;
    case PROPERTY_ORDER:
        g_value_set_static_string(value, self->settings.mics_first ? "mics-first" : "refs-first");
        break;
    case PROPERTY_DROP: g_value_set_int(value, self->settings.drop); break;
    case PROPERTY_DELAY: g_value_set_int(value, self->settings.delay); break;
    case PROPERTY_DELAY_ESTIMATION:
        g_value_set_boolean(value, self->settings.delay_estimation);
        break;
    case PROPERTY_SUPPRESS: g_value_set_boolean(value, self->settings.suppress); break;
    case PROPERTY_REMAP: get_remap(&self->settings, value); break;
    case PROPERTY_APPLIED_DELAY: g_value_set_int(value, self->applied_delay); break;
    case PROPERTY_ECHO_REMOVED: g_value_set_double(value, self->echo_removed); break;
    default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
    }
    GST_OBJECT_UNLOCK(self);
}

static void finalize(GObject *object)
{
    g_free(NAX_AEC_ELEMENT(object)->probe_name);
    G_OBJECT_CLASS(nax_aec_element_parent_class)->finalize(object);
}

static void nax_aec_element_init(NaxAec *self)
{
    GstPadTemplate *template =
        gst_element_class_get_pad_template(GST_ELEMENT_GET_CLASS(self), "sink");
    self->settings = DEFAULT_SETTINGS;
    self->mic = g_object_new(GST_TYPE_AUDIO_AGGREGATOR_PAD, "name", "sink", "direction",
                             GST_PAD_SINK, "template", template, NULL);
    gst_element_add_pad(GST_ELEMENT(self), self->mic);
    gst_util_set_object_arg(G_OBJECT(self), "output-buffer-duration-fraction", "2/125");
    gst_util_set_object_arg(G_OBJECT(self), "start-time-selection", "first");
    gst_aggregator_set_ignore_inactive_pads(GST_AGGREGATOR(self), TRUE);
}

static void install_properties(GObjectClass *object)
{
    const GParamFlags read = G_PARAM_READABLE | G_PARAM_STATIC_STRINGS;
    const GParamFlags both = read | G_PARAM_WRITABLE;
    properties[PROPERTY_PROBE] = g_param_spec_string(
        "probe", "Probe", "Name of the naxechoprobe in the playback pipeline", NULL, both);
    properties[PROPERTY_REFS] =
        g_param_spec_int("refs", "References", "References among the channels of the sink pad", 0,
                         MAX_REFS, 0, both);
    properties[PROPERTY_ORDER] = g_param_spec_string(
        "order", "Order", "Of these channels: mics-first or refs-first", "mics-first", both);
    properties[PROPERTY_DROP] = g_param_spec_int(
        "drop", "Drop", "Keep the last references from the canceller", 0, MAX_REFS, 0, both);
    properties[PROPERTY_DELAY] =
        g_param_spec_int("delay", "Delay", "Where the search for the echo starts, in samples", 0,
                         MAX_DELAY, 0, both);
    properties[PROPERTY_DELAY_ESTIMATION] = g_param_spec_boolean(
        "delay-estimation", "Delay estimation",
        "Find the echo's delay; else the reference stays where it is", TRUE, both);
    properties[PROPERTY_REMAP] = g_param_spec_string(
        "remap", "Remap",
        "Channels, from 0, that are the microphones, as in 1,0; the reference's follow the sink's",
        "", both);
    properties[PROPERTY_SUPPRESS] = g_param_spec_boolean(
        "suppress", "Suppress",
        "Suppress the echo that the canceller leaves; sound comes out 16 ms later than its "
        "timestamps",
        FALSE, both);
    properties[PROPERTY_APPLIED_DELAY] = g_param_spec_int(
        "applied-delay", "Applied delay",
        "Samples that the reference is held back; changes are notified", 0, MAX_DELAY, 0, read);
    properties[PROPERTY_ECHO_REMOVED] = g_param_spec_double(
        "echo-removed", "Echo removed",
        "Level of the microphones less that of the output, in dB, over the last two seconds in "
        "which something was played",
        -100, 100, 0, read);
    g_object_class_install_properties(object, PROPERTIES, properties);
}

static void nax_aec_element_class_init(NaxAecClass *class)
{
    GObjectClass *object = G_OBJECT_CLASS(class);
    GstElementClass *element = GST_ELEMENT_CLASS(class);
    GstAggregatorClass *aggregator = GST_AGGREGATOR_CLASS(class);
    GstAudioAggregatorClass *audio = GST_AUDIO_AGGREGATOR_CLASS(class);
    GST_DEBUG_CATEGORY_INIT(nax_aec_debug, "naxaec", 0, "acoustic echo cancellation");

    object->set_property = set_property;
    object->get_property = get_property;
    object->finalize = finalize;
    install_properties(object);

    gst_element_class_add_static_pad_template_with_gtype(element, &sink_template,
                                                         GST_TYPE_AUDIO_AGGREGATOR_PAD);
    gst_element_class_add_static_pad_template_with_gtype(element, &reference_template,
                                                         GST_TYPE_AUDIO_AGGREGATOR_PAD);
    gst_element_class_add_static_pad_template_with_gtype(element, &src_template,
                                                         GST_TYPE_AUDIO_AGGREGATOR_PAD);
    gst_element_class_set_static_metadata(
        element, "Acoustic echo canceller", "Filter/Effect/Audio",
        "Removes what a loudspeaker plays from what microphones beside it hear",
        "the nax_aec authors");
    element->request_new_pad = request_new_pad;
    element->release_pad = release_pad;

    aggregator->create_new_pad = create_new_pad;
    aggregator->sink_event = sink_event;
    aggregator->sink_query = sink_query;
    aggregator->update_src_caps = update_src_caps;
    aggregator->finish_buffer = finish_buffer;
    aggregator->stop = stop;
    audio->create_output_buffer = create_output_buffer;
    audio->aggregate_one_buffer = aggregate_one_buffer;
}
