/*
 * The element's properties. The settings are named like the options of the tools.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "naxaec.h"

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
    PROPERTY_STATUS,
    PROPERTY_STATS,
    PROPERTIES
};
static GParamSpec *specs[PROPERTIES];

const nax_meter_report NO_REPORT = {.verdict = -1};

enum { MICS_FIRST, REFS_FIRST };

static GType order_type(void)
{
    static gsize type;
    static const GEnumValue values[] = {{MICS_FIRST, "Microphones first", "mics-first"},
                                        {REFS_FIRST, "References first", "refs-first"},
                                        {0, NULL, NULL}};
    if (g_once_init_enter(&type))
        g_once_init_leave(&type, g_enum_register_static("NaxAecOrder", values));
    return type;
}

void properties_install(GObjectClass *object)
{
    const GParamFlags read = G_PARAM_READABLE | G_PARAM_STATIC_STRINGS;
    const GParamFlags ready = read | G_PARAM_WRITABLE | GST_PARAM_MUTABLE_READY;
    const GParamFlags playing = read | G_PARAM_WRITABLE | GST_PARAM_MUTABLE_PLAYING;
    specs[PROPERTY_PROBE] = g_param_spec_string(
        "probe", "Probe",
        "Name of the naxechoprobe in the playback pipeline, where neither the reference pad nor "
        "refs is used",
        NULL, playing);
    specs[PROPERTY_REFS] =
        g_param_spec_int("refs", "References",
                         "Channels of the sink pad that are references; 0: all are microphones", 0,
                         MAX_REFS, 0, ready);
    specs[PROPERTY_ORDER] =
        g_param_spec_enum("order", "Order", "Which come first at the sink pad, if refs says any",
                          order_type(), MICS_FIRST, playing);
    specs[PROPERTY_DROP] = g_param_spec_int(
        "drop", "Drop", "Number of references, the last ones, that are kept from the canceller", 0,
        MAX_REFS, 0, playing);
    specs[PROPERTY_DELAY] = g_param_spec_int(
        "delay", "Delay", "Samples by which the reference is held back until the echo is found", 0,
        MAX_DELAY, 0, playing);
    specs[PROPERTY_DELAY_ESTIMATION] = g_param_spec_boolean(
        "delay-estimation", "Delay estimation",
        "Find the echo's delay and follow it; else the reference is not held back", TRUE, playing);
    specs[PROPERTY_REMAP] = g_param_spec_string(
        "remap", "Remap",
        "Channels, from 0, that are the microphones, as in \"1,0\"; the reference's follow the "
        "sink pad's; empty: in their order",
        "", playing);
    specs[PROPERTY_SUPPRESS] = g_param_spec_boolean(
        "suppress", "Suppress",
        "Suppress the echo that the canceller leaves, for 16 ms more of latency", FALSE, playing);
    specs[PROPERTY_APPLIED_DELAY] = g_param_spec_int(
        "applied-delay", "Applied delay",
        "Samples that the reference is held back, notified when it changes", 0, MAX_DELAY, 0, read);
    specs[PROPERTY_ECHO_REMOVED] = g_param_spec_double(
        "echo-removed", "Echo removed",
        "Energy of the microphones over that of the canceller's output, in dB, over the last two "
        "seconds in which something was played; not notified",
        -200, 200, 0, read);
    specs[PROPERTY_STATUS] = g_param_spec_string(
        "status", "Status",
        "Whether the echo is cancelled, or why not: one of the meter's verdicts; null where there "
        "is "
        "no reference; notified when it changes, and told in the element message naxaec-status",
        NULL, read);
    specs[PROPERTY_STATS] = g_param_spec_boxed(
        "stats", "Stats", "The meter's report: status, levels, clipping, echo removed, delay",
        GST_TYPE_STRUCTURE, read);
    g_object_class_install_properties(object, PROPERTIES, specs);
    gst_type_mark_as_plugin_api(order_type(), 0);
}

/* Returns null, or what is wrong with the value. */
static const char *set_setting(struct settings *settings, guint id, const GValue *value)
{
    switch (id) {
    case PROPERTY_ORDER: settings->mics_first = g_value_get_enum(value) == MICS_FIRST; break;
    case PROPERTY_DROP: settings->drop = g_value_get_int(value); break;
    case PROPERTY_DELAY: settings->delay = g_value_get_int(value); break;
    case PROPERTY_DELAY_ESTIMATION: settings->delay_estimation = g_value_get_boolean(value); break;
    case PROPERTY_SUPPRESS: settings->suppress = g_value_get_boolean(value); break;
    default: {
        const gchar *text = g_value_get_string(value);
        return settings_set(settings, "remap", text ? text : "");
    }
    }
    return NULL;
}

