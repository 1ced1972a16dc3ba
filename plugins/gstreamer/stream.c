/*
 * The streaming thread: frame after frame from the base class, and what goes out of each.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "stream.h"
#include "format.h"
#include "frame.h"
#include "pads.h"

/* Longer than hiccups, shorter than what queues beside it hold. */
#define MIC_PATIENCE (GST_SECOND / 2)

static GstFlowReturn push(NaxAec *self, GstBuffer *buffer, gboolean any)
{
    if (any) return PARENT(AGGREGATOR)->finish_buffer(GST_AGGREGATOR(self), buffer);
    gst_buffer_unref(buffer);
    return GST_FLOW_OK;
}

static void drain(NaxAec *self)
{
    if (!self->framer || !frame_holds(self)) return;
    GstBuffer *buffer =
        PARENT(AUDIO_AGGREGATOR)
            ->create_output_buffer(GST_AUDIO_AGGREGATOR(self), (guint)self->framer->size);
    push(self, buffer, frame_drain(self, buffer));
}

/* The frame begun goes out as far as it is there, and the base class begins anew behind it:
 * it cannot change its format within a frame, or within a buffer of the reference's. */
static void finish_early(NaxAec *self)
{
    GstSegment *segment = &GST_AGGREGATOR_PAD(GST_AGGREGATOR_SRC_PAD(self))->segment;
    GstBuffer *buffer = self->begun ? gst_buffer_ref(self->begun) : NULL;
    GstPad *reference = pads_reference(self);
    GstClockTime position = segment->position;
    PARENT(AGGREGATOR)->flush(GST_AGGREGATOR(self));
    if (reference)
        GST_AGGREGATOR_PAD_GET_CLASS(reference)->flush(GST_AGGREGATOR_PAD(reference),
                                                       GST_AGGREGATOR(self));
    gst_clear_object(&reference);
    self->begun = NULL;
    if (buffer) {
        GST_BUFFER_PTS(buffer) = position;
        GST_BUFFER_OFFSET(buffer) =
            gst_util_uint64_scale_round(position - segment->start, (guint64)self->rate, GST_SECOND);
        position += gst_util_uint64_scale(self->mic_instants, GST_SECOND, (guint64)self->rate);
        push(self, buffer, frame_finish(self, buffer, TRUE));
    }
    drain(self);
    GST_OBJECT_LOCK(self);
    segment->position = position;
    GST_OBJECT_UNLOCK(self);
}

gboolean stream_set_caps(NaxAec *self, GstAggregatorPad *pad, GstCaps *caps)
{
    const GstAudioInfo before = format_of(GST_PAD(pad));
    GstAudioInfo info;
    if (!gst_audio_info_from_caps(&info, caps)) return FALSE;
    if (GST_PAD(pad) == self->mic && !gst_audio_info_is_equal(&info, &before)) {
        if (self->started) finish_early(self);
        GST_OBJECT_LOCK(self);
        self->captured = self->captured_refs;
        GST_OBJECT_UNLOCK(self);
        gst_pad_mark_reconfigure(GST_AGGREGATOR_SRC_PAD(self));
    }
    gst_audio_aggregator_set_sink_caps(GST_AUDIO_AGGREGATOR(self), GST_AUDIO_AGGREGATOR_PAD(pad),
                                       caps);
    return TRUE;
}

/* The output begins with the microphones. Until they are there what is played goes by. */
static gboolean start_with_microphones(NaxAec *self, gboolean timeout)
{
    GstSegment *segment = &GST_AGGREGATOR_PAD(GST_AGGREGATOR_SRC_PAD(self))->segment;
    GstAggregatorPad *mic = GST_AGGREGATOR_PAD(self->mic);
    GstBuffer *first = gst_aggregator_pad_peek_buffer(mic);
    GstPad *reference = first ? NULL : pads_reference(self);
    if (reference) gst_aggregator_pad_drop_buffer(GST_AGGREGATOR_PAD(reference));
    gst_clear_object(&reference);
    GST_OBJECT_LOCK(self);
    if (first && GST_BUFFER_PTS_IS_VALID(first))
        segment->position = gst_segment_position_from_running_time(
            segment, GST_FORMAT_TIME,
            gst_segment_to_running_time(&mic->segment, GST_FORMAT_TIME, GST_BUFFER_PTS(first)));
    else if (timeout) /* until which the base class waits next */
        segment->position =
            NAX_AEC_FRAME_TIME +
            (GST_CLOCK_TIME_IS_VALID(segment->position) ? segment->position : segment->start);
    GST_OBJECT_UNLOCK(self);
    self->started = first != NULL;
    gst_clear_buffer(&first);
    return self->started;
}

