/*
 * The pad "reference" comes and goes, also while the element plays.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "pads.h"

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
    while (self->releasing > 0)
        g_cond_wait(&self->gathered, GST_OBJECT_GET_LOCK(self));
    self->gatherer = g_thread_self();
    GST_OBJECT_UNLOCK(self);
}

void pads_let_go(NaxAec *self)
{
    GST_OBJECT_LOCK(self);
    self->gatherer = NULL;
    if (self->releasing > 0) g_cond_broadcast(&self->gathered);
    GST_OBJECT_UNLOCK(self);
}

/* From a handler that the base class calls in the streaming thread, itself, there is nothing
 * to wait for: it calls none while it goes through the list. */
void pads_before_release(NaxAec *self)
{
    GST_OBJECT_LOCK(self);
    self->releasing++;
    while (self->gatherer && self->gatherer != g_thread_self())
        g_cond_wait(&self->gathered, GST_OBJECT_GET_LOCK(self));
    GST_OBJECT_UNLOCK(self);
}

void pads_after_release(NaxAec *self)
{
    GST_OBJECT_LOCK(self);
    self->has_reference = FALSE;
    if (--self->releasing == 0) g_cond_broadcast(&self->gathered);
    GST_OBJECT_UNLOCK(self);
}

/* A link that comes meanwhile sends its stream's start after this end, which undoes it. */
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

/* Who unlinks must not wait for a buffer that is still on its way into the pad. */
void pads_note_unlinked(GstPad *reference)
{
    GstElement *element = gst_pad_get_parent_element(reference);
    if (!element) return;
    gst_element_call_async(element, end_unlinked, gst_object_ref(reference), gst_object_unref);
    gst_object_unref(element);
}
