/*
 * Logs the meter's alarms.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#define _POSIX_C_SOURCE 200809L /* pthread_sigmask */

#include "watch.h"

#include <alsa/asoundlib.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

const char *watch_decide(int *logged, int verdict)
{
    const bool alarm = nax_meter_is_alarm(verdict);
    const bool was_alarm = nax_meter_is_alarm(*logged);
    if (verdict == *logged || (!alarm && !was_alarm)) return NULL;
    *logged = verdict;
    return alarm ? "alarm" : "well again";
}

static void look(struct watch *watch)
{
    nax_meter_report report;
    nax_meter_read(watch->meter, &report);
    const char *change = watch_decide(&watch->logged, report.verdict);
    if (change)
        SNDERR("nax_aec: %s: %s: %s", change, nax_meter_name(report.verdict),
               nax_meter_text(report.verdict));
}

static void *watch_it(void *object)
{
    struct watch *watch = object;
    pthread_mutex_lock(&watch->lock);
    while (!watch->ends) {
        struct timespec next;
        look(watch);
        clock_gettime(CLOCK_REALTIME, &next);
        next.tv_sec++;
        pthread_cond_timedwait(&watch->ending, &watch->lock, &next);
    }
    pthread_mutex_unlock(&watch->lock);
    return NULL;
}

void watch_begin(struct watch *watch, const nax_meter_state *meter)
{
    sigset_t all, before;
    *watch = (struct watch){.meter = meter, .process = getpid(), .logged = NAX_METER_SEARCHING};
    pthread_mutex_init(&watch->lock, NULL);
    pthread_cond_init(&watch->ending, NULL);
    /* The program's signals are for its own threads. */
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    watch->runs = pthread_create(&watch->thread, NULL, watch_it, watch) == 0;
    pthread_sigmask(SIG_SETMASK, &before, NULL);
}

void watch_look(struct watch *watch)
{
    if (watch->process != getpid()) watch_begin(watch, watch->meter);
    pthread_mutex_lock(&watch->lock);
    look(watch);
    pthread_mutex_unlock(&watch->lock);
}

void watch_end(struct watch *watch)
{
    if (!watch->meter || watch->process != getpid()) return;
    pthread_mutex_lock(&watch->lock);
    look(watch);
    watch->ends = true;
    pthread_cond_signal(&watch->ending);
    pthread_mutex_unlock(&watch->lock);
    if (watch->runs) pthread_join(watch->thread, NULL);
    pthread_cond_destroy(&watch->ending);
    pthread_mutex_destroy(&watch->lock);
    *watch = (struct watch){0};
}
