/*
 * ALSA external PCM plugin "nax_aec": cleaned microphones from a capture device that
 * carries the references as well.
 *
 *     pcm.NAME { type nax_aec  slave.pcm "hw:0,0"  mics 2  refs 2 }
 *
 * The client sees a capture device of 16 bits with a channel for each microphone. Its audio is
 * a frame of 16 ms late. docs/plugins.md lists the settings.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "framer.h"
#include "watch.h"

#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>
#include <alsa/pcm_extplug.h>

struct plugin {
    snd_pcm_extplug_t ext;
    struct settings settings;
    struct framer *framer;
    unsigned int rate; /* Hz, of the framer */
    struct watch watch;
};

/* A channel of an area: its first sample, and the distance to the next in samples. */
struct channel {
    int16_t *sample;
    size_t stride;
};

static struct channel channel_at(const snd_pcm_channel_area_t *area, snd_pcm_uframes_t instant)
{
    char *base = area->addr;
    return (struct channel){(void *)(base + (area->first + area->step * instant) / 8),
                            area->step / 8 / sizeof(int16_t)};
}

static void copy(int16_t *to, size_t to_stride, const int16_t *from, size_t from_stride,
                 size_t count)
{
    for (size_t t = 0; t < count; t++)
        to[t * to_stride] = from[t * from_stride];
}

static snd_pcm_sframes_t transfer(snd_pcm_extplug_t *ext, const snd_pcm_channel_area_t *to,
                                  snd_pcm_uframes_t to_instant, const snd_pcm_channel_area_t *from,
                                  snd_pcm_uframes_t from_instant, snd_pcm_uframes_t size)
{
    struct framer *framer = ((struct plugin *)ext->private_data)->framer;
    for (size_t done = 0, count; done < size; done += count) {
        count = size - done < framer_room(framer) ? size - done : framer_room(framer);
        for (size_t c = 0; c < framer->selected; c++) {
            const struct channel in = channel_at(&from[framer->source[c]], from_instant + done);
            copy(framer_in(framer) + c, framer->selected, in.sample, in.stride, count);
        }
        for (size_t m = 0; m < framer->mics; m++) {
            const struct channel out = channel_at(&to[m], to_instant + done);
            copy(out.sample, out.stride, framer_out(framer) + m, framer->stride, count);
        }
        framer_advance(framer, count);
    }
    return (snd_pcm_sframes_t)size;
}

/* Keeps the framer where the rate stays: a new one has to learn the room again. */
static int set_up(snd_pcm_extplug_t *ext, snd_pcm_hw_params_t *params)
{
    (void)params;
    struct plugin *plugin = ext->private_data;
    if (plugin->framer && plugin->rate == ext->rate) return 0;
    watch_end(&plugin->watch);
    framer_destroy(plugin->framer);
    plugin->framer = framer_create(&plugin->settings, (int)ext->rate);
    plugin->rate = ext->rate;
    if (plugin->framer) {
        watch_begin(&plugin->watch, plugin->framer->meter);
        return 0;
    }
    SNDERR("nax_aec: cannot run at %u Hz, only at 8000, 16000, 32000 or 48000 Hz", ext->rate);
    return -EINVAL;
}

static int start(snd_pcm_extplug_t *ext)
{
    struct plugin *plugin = ext->private_data;
    if (!plugin->framer) return 0;
    watch_look(&plugin->watch);
    framer_restart(plugin->framer);
    return 0;
}

/* The slave's channel map does not describe the cleaned microphones. */
static snd_pcm_chmap_query_t **no_maps(snd_pcm_extplug_t *ext)
{
    (void)ext;
    return NULL;
}

static snd_pcm_chmap_t *no_map(snd_pcm_extplug_t *ext)
{
    (void)ext;
    return NULL;
}

static int close_plugin(snd_pcm_extplug_t *ext)
{
    struct plugin *plugin = ext->private_data;
    watch_end(&plugin->watch);
    framer_destroy(plugin->framer);
    free(plugin);
    return 0;
}

