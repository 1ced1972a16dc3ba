/*
 * The playback's last two seconds, by the clock.
 *
 * A sample's place in the ring is the time at which it is heard: its running time, the
 * pipeline's base time and latency. Small jitter of timestamps is not followed, which would
 * tear the reference; a jump is.
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
    guint64 next; /* place of the next sample, counted from clock time 0 */
    gboolean running;
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

static guint64 place_of(const NaxEchoProbe *probe, GstClockTime time)
{
    return gst_util_uint64_scale_round(time, (guint64)probe->rate, GST_SECOND);
}

gsize nax_echo_probe_read(NaxEchoProbe *probe, GstClockTime from, gint channels, gint16 *to,
                          gsize instants)
{
    gsize missing = instants;
    memset(to, 0, instants * (gsize)channels * sizeof *to);
    GST_OBJECT_LOCK(probe);
    if (probe->channels == channels && probe->running) {
        const guint64 size = (guint64)probe->rate * RING_SECONDS;
        const guint64 first = place_of(probe, from);
        const guint64 there = probe->next > first ? probe->next - first : 0;
        missing = there < instants ? instants - (gsize)there : 0;
        for (gsize t = 0; t < instants - missing; t++)
            if (first + t + size >= probe->next)
                memcpy(to + t * (gsize)channels, probe->ring + (first + t) % size * (gsize)channels,
                       (gsize)channels * sizeof *to);
    }
    GST_OBJECT_UNLOCK(probe);
    return missing;
}

static gboolean set_caps(GstBaseTransform *base, GstCaps *in, GstCaps *out)
{
    NaxEchoProbe *probe = NAX_ECHO_PROBE(base);
    GstAudioInfo info;
    (void)out;
    if (!gst_audio_info_from_caps(&info, in)) return FALSE;
    GST_OBJECT_LOCK(probe);
    probe->rate = GST_AUDIO_INFO_RATE(&info);
    probe->channels = GST_AUDIO_INFO_CHANNELS(&info);
    g_free(probe->ring);
    probe->ring = g_new0(gint16, (gsize)probe->rate * RING_SECONDS * (gsize)probe->channels);
    probe->running = FALSE;
    GST_OBJECT_UNLOCK(probe);
    return TRUE;
}

/* Where a buffer belongs; what was left out before it is silence. */
static void make_place(NaxEchoProbe *probe, GstClockTime heard)
{
    const guint64 place = place_of(probe, heard);
    const guint64 size = (guint64)probe->rate * RING_SECONDS;
    const guint64 jitter = place_of(probe, JITTER);
    if (probe->running && place < probe->next + jitter && place + jitter > probe->next) return;
    GST_DEBUG_OBJECT(probe, "playback goes on at sample %" G_GUINT64_FORMAT, place);
    if (!probe->running || place < probe->next || place > probe->next + size)
        memset(probe->ring, 0, size * (gsize)probe->channels * sizeof *probe->ring);
    else
        for (guint64 at = probe->next; at < place; at++)
            memset(probe->ring + at % size * (gsize)probe->channels, 0,
                   (gsize)probe->channels * sizeof *probe->ring);
    probe->next = place;
    probe->running = TRUE;
}

static GstFlowReturn keep(GstBaseTransform *base, GstBuffer *buffer)
{
    NaxEchoProbe *probe = NAX_ECHO_PROBE(base);
    const GstClockTime running =
        gst_segment_to_running_time(&base->segment, GST_FORMAT_TIME, GST_BUFFER_PTS(buffer));
    GstMapInfo map;
    if (!GST_CLOCK_TIME_IS_VALID(running) || !gst_buffer_map(buffer, &map, GST_MAP_READ))
        return GST_FLOW_OK;
    const GstClockTime base_time = gst_element_get_base_time(GST_ELEMENT(probe));
    GST_OBJECT_LOCK(probe);
    const GstClockTime heard = base_time + running + probe->latency;
    make_place(probe, heard > NAX_ECHO_PROBE_LEAD ? heard - NAX_ECHO_PROBE_LEAD : 0);
    const gsize size = (gsize)probe->rate * RING_SECONDS, channels = (gsize)probe->channels;
    const gsize instants = map.size / sizeof(gint16) / channels;
    const gint16 *from = (const gint16 *)(gconstpointer)map.data;
    for (gsize t = 0; t < instants; t++, probe->next++)
        memcpy(probe->ring + probe->next % size * channels, from + t * channels,
               channels * sizeof *from);
    GST_OBJECT_UNLOCK(probe);
    gst_buffer_unmap(buffer, &map);
    return GST_FLOW_OK;
}

static gboolean src_event(GstBaseTransform *base, GstEvent *event)
{
    NaxEchoProbe *probe = NAX_ECHO_PROBE(base);
    if (GST_EVENT_TYPE(event) == GST_EVENT_LATENCY) {
        GST_OBJECT_LOCK(probe);
        gst_event_parse_latency(event, &probe->latency);
        probe->running = FALSE;
        GST_OBJECT_UNLOCK(probe);
    }
    return GST_BASE_TRANSFORM_CLASS(nax_echo_probe_parent_class)->src_event(base, event);
}

static gboolean stop(GstBaseTransform *base)
{
    NaxEchoProbe *probe = NAX_ECHO_PROBE(base);
    GST_OBJECT_LOCK(probe);
    probe->rate = probe->channels = 0;
    probe->running = FALSE;
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
    base->src_event = src_event;
    base->stop = stop;
}
