/*
 * The pad "reference", which comes and goes while the element plays.
 *
 * The base class goes through the list of pads and gives up the object lock for each pad's
 * audio. It would use a pad after it was released meanwhile. So a release waits until the
 * base class is through the pads of a frame, and the next frame waits for the release.
 * Nothing waits while a frame is pushed downstream.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "naxaec.h"

GstAggregatorPad *pads_create(GstPadTemplate *template, const gchar *name)
{
    GstPad *pad = g_object_new(GST_TYPE_AUDIO_AGGREGATOR_PAD, "name", name, "direction",
                               GST_PAD_SINK, "template", template, NULL);
    GST_PAD_SET_ACCEPT_TEMPLATE(pad);
    return GST_AGGREGATOR_PAD(pad);
}

GstPad *pads_reference(NaxAec *self)
{
    return gst_element_get_static_pad(GST_ELEMENT(self), "reference");
}

void pads_hold(NaxAec *self)
{
    GST_OBJECT_LOCK(self);
    while (self->pads.releasing > 0)
        g_cond_wait(&self->pads.gathered, GST_OBJECT_GET_LOCK(self));
    self->pads.gatherer = g_thread_self();
    GST_OBJECT_UNLOCK(self);
}

void pads_let_go(NaxAec *self)
{
    GST_OBJECT_LOCK(self);
    self->pads.gatherer = NULL;
    if (self->pads.releasing > 0) g_cond_broadcast(&self->pads.gathered);
    GST_OBJECT_UNLOCK(self);
}

/* A link made meanwhile sends the start of its stream after this end, and so undoes it. */
void pads_end_unlinked(GstPad *reference)
{
    GST_PAD_STREAM_LOCK(reference);
    if (!gst_pad_is_linked(reference)) gst_pad_send_event(reference, gst_event_new_eos());
    GST_PAD_STREAM_UNLOCK(reference);
}

static void end_unlinked(GstElement *element, gpointer reference)
{
    (void)element;
    pads_end_unlinked(reference);
}

/* In another thread: the one that unlinks must not wait for a buffer that is on its way into
 * the pad. */
static void note_unlinked(GstPad *reference)
{
    GstElement *element = gst_pad_get_parent_element(reference);
    if (!element) return;
    gst_element_call_async(element, end_unlinked, gst_object_ref(reference), gst_object_unref);
    gst_object_unref(element);
}

GstPad *pads_request(GstElement *element, GstPadTemplate *template, const gchar *name,
                     const GstCaps *caps)
{
    NaxAec *self = NAX_AEC_ELEMENT(element);
    (void)name;
    GST_OBJECT_LOCK(self);
    const gboolean first = !self->pads.has_reference;
    self->pads.has_reference = TRUE;
    GST_OBJECT_UNLOCK(self);
    if (!first) return NULL;
    GstPad *pad = PARENT(ELEMENT)->request_new_pad(element, template, "reference", caps);
    g_signal_connect(pad, "unlinked", G_CALLBACK(note_unlinked), NULL);
    pads_end_unlinked(pad);
    return pad;
}

/* A handler that the base class calls in the streaming thread may release the pad. It does
 * not wait for its own thread: the base class calls none while it goes through the pads. */
void pads_release(GstElement *element, GstPad *pad)
{
    NaxAec *self = NAX_AEC_ELEMENT(element);
    g_signal_handlers_disconnect_by_func(pad, note_unlinked, NULL);
    GST_OBJECT_LOCK(self);
    self->pads.releasing++;
    while (self->pads.gatherer && self->pads.gatherer != g_thread_self())
        g_cond_wait(&self->pads.gathered, GST_OBJECT_GET_LOCK(self));
    GST_OBJECT_UNLOCK(self);

    PARENT(ELEMENT)->release_pad(element, pad);

    GST_OBJECT_LOCK(self);
    self->pads.has_reference = FALSE;
    if (--self->pads.releasing == 0) g_cond_broadcast(&self->pads.gathered);
    GST_OBJECT_UNLOCK(self);
}