static int read_setting(struct settings *settings, const char *name, const snd_config_t *node)
{
    char *text;
    if (snd_config_get_ascii(node, &text) < 0) {
        SNDERR("nax_aec: %s has no value", name);
        return -EINVAL;
    }
    const char *fault = settings_set(settings, name, text);
    if (fault) SNDERR("nax_aec: %s: '%s' %s", name, text, fault);
    free(text);
    return fault ? -EINVAL : 0;
}

static int read_settings(struct settings *settings, snd_config_t *conf, snd_config_t **slave)
{
    snd_config_iterator_t at, next;
    snd_config_for_each(at, next, conf)
    {
        snd_config_t *node = snd_config_iterator_entry(at);
        const char *name;
        if (snd_config_get_id(node, &name) < 0 || !strcmp(name, "comment") ||
            !strcmp(name, "type") || !strcmp(name, "hint"))
            continue;
        if (!strcmp(name, "slave")) {
            *slave = node;
            continue;
        }
        const int status = read_setting(settings, name, node);
        if (status < 0) return status;
    }
    const char *fault = settings_check(settings);
    if (!*slave) fault = "needs slave.pcm, the device to capture from";
    if (fault) SNDERR("nax_aec: %s", fault);
    return fault ? -EINVAL : 0;
}

static int constrain(snd_pcm_extplug_t *ext, const struct settings *settings)
{
    const unsigned int mics = (unsigned int)settings->mics;
    const unsigned int channels = mics + (unsigned int)settings->refs;
    int status = snd_pcm_extplug_set_param(ext, SND_PCM_EXTPLUG_HW_CHANNELS, mics);
    if (status >= 0)
        status = snd_pcm_extplug_set_slave_param(ext, SND_PCM_EXTPLUG_HW_CHANNELS, channels);
    if (status >= 0)
        status = snd_pcm_extplug_set_param(ext, SND_PCM_EXTPLUG_HW_FORMAT, SND_PCM_FORMAT_S16);
    if (status >= 0)
        status =
            snd_pcm_extplug_set_slave_param(ext, SND_PCM_EXTPLUG_HW_FORMAT, SND_PCM_FORMAT_S16);
    if (status < 0) return status;
    /* ALSA's own message would be that no configuration is available. */
    snd_pcm_hw_params_t *possible;
    snd_pcm_hw_params_alloca(&possible);
    status = snd_pcm_hw_params_any(ext->pcm, possible);
    if (status < 0)
        SNDERR("nax_aec: slave.pcm cannot capture %u channels (mics and refs) of 16 bits",
               channels);
    return status;
}

static const snd_pcm_extplug_callback_t CALLBACKS = {.transfer = transfer,
                                                     .hw_params = set_up,
                                                     .init = start,
                                                     .query_chmaps = no_maps,
                                                     .get_chmap = no_map,
                                                     .close = close_plugin};

SND_PCM_PLUGIN_DEFINE_FUNC(nax_aec)
{
    struct settings settings = DEFAULT_SETTINGS;
    snd_config_t *slave = NULL;
    if (stream != SND_PCM_STREAM_CAPTURE) {
        SNDERR("nax_aec: captures only, for playback name another device");
        return -EINVAL;
    }
    int status = read_settings(&settings, conf, &slave);
    if (status < 0) return status;

    struct plugin *plugin = calloc(1, sizeof *plugin);
    if (!plugin) return -ENOMEM;
    plugin->settings = settings;
    plugin->ext.version = SND_PCM_EXTPLUG_VERSION;
    plugin->ext.name = "acoustic echo cancellation (nax_aec)";
    plugin->ext.callback = &CALLBACKS;
    plugin->ext.private_data = plugin;
    status = snd_pcm_extplug_create(&plugin->ext, name, root, slave, stream, mode);
    if (status < 0) {
        free(plugin);
        return status;
    }
    status = constrain(&plugin->ext, &settings);
    if (status < 0) {
        snd_pcm_extplug_delete(&plugin->ext);
        return status;
    }
    *pcmp = plugin->ext.pcm;
    return 0;
}

SND_PCM_PLUGIN_SYMBOL(nax_aec)
