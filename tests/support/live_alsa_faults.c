/*
 * What a sound card and a disk do at their worst, for a live_alsa linked with --wrap of
 * the calls below. The environment's LIVE_ALSA_FAULTS says what and when, in
 * reads since the start:
 *
 *     overrun@N  read N finds that samples were lost
 *     unplug@N   from read N on there is no device
 *     stall@N    from read N on no samples come
 *     paced      a read takes as long as its samples
 *     timed      the same without waiting: the program's clock moves a frame a read
 *     behind@N   nothing is written to disk before read N
 *     linkable   two devices can be linked; starting the second one too would fail
 */
#define _POSIX_C_SOURCE 200809L /* nanosleep */

#include <alsa/asoundlib.h>
#include <errno.h>
#include <sndfile.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

int __real_clock_gettime(clockid_t clock, struct timespec *now);
int __wrap_clock_gettime(clockid_t clock, struct timespec *now);
sf_count_t __real_sf_writef_short(SNDFILE *file, const short *audio, sf_count_t count);
sf_count_t __wrap_sf_writef_short(SNDFILE *file, const short *audio, sf_count_t count);
int __real_snd_pcm_link(snd_pcm_t *first, snd_pcm_t *second);
int __wrap_snd_pcm_link(snd_pcm_t *first, snd_pcm_t *second);
int __real_snd_pcm_start(snd_pcm_t *pcm);
int __wrap_snd_pcm_start(snd_pcm_t *pcm);
snd_pcm_sframes_t __real_snd_pcm_readi(snd_pcm_t *pcm, void *audio, snd_pcm_uframes_t count);
snd_pcm_sframes_t __wrap_snd_pcm_readi(snd_pcm_t *pcm, void *audio, snd_pcm_uframes_t count);

enum { FRAME_NS = 16000000 };
static long reads;        /* so far, by the audio thread */
static snd_pcm_t *linked; /* starts with another */

/* The read that a fault is planned for, or never. */
static long planned(const char *fault)
{
    const char *plan = getenv("LIVE_ALSA_FAULTS");
    const char *found = plan ? strstr(plan, fault) : NULL;
    return found ? atol(found + strlen(fault)) : -1;
}

snd_pcm_sframes_t __wrap_snd_pcm_readi(snd_pcm_t *pcm, void *audio, snd_pcm_uframes_t count)
{
    const struct timespec frame = {.tv_nsec = FRAME_NS};
    const long read = __atomic_add_fetch(&reads, 1, __ATOMIC_RELAXED);
    if (planned("paced") >= 0) nanosleep(&frame, NULL);
    if (planned("overrun@") == read) return -EPIPE;
    if (planned("unplug@") > 0 && read >= planned("unplug@")) return -ENODEV;
    if (planned("stall@") > 0 && read >= planned("stall@")) return -EAGAIN;
    return __real_snd_pcm_readi(pcm, audio, count);
}

int __wrap_clock_gettime(clockid_t clock, struct timespec *now)
{
    if (planned("timed") < 0) return __real_clock_gettime(clock, now);
    const long long ns = (long long)__atomic_load_n(&reads, __ATOMIC_RELAXED) * FRAME_NS;
    *now =
        (struct timespec){.tv_sec = (time_t)(ns / 1000000000), .tv_nsec = (long)(ns % 1000000000)};
    return 0;
}

sf_count_t __wrap_sf_writef_short(SNDFILE *file, const short *audio, sf_count_t count)
{
    const struct timespec moment = {.tv_nsec = 1000000};
    while (__atomic_load_n(&reads, __ATOMIC_RELAXED) < planned("behind@"))
        nanosleep(&moment, NULL);
    return __real_sf_writef_short(file, audio, count);
}

int __wrap_snd_pcm_link(snd_pcm_t *first, snd_pcm_t *second)
{
    if (planned("linkable") < 0) return __real_snd_pcm_link(first, second);
    linked = second;
    return 0;
}

int __wrap_snd_pcm_start(snd_pcm_t *pcm)
{
    return linked && pcm == linked ? -EBADFD : __real_snd_pcm_start(pcm);
}
