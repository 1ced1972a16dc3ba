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

/* The probe of a name, which the caller unrefs, or null. Of several it is the newest that plays
 * at the rate, or the newest where none does. */
NaxEchoProbe *nax_echo_probe_find(const gchar *name, gint rate);

/* Channels that are played; 0 while nothing plays, or at another rate. */
gint nax_echo_probe_channels(NaxEchoProbe *probe, gint rate);

/* The reference is read this much before it is heard. Sinks report their latency wrong by some
 * milliseconds, and a reference that is later than its echo is of no use. */
#define NAX_ECHO_PROBE_LEAD (20 * GST_MSECOND)

/* Copies the interleaved samples that are heard from a clock time plus the lead on. Where there
 * are none it writes silence. Returns how many of the last instants playback has yet to give. */
gsize nax_echo_probe_read(NaxEchoProbe *probe, GstClockTime from, gint channels, gint16 *to,
                          gsize instants);

#endif
