/*
 * A queue of equal slots between two threads, one that fills and one that
 * empties. Neither ever waits for the other: a full or an empty ring is an answer.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#ifndef LIVE_ALSA_RING_H
#define LIVE_ALSA_RING_H

#include <stdbool.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

struct ring {
    unsigned char *memory;
    size_t slot_bytes;
    unsigned slots;           /* a power of two, so that the counters may wrap */
    unsigned filled, emptied; /* slots since the start, each written by one thread */
};

/* Makes an empty ring of at least min_slots slots. False when there is no memory. */
bool ring_create(struct ring *ring, size_t slot_bytes, unsigned min_slots);

void ring_destroy(struct ring *ring);

/* The filling thread: the next free slot, or null when the ring is full; then,
 * with its contents in place, hand it over. */
void *ring_slot_to_fill(struct ring *ring);
void ring_fill(struct ring *ring);

/* The emptying thread: the oldest filled slot, or null when there is none; then,
 * when done with it, give it back. */
const void *ring_slot_to_empty(struct ring *ring);
void ring_empty(struct ring *ring);

#ifdef __cplusplus
}
#endif

#endif
