/*
 * Element "naxaec": acoustic echo cancellation of 16-bit audio.
 *
 * The microphones come in at "sink". The references come from one of
 *   - a pad "reference", on request,
 *   - the naxechoprobe that "probe" names, in any pipeline of the process,
 *   - "sink" itself, whose last or first channels they are: "refs".
 * Without any, audio passes through.
 *
 * The base class gathers 16 ms of both pads by their timestamps, fills gaps with silence, and
 * in a live pipeline waits for the reference no longer than the latency says.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "naxaec.h"

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

static void nax_aec_element_init(NaxAec *self)
{
    GstPadTemplate *template =
        gst_element_class_get_pad_template(GST_ELEMENT_GET_CLASS(self), "sink");
    self->properties.settings = DEFAULT_SETTINGS;
    self->properties.report = NO_REPORT;
    g_cond_init(&self->pads.gathered);
    self->mic = GST_PAD(pads_create(template, "sink"));
    gst_element_add_pad(GST_ELEMENT(self), self->mic);
    gst_util_set_object_arg(G_OBJECT(self), "start-time-selection", "first");
    gst_aggregator_set_ignore_inactive_pads(GST_AGGREGATOR(self), TRUE);
}

/* Newer base classes set their own default after the instance is made. */
static void constructed(GObject *object)
{
    G_OBJECT_CLASS(nax_aec_element_parent_class)->constructed(object);
    gst_util_set_object_arg(object, "output-buffer-duration-fraction", "2/125");
}

static GstAggregatorPad *create_new_pad(GstAggregator *aggregator, GstPadTemplate *template,
                                        const gchar *name, const GstCaps *caps)
{
    (void)aggregator, (void)caps;
    return pads_create(template, name);
}

static GstStateChangeReturn change_state(GstElement *element, GstStateChange change)
{
    const GstStateChangeReturn result = PARENT(ELEMENT)->change_state(element, change);
    GstPad *reference = pads_reference(NAX_AEC_ELEMENT(element));
    if (change == GST_STATE_CHANGE_READY_TO_PAUSED && reference) pads_end_unlinked(reference);
    gst_clear_object(&reference);
    return result;
}

static gboolean start(GstAggregator *aggregator)
{
    stream_clear(NAX_AEC_ELEMENT(aggregator), FALSE);
    return PARENT(AGGREGATOR)->start(aggregator);
}

static gboolean sink_query(GstAggregator *aggregator, GstAggregatorPad *pad, GstQuery *query)
{
    if (GST_QUERY_TYPE(query) != GST_QUERY_CAPS)
        return PARENT(AGGREGATOR)->sink_query(aggregator, pad, query);
    GstCaps *filter;
    gst_query_parse_caps(query, &filter);
    GstCaps *caps = format_accepted(NAX_AEC_ELEMENT(aggregator), GST_PAD(pad), filter);
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

static GstFlowReturn flush(GstAggregator *aggregator)
{
    stream_clear(NAX_AEC_ELEMENT(aggregator), TRUE);
    return PARENT(AGGREGATOR)->flush(aggregator);
}

/* Otherwise the pads would accept only this rate at the next start. */
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
    format_clear(self);
    properties_tell(self, &NO_REPORT);
    return PARENT(AGGREGATOR)->stop(aggregator);
}

static void finalize(GObject *object)
{
    NaxAec *self = NAX_AEC_ELEMENT(object);
    g_free(self->properties.probe);
    g_cond_clear(&self->pads.gathered);
    G_OBJECT_CLASS(nax_aec_element_parent_class)->finalize(object);
}

/* The callbacks, in the order in which they are called. */
static void install_callbacks(GObjectClass *object, GstElementClass *element,
                              GstAggregatorClass *aggregator, GstAudioAggregatorClass *audio)
{
    /* The application's threads. */
    object->constructed = constructed;
    object->set_property = properties_set;
    object->get_property = properties_get;
    element->request_new_pad = pads_request;
    aggregator->create_new_pad = create_new_pad;
    element->change_state = change_state;
    aggregator->start = start;
    /* The streaming thread, where formats and buffers arrive. */
    aggregator->sink_query = sink_query;
    aggregator->sink_event = sink_event;
    aggregator->clip = stream_clip;
    /* The streaming thread of the output: once, then for each frame. */
    aggregator->update_src_caps = format_update_src_caps;
    aggregator->get_next_time = stream_get_next_time;
    aggregator->aggregate = stream_aggregate;
    audio->create_output_buffer = stream_create_output_buffer;
    audio->aggregate_one_buffer = frame_take_in;
    aggregator->finish_buffer = stream_finish_buffer;
    /* The end: of what came so far, of the pad, of the stream, of the element. */
    aggregator->flush = flush;
    element->release_pad = pads_release;
    aggregator->stop = stop;
    object->finalize = finalize;
}

static void nax_aec_element_class_init(NaxAecClass *class)
{
    GstElementClass *element = GST_ELEMENT_CLASS(class);
    GST_DEBUG_CATEGORY_INIT(nax_aec_debug, "naxaec", 0, "acoustic echo cancellation");
    install_callbacks(G_OBJECT_CLASS(class), element, GST_AGGREGATOR_CLASS(class),
                      GST_AUDIO_AGGREGATOR_CLASS(class));
    properties_install(G_OBJECT_CLASS(class));
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
}

/* ---- the plugin ------------------------------------------------------------------ */

#define TEXT_OF(number) #number
#define VERSION_TEXT(major, minor, patch) TEXT_OF(major) "." TEXT_OF(minor) "." TEXT_OF(patch)
#define PACKAGE "nax_aec"

static gboolean register_elements(GstPlugin *plugin)
{
    return gst_element_register(plugin, "naxaec", GST_RANK_NONE, nax_aec_element_get_type()) &&
           gst_element_register(plugin, "naxechoprobe", GST_RANK_NONE, nax_echo_probe_get_type());
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, naxaec, "Acoustic echo cancellation",
                  register_elements,
                  VERSION_TEXT(NAX_AEC_VERSION_MAJOR, NAX_AEC_VERSION_MINOR, NAX_AEC_VERSION_PATCH),
                  "MIT/X11", PACKAGE, "https://example.org/nax_aec")
