/*
 * One frame: taken in, cancelled, measured, cut to what the microphones have of it.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "frame.h"
#include "format.h"
#include "properties.h"

#include <math.h>
#include <string.h>

static void silence(struct framer *framer)
{
    memset(framer->in, 0, framer->size * framer->selected * sizeof *framer->in);
}

void frame_begin(NaxAec *self, GstBuffer *buffer, guint instants)
{
    self->begun = buffer;
    self->instants = instants;
    self->mic_instants = 0;
    if (!self->framer) return;
    silence(self->framer);
    self->failed |= instants != self->framer->size;
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
    return is_mic || self->framer;
}

void frame_note_gap(NaxAec *self, const GstSegment *segment, const GstBuffer *gap)
{
    const GstClockTime from =
        gst_segment_to_running_time(segment, GST_FORMAT_TIME, GST_BUFFER_PTS(gap));
    if (GST_CLOCK_TIME_IS_VALID(from) && GST_BUFFER_DURATION_IS_VALID(gap))
        self->gap_to = from + GST_BUFFER_DURATION(gap);
}

static GstClockTime running_time_of(NaxAec *self, const GstBuffer *buffer)
{
    const GstSegment *segment = &GST_AGGREGATOR_PAD(GST_AGGREGATOR_SRC_PAD(self))->segment;
    return gst_segment_to_running_time(segment, GST_FORMAT_TIME, GST_BUFFER_PTS(buffer));
}

/* The lead that the probe keeps is given up as far as playback is not that early. */
static void take_in_probe(NaxAec *self, const GstBuffer *buffer)
{
    const struct framer *framer = self->framer;
    const GstClockTime running = running_time_of(self, buffer);
    if (!GST_CLOCK_TIME_IS_VALID(running)) return;
    const GstClockTime now = gst_element_get_base_time(GST_ELEMENT(self)) + running;
    gsize late;
    while ((late = nax_echo_probe_read(self->probe, now > self->lag ? now - self->lag : 0,
                                       self->used.refs, self->played, framer->size)) > 0 &&
           late < framer->size && self->lag < NAX_ECHO_PROBE_LEAD)
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
    properties_tell(self, self->framer->delay, removed);
}

static void write_frame(const struct framer *framer, GstBuffer *buffer)
{
    GstMapInfo map;
    gst_buffer_set_size(buffer, (gssize)(framer->size * framer->mics * sizeof(gint16)));
    gst_buffer_unset_flags(buffer, GST_BUFFER_FLAG_GAP);
    if (!gst_buffer_map(buffer, &map, GST_MAP_WRITE)) return;
    gint16 *to = (gint16 *)(gpointer)map.data;
    const gint16 *from = framer_out(framer);
    for (gsize t = 0; t < framer->size; t++)
        for (gsize m = 0; m < framer->mics; m++)
            to[t * framer->mics + m] = from[t * framer->stride + m];
    gst_buffer_unmap(buffer, &map);
}

/* Up to their end the microphones have all of every frame. */
static struct part part_of(NaxAec *self, const GstBuffer *buffer, gboolean ends)
{
    const GstClockTime begins = running_time_of(self, buffer);
    guint64 instants = ends ? self->mic_instants : self->instants;
    if (ends && GST_CLOCK_TIME_IS_VALID(begins) && self->gap_to > begins) {
        const guint64 gap =
            gst_util_uint64_scale_round(self->gap_to - begins, (guint64)self->rate, GST_SECOND);
        instants = MIN(MAX(instants, gap), self->instants);
    }
    return (struct part){GST_BUFFER_PTS(buffer), GST_BUFFER_OFFSET(buffer), (guint)instants};
}

static gboolean cut(NaxAec *self, GstBuffer *buffer, const struct part *part)
{
    const gint bytes = format_of(GST_AGGREGATOR_SRC_PAD(self)).bpf;
    gst_buffer_set_size(buffer, (gssize)part->instants * bytes);
    GST_BUFFER_PTS(buffer) = part->pts;
    GST_BUFFER_DURATION(buffer) =
        gst_util_uint64_scale(part->instants, GST_SECOND, (guint64)self->rate);
    GST_BUFFER_OFFSET(buffer) = part->offset;
    GST_BUFFER_OFFSET_END(buffer) = part->offset + part->instants;
    return part->instants > 0;
}

static void run(NaxAec *self)
{
    framer_advance(self->framer, self->framer->size);
    measure(self);
    tell(self);
}

gboolean frame_finish(NaxAec *self, GstBuffer *buffer, gboolean ends)
{
    struct part part = part_of(self, buffer, ends);
    self->ended = ends && part.instants == 0;
    if (self->framer) {
        if (self->probe && self->from_probe) take_in_probe(self, buffer);
        run(self);
        write_frame(self->framer, buffer);
        if (self->framer->suppressor) {
            const struct part next = part;
            part = self->held;
            self->held = next;
        }
    }
    return cut(self, buffer, &part);
}

gboolean frame_holds(const NaxAec *self) { return self->held.instants > 0; }

gboolean frame_drain(NaxAec *self, GstBuffer *buffer)
{
    const struct part part = self->held;
    self->held = (struct part){0};
    framer_drain(self->framer);
    write_frame(self->framer, buffer);
    return cut(self, buffer, &part);
}
