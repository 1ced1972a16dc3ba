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
#include "format.h"
#include "frame.h"
#include "pads.h"
#include "properties.h"
#include "stream.h"

GST_DEBUG_CATEGORY(nax_aec_debug);

G_DEFINE_TYPE(NaxAec, nax_aec_element, GST_TYPE_AUDIO_AGGREGATOR)

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

static gboolean sink_query(GstAggregator *aggregator, GstAggregatorPad *pad, GstQuery *query)
{
    if (GST_QUERY_TYPE(query) != GST_QUERY_CAPS)
        return PARENT(AGGREGATOR)->sink_query(aggregator, pad, query);
    GstCaps *filter;
    gst_query_parse_caps(query, &filter);
    GstCaps *caps = format_wish(NAX_AEC_ELEMENT(aggregator), GST_PAD(pad), filter);
    gst_query_set_caps_result(query, caps);
    gst_caps_unref(caps);
    return TRUE;
}

static gboolean sink_event(GstAggregator *aggregator, GstAggregatorPad *pad, GstEvent *event)
{
    if (GST_EVENT_TYPE(event) != GST_EVENT_CAPS)
        return PARENT(AGGREGATOR)->sink_event(aggregator, pad, event);
    GstCaps *caps;
    gst_event_parse_caps(event, &caps);
    const gboolean fits = stream_set_caps(NAX_AEC_ELEMENT(aggregator), pad, caps);
    gst_event_unref(event);
    return fits;
}

static gboolean start(GstAggregator *aggregator)
{
    NaxAec *self = NAX_AEC_ELEMENT(aggregator);
    self->flushed = self->failed = FALSE;
    stream_begin_anew(self);
    return PARENT(AGGREGATOR)->start(aggregator);
}

/* Else the rate of the last time would be asked for the next time. */
static gboolean forget_format(GstElement *element, GstPad *pad, gpointer data)
{
    (void)element, (void)data;
    GST_OBJECT_LOCK(pad);
    gst_audio_info_init(&GST_AUDIO_AGGREGATOR_PAD(pad)->info);
    GST_OBJECT_UNLOCK(pad);
    return TRUE;
}

static gboolean stop(GstAggregator *aggregator)
{
    NaxAec *self = NAX_AEC_ELEMENT(aggregator);
    gst_element_foreach_sink_pad(GST_ELEMENT(self), forget_format, NULL);
    framer_destroy(self->framer);
    self->framer = NULL;
    gst_clear_object(&self->probe);
    g_clear_pointer(&self->played, g_free);
    self->probe_channels = 0;
    self->frames_without_probe = 0;
    properties_tell(self, 0, 0);
    return PARENT(AGGREGATOR)->stop(aggregator);
}

static GstFlowReturn flush(GstAggregator *aggregator)
{
    NaxAec *self = NAX_AEC_ELEMENT(aggregator);
    stream_begin_anew(self);
    self->flushed = TRUE;
    return PARENT(AGGREGATOR)->flush(aggregator);
}

static GstStateChangeReturn change_state(GstElement *element, GstStateChange change)
{
    const GstStateChangeReturn result = PARENT(ELEMENT)->change_state(element, change);
    GstPad *reference = pads_reference(NAX_AEC_ELEMENT(element));
    if (change == GST_STATE_CHANGE_READY_TO_PAUSED && reference) pads_end_unlinked(reference);
    gst_clear_object(&reference);
    return result;
}

static GstPad *request_new_pad(GstElement *element, GstPadTemplate *template, const gchar *name,
                               const GstCaps *caps)
{
    NaxAec *self = NAX_AEC_ELEMENT(element);
    (void)name;
    GST_OBJECT_LOCK(self);
    const gboolean first = !self->has_reference;
    self->has_reference = TRUE;
    GST_OBJECT_UNLOCK(self);
    if (!first) return NULL;
    GstPad *pad = PARENT(ELEMENT)->request_new_pad(element, template, "reference", caps);
    g_signal_connect(pad, "unlinked", G_CALLBACK(pads_note_unlinked), NULL);
    pads_end_unlinked(pad);
    return pad;
}

static GstAggregatorPad *create_new_pad(GstAggregator *aggregator, GstPadTemplate *template,
                                        const gchar *name, const GstCaps *caps)
{
    (void)aggregator, (void)caps;
    return pads_create(template, name);
}

static void release_pad(GstElement *element, GstPad *pad)
{
    g_signal_handlers_disconnect_by_func(pad, pads_note_unlinked, NULL);
    pads_before_release(NAX_AEC_ELEMENT(element));
    PARENT(ELEMENT)->release_pad(element, pad);
    pads_after_release(NAX_AEC_ELEMENT(element));
}

/* Newer base classes set their own default after the instance is made. */
static void constructed(GObject *object)
{
    G_OBJECT_CLASS(nax_aec_element_parent_class)->constructed(object);
    gst_util_set_object_arg(object, "output-buffer-duration-fraction", "2/125");
}

static void finalize(GObject *object)
{
    g_free(NAX_AEC_ELEMENT(object)->probe_name);
    g_cond_clear(&NAX_AEC_ELEMENT(object)->gathered);
    G_OBJECT_CLASS(nax_aec_element_parent_class)->finalize(object);
}

static void nax_aec_element_init(NaxAec *self)
{
    GstPadTemplate *template =
        gst_element_class_get_pad_template(GST_ELEMENT_GET_CLASS(self), "sink");
    self->settings = DEFAULT_SETTINGS;
    g_cond_init(&self->gathered);
    self->mic = GST_PAD(pads_create(template, "sink"));
    gst_element_add_pad(GST_ELEMENT(self), self->mic);
    gst_util_set_object_arg(G_OBJECT(self), "start-time-selection", "first");
    gst_aggregator_set_ignore_inactive_pads(GST_AGGREGATOR(self), TRUE);
}

static void nax_aec_element_class_init(NaxAecClass *class)
{
    GObjectClass *object = G_OBJECT_CLASS(class);
    GstElementClass *element = GST_ELEMENT_CLASS(class);
    GstAggregatorClass *aggregator = GST_AGGREGATOR_CLASS(class);
    GstAudioAggregatorClass *audio = GST_AUDIO_AGGREGATOR_CLASS(class);
    GST_DEBUG_CATEGORY_INIT(nax_aec_debug, "naxaec", 0, "acoustic echo cancellation");

    object->set_property = properties_set;
    object->get_property = properties_get;
    object->constructed = constructed;
    object->finalize = finalize;
    properties_install(object);

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
    element->change_state = change_state;
    element->request_new_pad = request_new_pad;
    element->release_pad = release_pad;

    aggregator->start = start;
    aggregator->stop = stop;
    aggregator->flush = flush;
    aggregator->create_new_pad = create_new_pad;
    aggregator->sink_event = sink_event;
    aggregator->sink_query = sink_query;
    aggregator->update_src_caps = format_update_src_caps;
    aggregator->get_next_time = stream_get_next_time;
    aggregator->clip = stream_clip;
    aggregator->aggregate = stream_aggregate;
    aggregator->finish_buffer = stream_finish_buffer;
    audio->create_output_buffer = stream_create_output_buffer;
    audio->aggregate_one_buffer = frame_take_in;
}
