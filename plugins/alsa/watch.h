/*
 * Logs the meter's alarms, each once when it begins and once when it is over.
 *
 * The thread that reads the device must not write to a log, so a thread of the plugin's own
 * looks at the meter every second.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#ifndef WATCH_H
#define WATCH_H

#include "nax_meter.h"

#include <pthread.h>
#include <stdbool.h>
#include <sys/types.h>

struct watch {
    pthread_t thread;
    pthread_mutex_t lock; /* of the following */
    pthread_cond_t ending;
    const nax_meter_state *meter;
    pid_t process; /* that has the thread: a forked one has not */
    bool runs, ends;
    int logged; /* the alarm in the log, or NAX_METER_SEARCHING */
};

/* Watches a meter until watch_end. Without memory for a thread only watch_look logs. */
void watch_begin(struct watch *watch, const nax_meter_state *meter);

/* Looks now, from a thread that may write to the log. In a forked process it begins anew. */
void watch_look(struct watch *watch);

/* Looks once more and ends the thread. Nothing happens where none was begun. */
void watch_end(struct watch *watch);

/* What to log at a verdict: null, or the beginning of the line. Takes note of it. */
const char *watch_decide(int *logged, int verdict);

#endif
