/*
 * The samples of one frame: taken in, cancelled, cut to what the microphones have of it.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "naxaec.h"

#include <string.h>

void frame_begin(NaxAec *self, GstBuffer *buffer, guint instants)
{
    const struct framer *framer = self->format.framer;
    self->frame.buffer = buffer;
    self->frame.instants = instants;
    self->frame.mic_instants = 0;
    self->frame.misfits = framer && instants != framer->size;
    if (framer) memset(framer->in, 0, framer->size * framer->selected * sizeof *framer->in);
}

/* Copies those of a pad's channels that the canceller uses; its first is number first. */
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
    struct framer *framer = self->format.framer;
    struct frame *frame = &self->frame;
    const gboolean is_mic = GST_PAD(pad) == self->mic;
    const guint channels = (guint)pad->info.channels;
    GstMapInfo map;
    if (frame->misfits || !gst_buffer_map(in, &map, GST_MAP_READ)) return FALSE;
    const gint16 *from = (const gint16 *)(gconstpointer)map.data + in_at * channels;
    if (is_mic) frame->mic_instants = MAX(frame->mic_instants, out_at + instants);
    if (framer)
        take_in(framer, is_mic ? 0 : self->format.settings.mics, (gint)channels, from, out_at,
                instants);
    else if (is_mic)
        gst_buffer_fill(out, out_at * channels * sizeof *from, from,
                        instants * channels * sizeof *from);
    gst_buffer_unmap(in, &map);
    return is_mic || framer;
}

void frame_note_gap(NaxAec *self, const GstSegment *segment, const GstBuffer *gap)
{
    const GstClockTime from =
        gst_segment_to_running_time(segment, GST_FORMAT_TIME, GST_BUFFER_PTS(gap));
    if (GST_CLOCK_TIME_IS_VALID(from) && GST_BUFFER_DURATION_IS_VALID(gap))
        self->frame.gap_to = from + GST_BUFFER_DURATION(gap);
}

/* ---- the end of the frame -------------------------------------------------------- */

static GstClockTime running_time_of(NaxAec *self, const GstBuffer *buffer)
{
    const GstSegment *segment = &GST_AGGREGATOR_PAD(GST_AGGREGATOR_SRC_PAD(self))->segment;
    return gst_segment_to_running_time(segment, GST_FORMAT_TIME, GST_BUFFER_PTS(buffer));
}

/* A frame is all the microphones', and silent where they gave nothing, but for their last. */
static struct part part_of(NaxAec *self, const GstBuffer *buffer, gboolean ends)
{
    const struct frame *frame = &self->frame;
    const GstClockTime begins = running_time_of(self, buffer);
    guint64 instants = ends ? frame->mic_instants : frame->instants;
    if (ends && GST_CLOCK_TIME_IS_VALID(begins) && frame->gap_to > begins) {
        const guint64 gap = gst_util_uint64_scale_round(frame->gap_to - begins,
                                                        (guint64)self->format.rate, GST_SECOND);
        instants = MIN(MAX(instants, gap), frame->instants);
    }
    return (struct part){GST_BUFFER_PTS(buffer), GST_BUFFER_OFFSET(buffer), (guint)instants};
}

static void cancel(NaxAec *self, const GstBuffer *buffer)
{
    struct framer *framer = self->format.framer;
    const struct settings *settings = &self->format.settings;
    nax_meter_report report;
    const gint16 *played = format_read_probe(self, running_time_of(self, buffer));
    if (played) take_in(framer, settings->mics, settings->refs, played, 0, (guint)framer->size);
    framer_advance(framer, framer->size);
    nax_meter_read(framer->meter, &report); /* up to three frames old */
    report.delay = framer->delay;
    properties_tell(self, &report);
}

static void fill(GstBuffer *buffer, const struct framer *framer)
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

/* Gives the buffer a frame's length and place. Returns whether any of it is left. */
static gboolean cut(NaxAec *self, GstBuffer *buffer, const struct part *part)
{
    const gint bytes = format_of(GST_AGGREGATOR_SRC_PAD(self)).bpf;
    gst_buffer_set_size(buffer, (gssize)part->instants * bytes);
    GST_BUFFER_PTS(buffer) = part->pts;
    GST_BUFFER_DURATION(buffer) =
        gst_util_uint64_scale(part->instants, GST_SECOND, (guint64)self->format.rate);
    GST_BUFFER_OFFSET(buffer) = part->offset;
    GST_BUFFER_OFFSET_END(buffer) = part->offset + part->instants;
    return part->instants > 0;
}

gboolean frame_end(NaxAec *self, GstBuffer *buffer, gboolean ends, gboolean *ended)
{
    const struct framer *framer = self->format.framer;
    struct part part = part_of(self, buffer, ends);
    self->frame.buffer = NULL;
    *ended = ends && part.instants == 0;
    if (framer) {
        cancel(self, buffer);
        fill(buffer, framer);
        if (framer->suppressor) {
            const struct part held = self->frame.held;
            self->frame.held = part;
            part = held;
        }
    }
    return cut(self, buffer, &part);
}

gboolean frame_is_held(const NaxAec *self) { return self->frame.held.instants > 0; }

gboolean frame_drain(NaxAec *self, GstBuffer *buffer)
{
    const struct part part = self->frame.held;
    self->frame.held = (struct part){0};
    framer_drain(self->format.framer);
    fill(buffer, self->format.framer);
    return cut(self, buffer, &part);
}

void frame_drop(NaxAec *self) { self->frame.buffer = NULL; }

void frame_clear(NaxAec *self) { self->frame = (struct frame){0}; }
