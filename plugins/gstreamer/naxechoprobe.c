/*
 * The playback's last two seconds.
 *
 * A sample's place in the ring is its running time. The time at which it is heard follows from
 * the pipeline's base time and latency. It is computed when the sample is read, because both
 * may change at the start and after a pause. Jitter of the timestamps below 30 ms is ignored: to
 * follow it would tear the reference.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "naxechoprobe.h"

#include <gst/audio/audio.h>
#include <string.h>

enum { RING_SECONDS = 2 };

static const GstClockTime JITTER = 30 * GST_MSECOND;

struct _NaxEchoProbe {
    GstBaseTransform parent;
    /* Under the object lock. */
    gint16 *ring;
    gint rate, channels;
    gint64 next;       /* place of the next sample */
    gboolean begun;    /* the ring holds samples */
    gboolean complete; /* none follow for now: none are late */
    GstClockTime latency;
};

G_DEFINE_TYPE(NaxEchoProbe, nax_echo_probe, GST_TYPE_BASE_TRANSFORM)

#define PROBE_CAPS                                                                                 \
    "audio/x-raw, format = " GST_AUDIO_NE(                                                         \
        S16) ", layout = interleaved, "                                                            \
             "rate = { 8000, 16000, 32000, 48000 }, channels = [ 1, 30 ]"

static GstStaticPadTemplate sink_template =
    GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(PROBE_CAPS));
static GstStaticPadTemplate src_template =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(PROBE_CAPS));

static GMutex probes_lock;
static GList *probes;

NaxEchoProbe *nax_echo_probe_find(const gchar *name, gint rate)
{
    NaxEchoProbe *found = NULL;
    g_mutex_lock(&probes_lock);
    for (GList *at = probes; at; at = at->next) {
        NaxEchoProbe *probe = at->data;
        GST_OBJECT_LOCK(probe);
        const gboolean named = !g_strcmp0(GST_OBJECT_NAME(probe), name);
        const gboolean plays = probe->rate == rate;
        GST_OBJECT_UNLOCK(probe);
        if (named && (plays || !found)) found = probe;
        if (named && plays) break;
    }
    if (found) gst_object_ref(found);
    g_mutex_unlock(&probes_lock);
    return found;
}

gint nax_echo_probe_channels(NaxEchoProbe *probe, gint rate)
{
    GST_OBJECT_LOCK(probe);
    const gint channels = probe->rate == rate ? probe->channels : 0;
    GST_OBJECT_UNLOCK(probe);
    return channels;
}

static gint64 place_of(const NaxEchoProbe *probe, GstClockTime time)
{
    return (gint64)gst_util_uint64_scale_round(time, (guint64)probe->rate, GST_SECOND);
}

static gint64 ring_size(const NaxEchoProbe *probe) { return (gint64)probe->rate * RING_SECONDS; }

static gint16 *sample_at(const NaxEchoProbe *probe, gint64 place)
{
    return probe->ring + place % ring_size(probe) * probe->channels;
}

static gboolean is_playing(NaxEchoProbe *probe)
{
    return GST_STATE(probe) == GST_STATE_PLAYING &&
           GST_STATE_PENDING(probe) == GST_STATE_VOID_PENDING && !probe->complete;
}

gsize nax_echo_probe_read(NaxEchoProbe *probe, GstClockTime from, gint channels, gint16 *to,
                          gsize instants)
{
    const gsize bytes = (gsize)channels * sizeof *to;
    gsize late = 0;
    memset(to, 0, instants * bytes);
    GST_OBJECT_LOCK(probe);
    if (probe->channels == channels && probe->begun) {
        const GstClockTime begins = (GstClockTime)GST_ELEMENT(probe)->base_time + probe->latency;
        const GstClockTime wanted = from + NAX_ECHO_PROBE_LEAD;
        const gint64 first =
            wanted >= begins ? place_of(probe, wanted - begins) : -place_of(probe, begins - wanted);
        const gint64 oldest = MAX(probe->next - ring_size(probe), 0);
        const gint64 end = first + (gint64)instants;
        for (gint64 at = MAX(first, oldest); at < MIN(end, probe->next); at++)
            memcpy(to + (at - first) * channels, sample_at(probe, at), bytes);
        if (is_playing(probe) && end > probe->next) late = (gsize)(end - probe->next);
    }
    GST_OBJECT_UNLOCK(probe);
    return MIN(late, instants);
}

static gboolean set_caps(GstBaseTransform *base, GstCaps *in, GstCaps *out)
{
    NaxEchoProbe *probe = NAX_ECHO_PROBE(base);
    GstAudioInfo info;
    (void)out;
    if (!gst_audio_info_from_caps(&info, in)) return FALSE;
    gint16 *ring = g_new0(gint16, (gsize)info.rate * RING_SECONDS * (gsize)info.channels);
    GST_OBJECT_LOCK(probe);
    gint16 *before = probe->ring;
    probe->ring = ring;
    probe->rate = info.rate;
    probe->channels = info.channels;
    probe->begun = FALSE;
    GST_OBJECT_UNLOCK(probe);
    g_free(before);
    return TRUE;
}

