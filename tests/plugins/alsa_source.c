/*
 * ALSA capture device "nax_test_source": gives the interleaved 16-bit samples of a raw file,
 * then silence. (ALSA's own file device skips samples when an external plugin reads it.)
 *
 *     pcm.NAME { type nax_test_source  file "all.raw"  channels 4  rate 48000  paced yes }
 *
 * It gives samples as fast as it is read. With "paced yes" it follows the clock and overruns
 * like a sound card when nobody reads. With "looped yes" the file begins again after its end.
 * With "once yes" only silence follows when the device is prepared again.
 *
 * ALSA before 1.2.5 gives old samples at the wrap of the buffer to a reader that maps the
 * device, as an external plugin does.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#define _POSIX_C_SOURCE 200809L

#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>
#include <alsa/pcm_ioplug.h>
#include <stdio.h>
#include <string.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

struct source {
    snd_pcm_ioplug_t io;
    int16_t *samples;
    size_t instants; /* in the file */
    long channels, rate;
    int paced, looped, once;
    snd_pcm_uframes_t captured; /* sample instants since the start */
    struct timespec started;
};

static int start(snd_pcm_ioplug_t *io)
{
    struct source *source = io->private_data;
    return clock_gettime(CLOCK_MONOTONIC, &source->started);
}

static int stop(snd_pcm_ioplug_t *io)
{
    (void)io;
    return 0;
}

static int prepare(snd_pcm_ioplug_t *io)
{
    struct source *source = io->private_data;
    if (source->once && source->captured > 0) source->instants = 0;
    source->captured = 0;
    return 0;
}

static snd_pcm_uframes_t captured_by_now(const struct source *source)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const double seconds = (double)(now.tv_sec - source->started.tv_sec) +
                           1e-9 * (double)(now.tv_nsec - source->started.tv_nsec);
    return (snd_pcm_uframes_t)(seconds * (double)source->rate);
}

static snd_pcm_sframes_t pointer(snd_pcm_ioplug_t *io)
{
    struct source *source = io->private_data;
    if (source->paced)
        source->captured = captured_by_now(source);
    else if (source->captured - io->appl_ptr + io->period_size <= io->buffer_size)
        source->captured += io->period_size;
    if (source->captured - io->appl_ptr > io->buffer_size) return -EPIPE;
    return (snd_pcm_sframes_t)source->captured;
}

/* ALSA may ask for the same instants twice, so their position decides what it gets. */
static snd_pcm_sframes_t transfer(snd_pcm_ioplug_t *io, const snd_pcm_channel_area_t *areas,
                                  snd_pcm_uframes_t offset, snd_pcm_uframes_t size)
{
    const struct source *source = io->private_data;
    for (snd_pcm_uframes_t t = 0; t < size; t++)
        for (size_t c = 0; c < io->channels; c++) {
            const size_t since_start = io->appl_ptr + t;
            const size_t instant = source->looped ? since_start % source->instants : since_start;
            char *to = (char *)areas[c].addr + (areas[c].first + areas[c].step * (offset + t)) / 8;
            const int16_t sample = instant < source->instants
                                       ? source->samples[instant * io->channels + c]
                                       : (int16_t)0;
            memcpy(to, &sample, sizeof sample);
        }
    return (snd_pcm_sframes_t)size;
}

/* A map of all channels with unknown positions. */
static snd_pcm_chmap_t *map(snd_pcm_ioplug_t *io)
{
    snd_pcm_chmap_t *map = calloc(1, sizeof *map + io->channels * sizeof map->pos[0]);
    if (map) map->channels = io->channels;
    return map;
}

static int close_source(snd_pcm_ioplug_t *io)
{
    struct source *source = io->private_data;
    close(io->poll_fd);
    free(source->samples);
    free(source);
    return 0;
}

