/*
 * The element's properties, named like the options of the tools.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#ifndef NAX_AEC_PROPERTIES_H
#define NAX_AEC_PROPERTIES_H

#include "naxaec.h"

void properties_install(GObjectClass *object);
void properties_set(GObject *object, guint id, const GValue *value, GParamSpec *spec);
void properties_get(GObject *object, guint id, GValue *value, GParamSpec *spec);
/* Takes what the read-only ones say now; notifies of a delay that moved. */
void properties_tell(NaxAec *self, gint applied_delay, gdouble echo_removed);

#endif
