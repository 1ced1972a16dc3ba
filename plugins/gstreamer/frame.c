/*
 * One frame: taken in, cancelled, measured.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "frame.h"
#include "format.h"
#include "properties.h"

#include <math.h>
#include <string.h>

void frame_begin(NaxAec *self, guint instants)
{
    struct framer *framer = self->framer;
    self->mic_instants = 0;
    if (!framer) return;
    memset(framer->in, 0, framer->size * framer->selected * sizeof *framer->in);
    if (instants != framer->size && !self->failed) {
        GST_ELEMENT_ERROR(self, LIBRARY, SETTINGS, ("The echo canceller cannot run."),
                          ("output-buffer-duration is not 16 ms"));
        self->failed = TRUE;
    }
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

gboolean frame_take_in(GstAudioAggregator *aggregator, GstAudioAggregatorPad *pad, GstBuffer *in,
                       guint in_at, GstBuffer *out, guint out_at, guint instants)
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
    if (moved) properties_notify_applied_delay(self);
}

void frame_cancel(NaxAec *self, GstBuffer *buffer)
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

void frame_trim(NaxAec *self, GstBuffer *buffer)
{
    const gint channels = format_of(GST_AGGREGATOR_SRC_PAD(self)).channels;
    const gsize bytes = self->mic_instants * (gsize)channels * sizeof(gint16);
    if (gst_buffer_get_size(buffer) > bytes) {
        gst_buffer_set_size(buffer, (gssize)bytes);
        GST_BUFFER_DURATION(buffer) =
            gst_util_uint64_scale(self->mic_instants, GST_SECOND, (guint64)self->rate);
    }
}