static void adapt(NaxAec *self)
{
    struct settings wanted;
    if (self->flushed && self->framer) framer_restart(self->framer);
    self->flushed = FALSE;
    if (!format_differs(self, &wanted)) return;
    drain(self);
    format_set_up(self, &wanted);
}

GstFlowReturn stream_aggregate(GstAggregator *aggregator, gboolean timeout)
{
    NaxAec *self = NAX_AEC_ELEMENT(aggregator);
    if (!self->started && gst_aggregator_pad_is_eos(GST_AGGREGATOR_PAD(self->mic)))
        return GST_FLOW_EOS;
    if (!self->started && !start_with_microphones(self, timeout))
        return GST_AGGREGATOR_FLOW_NEED_DATA;
    if (!self->begun) adapt(self);
    if (self->failed) return GST_FLOW_ERROR;
    pads_hold(self);
    const GstFlowReturn flow = PARENT(AGGREGATOR)->aggregate(aggregator, timeout);
    pads_let_go(self);
    if (flow == GST_FLOW_EOS) drain(self);
    return flow;
}

GstBuffer *stream_create_output_buffer(GstAudioAggregator *aggregator, guint instants)
{
    GstBuffer *buffer = PARENT(AUDIO_AGGREGATOR)->create_output_buffer(aggregator, instants);
    frame_begin(NAX_AEC_ELEMENT(aggregator), buffer, instants);
    return buffer;
}

/* A branch that is linked while audio flows may come without its events at first; the base
 * class would stop everything. */
static gboolean lacks_format(GstAggregatorPad *pad)
{
    return format_of(GST_PAD(pad)).channels == 0 || pad->segment.format != GST_FORMAT_TIME;
}

GstBuffer *stream_clip(GstAggregator *aggregator, GstAggregatorPad *pad, GstBuffer *buffer)
{
    NaxAec *self = NAX_AEC_ELEMENT(aggregator);
    if (GST_PAD(pad) != self->mic && lacks_format(pad)) {
        gst_buffer_unref(buffer);
        return NULL;
    }
    buffer = PARENT(AGGREGATOR)->clip(aggregator, pad, buffer);
    if (buffer && GST_PAD(pad) == self->mic && GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_GAP))
        frame_note_gap(self, &pad->segment, buffer);
    return buffer;
}

GstFlowReturn stream_finish_buffer(GstAggregator *aggregator, GstBuffer *buffer)
{
    NaxAec *self = NAX_AEC_ELEMENT(aggregator);
    pads_let_go(self);
    self->begun = NULL;
    if (self->failed) {
        gst_buffer_unref(buffer);
        format_fail(self, "output-buffer-duration is not 16 ms");
        return GST_FLOW_ERROR;
    }
    const gboolean ends = gst_aggregator_pad_is_eos(GST_AGGREGATOR_PAD(self->mic));
    const GstFlowReturn flow = push(self, buffer, frame_finish(self, buffer, ends));
    return flow == GST_FLOW_OK && self->ended ? GST_FLOW_EOS : flow;
}

/* When the base class goes on without what is not there. The suppressor hands out the frame
 * before, whose time has come a frame earlier. Nothing of the microphones is given up for a
 * hiccup of their thread. */
GstClockTime stream_get_next_time(GstAggregator *aggregator)
{
    NaxAec *self = NAX_AEC_ELEMENT(aggregator);
    GstAggregatorPad *mic = GST_AGGREGATOR_PAD(self->mic);
    GstClockTime next = gst_aggregator_simple_get_next_time(aggregator);
    if (!GST_CLOCK_TIME_IS_VALID(next)) return next;
    if (self->framer && self->framer->suppressor) next -= MIN(next, NAX_AEC_FRAME_TIME);
    const gboolean awaited =
        self->started && !gst_aggregator_pad_has_buffer(mic) && !gst_aggregator_pad_is_eos(mic);
    return awaited ? next + MIC_PATIENCE : next;
}

void stream_begin_anew(NaxAec *self)
{
    self->started = self->ended = FALSE;
    self->begun = NULL;
    self->gap_to = 0;
    self->held = (struct part){0};
}