static gboolean is_another(NaxAec *self, const GValue *value, GParamSpec *spec)
{
    GValue now = G_VALUE_INIT;
    g_value_init(&now, spec->value_type);
    g_object_get_property(G_OBJECT(self), spec->name, &now);
    const gboolean another = g_param_values_cmp(spec, value, &now) != 0;
    g_value_unset(&now);
    return another;
}

static void set_settings(NaxAec *self, guint id, const GValue *value, GParamSpec *spec)
{
    const gboolean another = is_another(self, value, spec);
    GST_OBJECT_LOCK(self);
    struct settings settings = self->properties.settings;
    const char *fault = set_setting(&settings, id, value);
    if (!fault) {
        self->properties.settings_changed |= another;
        self->properties.settings = settings;
    }
    GST_OBJECT_UNLOCK(self);
    if (fault) g_warning("naxaec: remap: '%s' %s", g_value_get_string(value), fault);
    if (id == PROPERTY_SUPPRESS) {
        const GstClockTime latency = (settings.suppress ? 2 : 1) * NAX_AEC_FRAME_TIME;
        gst_aggregator_set_latency(GST_AGGREGATOR(self), latency, latency);
    }
}

void properties_set(GObject *object, guint id, const GValue *value, GParamSpec *spec)
{
    NaxAec *self = NAX_AEC_ELEMENT(object);
    struct properties *properties = &self->properties;
    switch (id) {
    case PROPERTY_PROBE:
        GST_OBJECT_LOCK(self);
        g_free(properties->probe);
        properties->probe = g_value_dup_string(value);
        properties->probe_changed = TRUE;
        GST_OBJECT_UNLOCK(self);
        break;
    case PROPERTY_REFS:
        GST_OBJECT_LOCK(self);
        properties->refs = g_value_get_int(value);
        GST_OBJECT_UNLOCK(self);
        break;
    case PROPERTY_ORDER:
    case PROPERTY_DROP:
    case PROPERTY_DELAY:
    case PROPERTY_DELAY_ESTIMATION:
    case PROPERTY_REMAP:
    case PROPERTY_SUPPRESS: set_settings(self, id, value, spec); break;
    default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
    }
}

static void get_remap(const struct settings *settings, GValue *value)
{
    gchar text[16] = "";
    if (settings->remap_count == 1) g_snprintf(text, sizeof text, "%d", settings->remap[0]);
    if (settings->remap_count == 2)
        g_snprintf(text, sizeof text, "%d,%d", settings->remap[0], settings->remap[1]);
    g_value_set_string(value, text);
}

static gfloat loudest(const gfloat dbfs[NAX_METER_REFS])
{
    gfloat most = dbfs[0];
    for (gsize r = 1; r < NAX_METER_REFS; r++)
        most = MAX(most, dbfs[r]);
    return most;
}

static GstStructure *stats_of(const nax_meter_report *report)
{
    return gst_structure_new(
        "naxaec-stats", "status", G_TYPE_STRING, nax_meter_name(report->verdict), "status-seconds",
        G_TYPE_DOUBLE, (gdouble)report->verdict_s, "far-end-seconds", G_TYPE_DOUBLE,
        (gdouble)report->far_end_s, "microphone-dbfs", G_TYPE_DOUBLE,
        (gdouble)MAX(report->mic_dbfs[0], report->mic_dbfs[1]), "output-dbfs", G_TYPE_DOUBLE,
        (gdouble)MAX(report->out_dbfs[0], report->out_dbfs[1]), "reference-dbfs", G_TYPE_DOUBLE,
        (gdouble)loudest(report->ref_dbfs), "microphone-clipped", G_TYPE_DOUBLE,
        (gdouble)report->mic_clipped, "reference-clipped", G_TYPE_DOUBLE,
        (gdouble)report->ref_clipped, "echo-removed", G_TYPE_DOUBLE, (gdouble)report->removed_db,
        "applied-delay", G_TYPE_INT, report->delay, "delay-seconds", G_TYPE_DOUBLE,
        (gdouble)report->delay_s, "delay-moves", G_TYPE_INT, report->delay_moves, NULL);
}

