/*
 * A buffer's way through the element, in the order of the base class's calls. Each of its
 * output buffers is a frame of the library.
 *
 * The output begins and ends with the microphones and has their timestamps. A frame that the
 * suppressor holds goes out a frame later, under its own timestamp.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "naxaec.h"

/* For how long late microphones are waited for: longer than a hiccup of their thread, shorter
 * than what the queues beside them hold. */
#define MIC_PATIENCE (GST_SECOND / 2)

static GstFlowReturn push(NaxAec *self, GstBuffer *buffer, gboolean any);
static void drain(NaxAec *self);
static void end_frame_early(NaxAec *self);

/* ---- in -------------------------------------------------------------------------- */

gboolean stream_set_caps(NaxAec *self, GstAggregatorPad *pad, GstCaps *caps)
{
    const GstAudioInfo before = format_of(GST_PAD(pad));
    GstAudioInfo info;
    if (!gst_audio_info_from_caps(&info, caps)) return FALSE;
    if (GST_PAD(pad) == self->mic && !gst_audio_info_is_equal(&info, &before)) {
        if (self->stream.started) end_frame_early(self);
        format_take_captured(self);
        gst_pad_mark_reconfigure(GST_AGGREGATOR_SRC_PAD(self));
    }
    gst_audio_aggregator_set_sink_caps(GST_AUDIO_AGGREGATOR(self), GST_AUDIO_AGGREGATOR_PAD(pad),
                                       caps);
    return TRUE;
}

/* A branch that is linked while audio flows may at first come without its events. The base
 * class would end the stream with an error. */
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

/* The clock time at which the base class goes on without audio that is missing. With a
 * suppressor the frame that goes out then is due a frame earlier. */
GstClockTime stream_get_next_time(GstAggregator *aggregator)
{
    NaxAec *self = NAX_AEC_ELEMENT(aggregator);
    const struct framer *framer = self->format.framer;
    GstAggregatorPad *mic = GST_AGGREGATOR_PAD(self->mic);
    GstClockTime next = gst_aggregator_simple_get_next_time(aggregator);
    if (!GST_CLOCK_TIME_IS_VALID(next)) return next;
    if (framer && framer->suppressor) next -= MIN(next, NAX_AEC_FRAME_TIME);
    const gboolean awaited = self->stream.started && !gst_aggregator_pad_has_buffer(mic) &&
                             !gst_aggregator_pad_is_eos(mic);
    return awaited ? next + MIC_PATIENCE : next;
}

/* ---- a frame --------------------------------------------------------------------- */

/* Places the first frame at the microphones' first buffer. Drops the reference's audio until
 * that is there. */
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
    else if (timeout) /* the base class waits for a frame more */
        segment->position =
            NAX_AEC_FRAME_TIME +
            (GST_CLOCK_TIME_IS_VALID(segment->position) ? segment->position : segment->start);
    GST_OBJECT_UNLOCK(self);
    self->stream.started = first != NULL;
    gst_clear_buffer(&first);
    return self->stream.started;
}

/* Between two frames: what a flush or new settings ask for. */
static void adapt(NaxAec *self)
{
    struct settings wanted;
    if (self->stream.flushed && self->format.framer) framer_restart(self->format.framer);
    self->stream.flushed = FALSE;
    if (!format_differs(self, &wanted)) return;
    drain(self);
    format_set_up(self, &wanted);
}

/* The base class's own method calls the three that follow, the last when the frame is full. */
GstFlowReturn stream_aggregate(GstAggregator *aggregator, gboolean timeout)
{
    NaxAec *self = NAX_AEC_ELEMENT(aggregator);
    const gboolean started = self->stream.started;
    if (!started && gst_aggregator_pad_is_eos(GST_AGGREGATOR_PAD(self->mic))) return GST_FLOW_EOS;
    if (!started && !start_with_microphones(self, timeout)) return GST_AGGREGATOR_FLOW_NEED_DATA;
    if (!self->frame.buffer) adapt(self);
    if (self->format.failed) return GST_FLOW_ERROR;
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

/* Then frame_take_in for each pad, as often as its buffers begin or end within the frame. */

GstFlowReturn stream_finish_buffer(GstAggregator *aggregator, GstBuffer *buffer)
{
    NaxAec *self = NAX_AEC_ELEMENT(aggregator);
    gboolean ended;
    pads_let_go(self);
    if (self->frame.misfits) {
        frame_drop(self);
        gst_buffer_unref(buffer);
        format_fail(self, "output-buffer-duration is not 16 ms");
        return GST_FLOW_ERROR;
    }
    const gboolean ends = gst_aggregator_pad_is_eos(GST_AGGREGATOR_PAD(self->mic));
    const gboolean any = frame_end(self, buffer, ends, &ended);
    const GstFlowReturn flow = push(self, buffer, any);
    return flow == GST_FLOW_OK && ended ? GST_FLOW_EOS : flow;
}

/* ---- out ------------------------------------------------------------------------- */

static GstFlowReturn push(NaxAec *self, GstBuffer *buffer, gboolean any)
{
    if (any) return PARENT(AGGREGATOR)->finish_buffer(GST_AGGREGATOR(self), buffer);
    gst_buffer_unref(buffer);
    return GST_FLOW_OK;
}

/* Pushes the frame that the suppressor holds. */
static void drain(NaxAec *self)
{
    const struct framer *framer = self->format.framer;
    if (!framer || !frame_is_held(self)) return;
    GstBuffer *buffer = PARENT(AUDIO_AGGREGATOR)
                            ->create_output_buffer(GST_AUDIO_AGGREGATOR(self), (guint)framer->size);
    push(self, buffer, frame_drain(self, buffer));
}

/* Pushes what the microphones gave of the frame begun, and the base class begins its next one
 * behind that: it cannot change its format within a frame, nor within a buffer of the
 * reference's. */
static void end_frame_early(NaxAec *self)
{
    GstSegment *segment = &GST_AGGREGATOR_PAD(GST_AGGREGATOR_SRC_PAD(self))->segment;
    GstBuffer *buffer = self->frame.buffer ? gst_buffer_ref(self->frame.buffer) : NULL;
    GstPad *reference = pads_reference(self);
    const guint64 rate = (guint64)self->format.rate;
    GstClockTime position = segment->position;
    PARENT(AGGREGATOR)->flush(GST_AGGREGATOR(self));
    if (reference)
        GST_AGGREGATOR_PAD_GET_CLASS(reference)->flush(GST_AGGREGATOR_PAD(reference),
                                                       GST_AGGREGATOR(self));
    gst_clear_object(&reference);
    if (buffer) {
        gboolean ended;
        GST_BUFFER_PTS(buffer) = position;
        GST_BUFFER_OFFSET(buffer) =
            gst_util_uint64_scale_round(position - segment->start, rate, GST_SECOND);
        position += gst_util_uint64_scale(self->frame.mic_instants, GST_SECOND, rate);
        push(self, buffer, frame_end(self, buffer, TRUE, &ended));
    }
    drain(self);
    GST_OBJECT_LOCK(self);
    segment->position = position;
    GST_OBJECT_UNLOCK(self);
}

void stream_clear(NaxAec *self, gboolean flushed)
{
    self->stream = (struct stream){.flushed = flushed};
    frame_clear(self);
}
