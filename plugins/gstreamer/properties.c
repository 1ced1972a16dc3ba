/*
 * The element's properties, named like the options of the tools.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "properties.h"

enum {
    PROPERTY_PROBE = 1,
    PROPERTY_REFS,
    PROPERTY_ORDER,
    PROPERTY_DROP,
    PROPERTY_DELAY,
    PROPERTY_DELAY_ESTIMATION,
    PROPERTY_REMAP,
    PROPERTY_SUPPRESS,
    PROPERTY_APPLIED_DELAY,
    PROPERTY_ECHO_REMOVED,
    PROPERTIES
};
static GParamSpec *properties[PROPERTIES];

void properties_install(GObjectClass *object)
{
    const GParamFlags read = G_PARAM_READABLE | G_PARAM_STATIC_STRINGS;
    const GParamFlags both = read | G_PARAM_WRITABLE;
    properties[PROPERTY_PROBE] = g_param_spec_string(
        "probe", "Probe", "Name of the naxechoprobe in the playback pipeline", NULL, both);
    properties[PROPERTY_REFS] =
        g_param_spec_int("refs", "References", "References among the channels of the sink pad", 0,
                         MAX_REFS, 0, both);
    properties[PROPERTY_ORDER] = g_param_spec_string(
        "order", "Order", "Of these channels: mics-first or refs-first", "mics-first", both);
    properties[PROPERTY_DROP] = g_param_spec_int(
        "drop", "Drop", "Keep the last references from the canceller", 0, MAX_REFS, 0, both);
    properties[PROPERTY_DELAY] =
        g_param_spec_int("delay", "Delay", "Where the search for the echo starts, in samples", 0,
                         MAX_DELAY, 0, both);
    properties[PROPERTY_DELAY_ESTIMATION] = g_param_spec_boolean(
        "delay-estimation", "Delay estimation",
        "Find the echo's delay; else the reference stays where it is", TRUE, both);
    properties[PROPERTY_REMAP] = g_param_spec_string(
        "remap", "Remap",
        "Channels, from 0, that are the microphones, as in 1,0; the reference's follow the sink's",
        "", both);
    properties[PROPERTY_SUPPRESS] = g_param_spec_boolean(
        "suppress", "Suppress",
        "Suppress the echo that the canceller leaves; sound comes out 16 ms later than its "
        "timestamps",
        FALSE, both);
    properties[PROPERTY_APPLIED_DELAY] = g_param_spec_int(
        "applied-delay", "Applied delay",
        "Samples that the reference is held back; changes are notified", 0, MAX_DELAY, 0, read);
    properties[PROPERTY_ECHO_REMOVED] = g_param_spec_double(
        "echo-removed", "Echo removed",
        "Level of the microphones less that of the output, in dB, over the last two seconds in "
        "which something was played",
        -100, 100, 0, read);
    g_object_class_install_properties(object, PROPERTIES, properties);
}

static void set_text(NaxAec *self, const gchar *name, const gchar *text)
{
    struct settings settings = self->settings;
    const char *fault = settings_set(&settings, name, text ? text : "");
    if (fault)
        g_warning("naxaec: %s: '%s' %s", name, text ? text : "", fault);
    else
        self->settings = settings;
}

void properties_set(GObject *object, guint id, const GValue *value, GParamSpec *spec)
{
    NaxAec *self = NAX_AEC_ELEMENT(object);
    GST_OBJECT_LOCK(self);
    switch (id) {
    case PROPERTY_PROBE:
        g_free(self->probe_name);
        self->probe_name = g_value_dup_string(value);
        self->probe_changed = TRUE;
        break;
    case PROPERTY_REFS: self->captured_refs = g_value_get_int(value); break;
    case PROPERTY_DROP: self->settings.drop = g_value_get_int(value); break;
    case PROPERTY_DELAY: self->settings.delay = g_value_get_int(value); break;
    case PROPERTY_DELAY_ESTIMATION:
        self->settings.delay_estimation = g_value_get_boolean(value);
        break;
    case PROPERTY_SUPPRESS: self->settings.suppress = g_value_get_boolean(value); break;
    case PROPERTY_ORDER:
    case PROPERTY_REMAP: set_text(self, spec->name, g_value_get_string(value)); break;
    default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
    }
    self->settings_changed |= id != PROPERTY_PROBE;
    GST_OBJECT_UNLOCK(self);
}

static void get_remap(const struct settings *settings, GValue *value)
{
    gchar text[16] = "";
    if (settings->remap_count == 1) g_snprintf(text, sizeof text, "%d", settings->remap[0]);
    if (settings->remap_count == 2)
        g_snprintf(text, sizeof text, "%d,%d", settings->remap[0], settings->remap[1]);
    g_value_set_string(value, text);
}

void properties_get(GObject *object, guint id, GValue *value, GParamSpec *spec)
{
    NaxAec *self = NAX_AEC_ELEMENT(object);
    GST_OBJECT_LOCK(self);
    switch (id) {
    case PROPERTY_PROBE: g_value_set_string(value, self->probe_name); break;
    case PROPERTY_REFS: g_value_set_int(value, self->captured_refs); break;
    case PROPERTY_ORDER:
        g_value_set_static_string(value, self->settings.mics_first ? "mics-first" : "refs-first");
        break;
    case PROPERTY_DROP: g_value_set_int(value, self->settings.drop); break;
    case PROPERTY_DELAY: g_value_set_int(value, self->settings.delay); break;
    case PROPERTY_DELAY_ESTIMATION:
        g_value_set_boolean(value, self->settings.delay_estimation);
        break;
    case PROPERTY_SUPPRESS: g_value_set_boolean(value, self->settings.suppress); break;
    case PROPERTY_REMAP: get_remap(&self->settings, value); break;
    case PROPERTY_APPLIED_DELAY: g_value_set_int(value, self->applied_delay); break;
    case PROPERTY_ECHO_REMOVED: g_value_set_double(value, self->echo_removed); break;
    default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
    }
    GST_OBJECT_UNLOCK(self);
}

void properties_notify_applied_delay(NaxAec *self)
{
    g_object_notify_by_pspec(G_OBJECT(self), properties[PROPERTY_APPLIED_DELAY]);
}