/* Sets the place of audio of a running time. A gap before it is silent. */
static void make_place(NaxEchoProbe *probe, GstClockTime running)
{
    const gint64 place = place_of(probe, running), jitter = place_of(probe, JITTER);
    probe->complete = FALSE;
    if (probe->begun && ABS(place - probe->next) < jitter) return;
    GST_DEBUG_OBJECT(probe, "playback goes on at sample %" G_GINT64_FORMAT, place);
    const gint64 size = ring_size(probe);
    const gsize bytes = (gsize)probe->channels * sizeof *probe->ring;
    if (!probe->begun || place < probe->next || place > probe->next + size)
        memset(probe->ring, 0, (gsize)size * bytes);
    else
        for (gint64 at = probe->next; at < place; at++)
            memset(sample_at(probe, at), 0, bytes);
    probe->next = place;
    probe->begun = TRUE;
}

static GstClockTime running_time(GstBaseTransform *base, GstClockTime time)
{
    if (base->segment.format != GST_FORMAT_TIME) return GST_CLOCK_TIME_NONE;
    return gst_segment_to_running_time(&base->segment, GST_FORMAT_TIME, time);
}

static GstFlowReturn keep(GstBaseTransform *base, GstBuffer *buffer)
{
    NaxEchoProbe *probe = NAX_ECHO_PROBE(base);
    const GstClockTime running = running_time(base, GST_BUFFER_PTS(buffer));
    GstMapInfo map;
    if (!GST_CLOCK_TIME_IS_VALID(running) || !gst_buffer_map(buffer, &map, GST_MAP_READ))
        return GST_FLOW_OK;
    GST_OBJECT_LOCK(probe);
    make_place(probe, running);
    const gsize channels = (gsize)probe->channels, bytes = channels * sizeof *probe->ring;
    const gint16 *from = (const gint16 *)(gconstpointer)map.data;
    for (const gint16 *end = from + map.size / bytes * channels; from < end; from += channels)
        memcpy(sample_at(probe, probe->next++), from, bytes);
    GST_OBJECT_UNLOCK(probe);
    gst_buffer_unmap(buffer, &map);
    return GST_FLOW_OK;
}

/* After a gap and after the end nothing is late. */
static gboolean sink_event(GstBaseTransform *base, GstEvent *event)
{
    NaxEchoProbe *probe = NAX_ECHO_PROBE(base);
    if (GST_EVENT_TYPE(event) == GST_EVENT_EOS || GST_EVENT_TYPE(event) == GST_EVENT_GAP) {
        GST_OBJECT_LOCK(probe);
        probe->complete = TRUE;
        GST_OBJECT_UNLOCK(probe);
    }
    return GST_BASE_TRANSFORM_CLASS(nax_echo_probe_parent_class)->sink_event(base, event);
}

static gboolean src_event(GstBaseTransform *base, GstEvent *event)
{
    NaxEchoProbe *probe = NAX_ECHO_PROBE(base);
    if (GST_EVENT_TYPE(event) == GST_EVENT_LATENCY) {
        GST_OBJECT_LOCK(probe);
        gst_event_parse_latency(event, &probe->latency);
        GST_OBJECT_UNLOCK(probe);
    }
    return GST_BASE_TRANSFORM_CLASS(nax_echo_probe_parent_class)->src_event(base, event);
}

static gboolean stop(GstBaseTransform *base)
{
    NaxEchoProbe *probe = NAX_ECHO_PROBE(base);
    GST_OBJECT_LOCK(probe);
    probe->rate = probe->channels = 0;
    probe->begun = FALSE;
    GST_OBJECT_UNLOCK(probe);
    return TRUE;
}

static void dispose(GObject *object)
{
    g_mutex_lock(&probes_lock);
    probes = g_list_remove(probes, object);
    g_mutex_unlock(&probes_lock);
    G_OBJECT_CLASS(nax_echo_probe_parent_class)->dispose(object);
}

static void finalize(GObject *object)
{
    g_free(NAX_ECHO_PROBE(object)->ring);
    G_OBJECT_CLASS(nax_echo_probe_parent_class)->finalize(object);
}

static void nax_echo_probe_init(NaxEchoProbe *probe)
{
    gst_base_transform_set_passthrough(GST_BASE_TRANSFORM(probe), TRUE);
    g_mutex_lock(&probes_lock);
    probes = g_list_prepend(probes, probe);
    g_mutex_unlock(&probes_lock);
}

static void nax_echo_probe_class_init(NaxEchoProbeClass *class)
{
    GstElementClass *element = GST_ELEMENT_CLASS(class);
    GstBaseTransformClass *base = GST_BASE_TRANSFORM_CLASS(class);
    gst_element_class_add_static_pad_template(element, &sink_template);
    gst_element_class_add_static_pad_template(element, &src_template);
    gst_element_class_set_static_metadata(
        element, "Echo canceller's reference", "Generic/Audio",
        "Passes playback through and gives it to the naxaec that names it in \"probe\"",
        "the nax_aec authors");
    G_OBJECT_CLASS(class)->dispose = dispose;
    G_OBJECT_CLASS(class)->finalize = finalize;
    base->set_caps = set_caps;
    base->transform_ip = keep;
    base->transform_ip_on_passthrough = TRUE;
    base->sink_event = sink_event;
    base->src_event = src_event;
    base->stop = stop;
}