void properties_get(GObject *object, guint id, GValue *value, GParamSpec *spec)
{
    NaxAec *self = NAX_AEC_ELEMENT(object);
    const struct properties *properties = &self->properties;
    const struct settings *settings = &properties->settings;
    const nax_meter_report *report = &properties->report;
    GST_OBJECT_LOCK(self);
    switch (id) {
    case PROPERTY_PROBE: g_value_set_string(value, properties->probe); break;
    case PROPERTY_REFS: g_value_set_int(value, properties->refs); break;
    case PROPERTY_ORDER:
        g_value_set_enum(value, settings->mics_first ? MICS_FIRST : REFS_FIRST);
        break;
    case PROPERTY_DROP: g_value_set_int(value, settings->drop); break;
    case PROPERTY_DELAY: g_value_set_int(value, settings->delay); break;
    case PROPERTY_DELAY_ESTIMATION: g_value_set_boolean(value, settings->delay_estimation); break;
    case PROPERTY_SUPPRESS: g_value_set_boolean(value, settings->suppress); break;
    case PROPERTY_REMAP: get_remap(settings, value); break;
    case PROPERTY_APPLIED_DELAY: g_value_set_int(value, report->delay); break;
    case PROPERTY_ECHO_REMOVED: g_value_set_double(value, (gdouble)report->removed_db); break;
    case PROPERTY_STATUS: g_value_set_static_string(value, nax_meter_name(report->verdict)); break;
    case PROPERTY_STATS: g_value_take_boxed(value, stats_of(report)); break;
    default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
    }
    GST_OBJECT_UNLOCK(self);
}

gboolean properties_take(NaxAec *self, struct settings *settings)
{
    GST_OBJECT_LOCK(self);
    *settings = self->properties.settings;
    const gboolean changed = self->properties.settings_changed;
    self->properties.settings_changed = FALSE;
    GST_OBJECT_UNLOCK(self);
    return changed;
}

gboolean properties_take_probe(NaxAec *self, gboolean *named)
{
    GST_OBJECT_LOCK(self);
    *named = self->properties.probe != NULL;
    const gboolean changed = self->properties.probe_changed;
    self->properties.probe_changed = FALSE;
    GST_OBJECT_UNLOCK(self);
    return changed;
}

NaxEchoProbe *properties_find_probe(NaxAec *self, gint rate)
{
    GST_OBJECT_LOCK(self);
    const gchar *name = self->properties.probe;
    NaxEchoProbe *probe = name ? nax_echo_probe_find(name, rate) : NULL;
    GST_OBJECT_UNLOCK(self);
    return probe;
}

gint properties_refs(NaxAec *self)
{
    GST_OBJECT_LOCK(self);
    const gint refs = self->properties.refs;
    GST_OBJECT_UNLOCK(self);
    return refs;
}

static void post_status(NaxAec *self, gint verdict)
{
    GstStructure *status = gst_structure_new(
        "naxaec-status", "status", G_TYPE_STRING, nax_meter_name(verdict), "text", G_TYPE_STRING,
        nax_meter_text(verdict), "alarm", G_TYPE_BOOLEAN, nax_meter_is_alarm(verdict) == 1, NULL);
    gst_element_post_message(GST_ELEMENT(self), gst_message_new_element(GST_OBJECT(self), status));
}

void properties_tell(NaxAec *self, const nax_meter_report *report)
{
    GST_OBJECT_LOCK(self);
    const nax_meter_report before = self->properties.report;
    self->properties.report = *report;
    GST_OBJECT_UNLOCK(self);
    if (report->delay != before.delay)
        g_object_notify_by_pspec(G_OBJECT(self), specs[PROPERTY_APPLIED_DELAY]);
    if (report->verdict == before.verdict) return;
    g_object_notify_by_pspec(G_OBJECT(self), specs[PROPERTY_STATUS]);
    if (report->verdict >= 0) post_status(self, report->verdict);
}
