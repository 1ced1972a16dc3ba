/*
 * Element "naxechoprobe": passes playback through and keeps the last two seconds of it for
 * a naxaec that names it, in this pipeline or another one of the process.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#ifndef NAX_ECHO_PROBE_H
#define NAX_ECHO_PROBE_H

#include <gst/base/gstbasetransform.h>
#include <gst/gst.h>

G_DECLARE_FINAL_TYPE(NaxEchoProbe, nax_echo_probe, NAX, ECHO_PROBE, GstBaseTransform)

/* The probe of a name, with a reference that the caller drops, or null. Of several the one
 * that plays at the rate, of several of those the newest. */
NaxEchoProbe *nax_echo_probe_find(const gchar *name, gint rate);

/* Channels played at a rate; 0 when nothing plays yet or at another rate. */
gint nax_echo_probe_channels(NaxEchoProbe *probe, gint rate);

/* The reference is kept ahead of its sound by this much, because one that is later than its
 * echo is of no use: sinks report their latency to some milliseconds. */
#define NAX_ECHO_PROBE_LEAD (20 * GST_MSECOND)

/* Copies interleaved samples that are heard from a clock time on, less the lead; silence
 * where there are none. Returns how many of the last instants playback is late with. */
gsize nax_echo_probe_read(NaxEchoProbe *probe, GstClockTime from, gint channels, gint16 *to,
                          gsize instants);

#endif
