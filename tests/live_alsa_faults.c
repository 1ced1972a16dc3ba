/*
 * What a sound card does at its worst, for a live_alsa linked with
 * --wrap=snd_pcm_readi. The environment's LIVE_ALSA_FAULTS says what and when, in
 * reads since the start:
 *
 *     overrun@N  read N finds that samples were lost
 *     unplug@N   from read N on there is no device
 *     stall@N    from read N on no samples come
 *     paced      a read takes as long as its samples
 */
#define _POSIX_C_SOURCE 200809L /* nanosleep */

#include <alsa/asoundlib.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

snd_pcm_sframes_t __real_snd_pcm_readi(snd_pcm_t *pcm, void *audio, snd_pcm_uframes_t count);
snd_pcm_sframes_t __wrap_snd_pcm_readi(snd_pcm_t *pcm, void *audio, snd_pcm_uframes_t count);

/* The read that a fault is planned for, or never. */
static long planned(const char *fault)
{
    const char *plan = getenv("LIVE_ALSA_FAULTS");
    const char *found = plan ? strstr(plan, fault) : NULL;
    return found ? atol(found + strlen(fault)) : -1;
}

snd_pcm_sframes_t __wrap_snd_pcm_readi(snd_pcm_t *pcm, void *audio, snd_pcm_uframes_t count)
{
    static long reads;
    const struct timespec frame = {.tv_nsec = 16000000};
    reads++;
    if (planned("paced") >= 0) nanosleep(&frame, NULL);
    if (planned("overrun@") == reads) return -EPIPE;
    if (planned("unplug@") > 0 && reads >= planned("unplug@")) return -ENODEV;
    if (planned("stall@") > 0 && reads >= planned("stall@")) return -EAGAIN;
    return __real_snd_pcm_readi(pcm, audio, count);
}
