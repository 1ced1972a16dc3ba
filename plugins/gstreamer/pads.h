/*
 * The pad "reference" comes and goes, also while the element plays.
 *
 * GstAudioAggregator goes through the list of pads and lets go of the object lock for each
 * one's audio: a pad that is taken out of the list then is used after it is freed. So a
 * release waits until the base class is through a frame's pads, and it for the release. It is
 * not held while the frame is pushed.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#ifndef NAX_AEC_PADS_H
#define NAX_AEC_PADS_H

#include "naxaec.h"

/* One of the two sink pads. It takes every rate, so that a mismatch comes to where it can be
 * named. */
GstAggregatorPad *pads_create(GstPadTemplate *template, const gchar *name);

/* The pad "reference", with a reference of the caller's, or null. */
GstPad *pads_reference(NaxAec *self);

/* Between these two no pad is released. The second may be said once more. */
void pads_hold(NaxAec *self);
void pads_let_go(NaxAec *self);

/* Around the base class's release. */
void pads_before_release(NaxAec *self);
void pads_after_release(NaxAec *self);

/* Ends a reference that nothing is linked to: where nothing is live the base class would wait
 * for it for ever. A new link begins it anew. */
void pads_end_unlinked(GstPad *reference);

/* The same a little later, when it is unlinked. */
void pads_note_unlinked(GstPad *reference);

#endif
