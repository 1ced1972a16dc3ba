/*
 * SPA plugin "audio.aec" for PipeWire's module-echo-cancel:
 *
 *     library.name = aec/libspa-aec-nax
 *     aec.args = { delay-estimation = yes }
 *
 * It names no block size and gathers frames of 16 ms out of blocks of any size: a module that
 * is asked for blocks of 768 samples at a quantum of 1024 loses a quarter of the samples.
 * docs/plugins.md lists the settings.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "framer.h"

#include <errno.h>
#include <sched.h>
#include <spa/interfaces/audio/aec.h>
#include <spa/param/props.h>
#include <spa/support/log.h>
#include <spa/support/plugin.h>
#include <spa/utils/names.h>
#include <spa/utils/string.h>
#include <string.h>

struct plugin {
    struct spa_handle handle;
    struct spa_audio_aec aec;
    struct spa_log *log;
    struct settings settings;
    struct framer *framer;
    bool busy; /* a thread uses the framer: the data thread or, in activate, the main thread */
};

/* ---- the data thread ------------------------------------------------------------ */

static int16_t to_sample(float value)
{
    const float scaled = value * 32768.0f;
    if (scaled >= 32767.0f) return 32767;
    if (!(scaled > -32768.0f)) return scaled <= -32768.0f ? -32768 : 0; /* 0: no number */
    return (int16_t)(scaled < 0 ? scaled - 0.5f : scaled + 0.5f);
}

static void take_in(struct framer *framer, const float *mics[], const float *refs[], size_t done,
                    size_t count)
{
    for (size_t c = 0; c < framer->selected; c++) {
        const size_t source = (size_t)framer->source[c];
        const float *from =
            (source < framer->mics ? mics[source] : refs[source - framer->mics]) + done;
        int16_t *to = framer_in(framer) + c;
        for (size_t t = 0; t < count; t++, to += framer->selected)
            *to = to_sample(from[t]);
    }
}

static void hand_out(const struct framer *framer, float *out[], size_t done, size_t count)
{
    for (size_t m = 0; m < framer->mics; m++) {
        const int16_t *from = framer_out(framer) + m;
        for (size_t t = 0; t < count; t++, from += framer->stride)
            out[m][done + t] = (float)*from / 32768.0f;
    }
}

static bool begin_use(struct plugin *plugin)
{
    return !__atomic_exchange_n(&plugin->busy, true, __ATOMIC_ACQUIRE);
}

static void end_use(struct plugin *plugin)
{
    __atomic_store_n(&plugin->busy, false, __ATOMIC_RELEASE);
}

/* Silent while the main thread restarts the framer: the data thread must not wait for it. */
static int run(void *object, const float *rec[], const float *play[], float *out[], uint32_t size)
{
    struct plugin *plugin = object;
    struct framer *framer = plugin->framer;
    if (!framer) return -EIO;
    if (!begin_use(plugin)) {
        for (size_t m = 0; m < framer->mics; m++)
            memset(out[m], 0, size * sizeof *out[m]);
        return 0;
    }
    for (size_t done = 0, count; done < size; done += count) {
        count = SPA_MIN(size - done, framer_room(framer));
        take_in(framer, rec, play, done, count);
        hand_out(framer, out, done, count);
        framer_advance(framer, count);
    }
    end_use(plugin);
    return 0;
}

/* ---- the main thread ------------------------------------------------------------ */

/* The streams give the numbers of channels, aec.args the other settings. */
static int set_up(struct plugin *plugin, const struct spa_dict *args, uint32_t rate, uint32_t mics,
                  uint32_t refs)
{
    struct settings *settings = &plugin->settings;
    const struct spa_dict_item *item;
    if (mics < 1 || mics > MAX_MICS || refs < 1 || refs > MAX_REFS) {
        spa_log_error(plugin->log,
                      "nax_aec: %u captured and %u played channels: 1 or 2 and 1 to %d", mics, refs,
                      MAX_REFS);
        return -EINVAL;
    }
    *settings = DEFAULT_SETTINGS;
    settings->mics = (int)mics;
    settings->refs = (int)refs;
    if (args && args->n_items > 0) spa_dict_for_each(item, args)
        {
            const char *text = item->value ? item->value : "";
            const bool fixed = spa_streq(item->key, "mics") || spa_streq(item->key, "refs") ||
                               spa_streq(item->key, "order");
            const char *fault = fixed ? "follows from the streams' channels"
                                      : settings_set(settings, item->key, text);
            if (!fault) continue;
            spa_log_error(plugin->log, "nax_aec: aec.args: %s: '%s' %s", item->key, text, fault);
            return -EINVAL;
        }
    const char *fault = settings_check(settings);
    if (fault) {
        spa_log_error(plugin->log, "nax_aec: aec.args: %s", fault);
        return -EINVAL;
    }
    framer_destroy(plugin->framer);
    plugin->framer = framer_create(settings, (int)rate);
    if (plugin->framer) return 0;
    spa_log_error(plugin->log, "nax_aec: audio.rate: %u Hz, not 8000, 16000, 32000 or 48000 Hz",
                  rate);
    return -EINVAL;
}

static int init(void *object, const struct spa_dict *args, const struct spa_audio_info_raw *info)
{
    return set_up(object, args, info->rate, info->channels, info->channels);
}

#if SPA_VERSION_AUDIO_AEC_METHODS >= 3
/* The module passes captured, cleaned and played channels in this order. The header's names of
 * the arguments are in another order. */
static int init2(void *object, const struct spa_dict *args, struct spa_audio_info_raw *rec,
                 struct spa_audio_info_raw *out, struct spa_audio_info_raw *play)
{
    *out = *rec;
    return set_up(object, args, rec->rate, rec->channels, play->channels);
}
#endif