static int load(struct source *source, const char *path)
{
    const size_t instant_bytes = (size_t)source->channels * sizeof(int16_t);
    FILE *file = fopen(path, "rb");
    if (!file || fseek(file, 0, SEEK_END) != 0) return -ENOENT;
    source->instants = (size_t)ftell(file) / instant_bytes;
    source->samples = malloc(source->instants * instant_bytes);
    rewind(file);
    const size_t read = fread(source->samples, instant_bytes, source->instants, file);
    fclose(file);
    return read == source->instants ? 0 : -EIO;
}

static int constrain(struct source *source)
{
    static const unsigned int accesses[] = {SND_PCM_ACCESS_MMAP_INTERLEAVED,
                                            SND_PCM_ACCESS_RW_INTERLEAVED};
    static const unsigned int format[] = {SND_PCM_FORMAT_S16};
    const unsigned int channels[] = {(unsigned int)source->channels};
    const unsigned int rate[] = {(unsigned int)source->rate};
    snd_pcm_ioplug_t *io = &source->io;
    int status = snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_ACCESS, 2, accesses);
    status |= snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_FORMAT, 1, format);
    status |= snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_CHANNELS, 1, channels);
    status |= snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_RATE, 1, rate);
    status |= snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_PERIOD_BYTES, 64, 1 << 18);
    status |= snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_BUFFER_BYTES, 256, 1 << 20);
    return status;
}

/* A file descriptor that wakes the reader every millisecond. */
static int ticking(void)
{
    const struct itimerspec millisecond = {{0, 1000000}, {0, 1}};
    const int clock = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK);
    timerfd_settime(clock, 0, &millisecond, NULL);
    return clock;
}

static int wake(snd_pcm_ioplug_t *io, struct pollfd *polled, unsigned int count,
                unsigned short *events)
{
    uint64_t ticks;
    (void)count;
    if (read(io->poll_fd, &ticks, sizeof ticks) < 0 && errno != EAGAIN) return -errno;
    *events = (unsigned short)polled->revents;
    return 0;
}

static const snd_pcm_ioplug_callback_t CALLBACKS = {.start = start,
                                                    .stop = stop,
                                                    .prepare = prepare,
                                                    .pointer = pointer,
                                                    .transfer = transfer,
                                                    .poll_revents = wake,
                                                    .get_chmap = map,
                                                    .close = close_source};

SND_PCM_PLUGIN_DEFINE_FUNC(nax_test_source)
{
    (void)root;
    const char *file = "";
    struct source *source = calloc(1, sizeof *source);
    snd_config_iterator_t at, next;
    snd_config_for_each(at, next, conf)
    {
        snd_config_t *node = snd_config_iterator_entry(at);
        const char *id;
        snd_config_get_id(node, &id);
        if (!strcmp(id, "file")) snd_config_get_string(node, &file);
        if (!strcmp(id, "channels")) snd_config_get_integer(node, &source->channels);
        if (!strcmp(id, "rate")) snd_config_get_integer(node, &source->rate);
        if (!strcmp(id, "paced")) source->paced = snd_config_get_bool(node) == 1;
        if (!strcmp(id, "looped")) source->looped = snd_config_get_bool(node) == 1;
        if (!strcmp(id, "once")) source->once = snd_config_get_bool(node) == 1;
    }
    int status = load(source, file);
    if (status < 0) return status;
    source->io.version = SND_PCM_IOPLUG_VERSION;
    source->io.name = "a file";
    source->io.flags = SND_PCM_IOPLUG_FLAG_BOUNDARY_WA;
    source->io.callback = &CALLBACKS;
    source->io.private_data = source;
    source->io.poll_fd = ticking();
    source->io.poll_events = POLLIN;
    status = snd_pcm_ioplug_create(&source->io, name, stream, mode);
    if (status >= 0) status = constrain(source);
    *pcmp = source->io.pcm;
    return status;
}

SND_PCM_PLUGIN_SYMBOL(nax_test_source)