/* The data thread may run meanwhile: capturing goes on while nobody listens to the source. */
static int activate(void *object)
{
    struct plugin *plugin = object;
    if (!plugin->framer) return 0;
    while (!begin_use(plugin))
        sched_yield();
    framer_restart(plugin->framer);
    end_use(plugin);
    return 0;
}

static int deactivate(void *object)
{
    (void)object;
    return 0;
}

static int add_listener(void *object, struct spa_hook *listener,
                        const struct spa_audio_aec_events *events, void *data)
{
    (void)object, (void)listener, (void)events, (void)data;
    return 0; /* no event is ever sent */
}

#if SPA_VERSION_AUDIO_AEC_METHODS >= 2
static const char APPLIED_DELAY[] = "nax.applied-delay", STATUS[] = "nax.status";

/* Both return how many parameters there are when they are given no builder. */
static int enum_props(void *object, int index, struct spa_pod_builder *builder)
{
    (void)object;
    if (!builder) return 2;
    if (index == 0)
        spa_pod_builder_add_object(
            builder, SPA_TYPE_OBJECT_PropInfo, SPA_PARAM_PropInfo, SPA_PROP_INFO_name,
            SPA_POD_String(APPLIED_DELAY), SPA_PROP_INFO_description,
            SPA_POD_String("Samples that the reference is held back"), SPA_PROP_INFO_type,
            SPA_POD_CHOICE_RANGE_Int(0, 0, MAX_DELAY), SPA_PROP_INFO_params, SPA_POD_Bool(true));
    else if (index == 1)
        spa_pod_builder_add_object(
            builder, SPA_TYPE_OBJECT_PropInfo, SPA_PARAM_PropInfo, SPA_PROP_INFO_name,
            SPA_POD_String(STATUS), SPA_PROP_INFO_description,
            SPA_POD_String("Whether the echo is cancelled, or why not"), SPA_PROP_INFO_type,
            SPA_POD_String(nax_meter_name(NAX_METER_SEARCHING)), SPA_PROP_INFO_params,
            SPA_POD_Bool(true));
    else
        return -EINVAL;
    return 0;
}

static int get_params(void *object, struct spa_pod_builder *builder)
{
    const struct plugin *plugin = object;
    nax_meter_report report = {.verdict = NAX_METER_SEARCHING};
    if (!builder) return 2;
    if (plugin->framer) nax_meter_read(plugin->framer->meter, &report);
    spa_pod_builder_string(builder, APPLIED_DELAY);
    spa_pod_builder_int(builder, report.delay);
    spa_pod_builder_string(builder, STATUS);
    spa_pod_builder_string(builder, nax_meter_name(report.verdict));
    return 0;
}

static int set_params(void *object, const struct spa_pod *params)
{
    (void)object, (void)params;
    return 0; /* both are read-only */
}
#endif

static const struct spa_audio_aec_methods METHODS = {
    .version = SPA_VERSION_AUDIO_AEC_METHODS,
    .add_listener = add_listener,
    .init = init,
    .run = run,
    .activate = activate,
    .deactivate = deactivate,
#if SPA_VERSION_AUDIO_AEC_METHODS >= 2
    .enum_props = enum_props,
    .get_params = get_params,
    .set_params = set_params,
#endif
#if SPA_VERSION_AUDIO_AEC_METHODS >= 3
    .init2 = init2,
#endif
};

/* ---- the factory ---------------------------------------------------------------- */

static int get_interface(struct spa_handle *handle, const char *type, void **interface)
{
    struct plugin *plugin = (struct plugin *)handle;
    if (!spa_streq(type, SPA_TYPE_INTERFACE_AUDIO_AEC)) return -ENOENT;
    *interface = &plugin->aec;
    return 0;
}

static int clear(struct spa_handle *handle)
{
    struct plugin *plugin = (struct plugin *)handle;
    framer_destroy(plugin->framer);
    plugin->framer = NULL;
    return 0;
}

static size_t get_size(const struct spa_handle_factory *factory, const struct spa_dict *params)
{
    (void)factory, (void)params;
    return sizeof(struct plugin);
}

static int init_handle(const struct spa_handle_factory *factory, struct spa_handle *handle,
                       const struct spa_dict *info, const struct spa_support *support,
                       uint32_t support_count)
{
    struct plugin *plugin = (struct plugin *)handle;
    (void)factory, (void)info;
    *plugin = (struct plugin){
        .handle = {SPA_VERSION_HANDLE, get_interface, clear},
        .aec = {.name = "nax", .latency = NULL},
        .log = spa_support_find(support, support_count, SPA_TYPE_INTERFACE_Log),
    };
    plugin->aec.iface =
        SPA_INTERFACE_INIT(SPA_TYPE_INTERFACE_AUDIO_AEC, SPA_VERSION_AUDIO_AEC, &METHODS, plugin);
    return 0;
}

static int enum_interface_info(const struct spa_handle_factory *factory,
                               const struct spa_interface_info **info, uint32_t *index)
{
    static const struct spa_interface_info interface = {SPA_TYPE_INTERFACE_AUDIO_AEC};
    (void)factory;
    if (*index > 0) return 0;
    *info = &interface;
    (*index)++;
    return 1;
}

SPA_EXPORT int spa_handle_factory_enum(const struct spa_handle_factory **found, uint32_t *index)
{
    static const struct spa_handle_factory factory = {.version = SPA_VERSION_HANDLE_FACTORY,
                                                      .name = SPA_NAME_AEC,
                                                      .get_size = get_size,
                                                      .init = init_handle,
                                                      .enum_interface_info = enum_interface_info};
    if (*index > 0) return 0;
    *found = &factory;
    (*index)++;
    return 1;
}
