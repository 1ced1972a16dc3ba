/*
 * The queue between two threads. C99 has no atomics; the compilers' own give the
 * order that is needed: a slot's contents before the count that hands it over.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "live_alsa_ring.h"

#include <stdlib.h>

bool ring_create(struct ring *ring, size_t slot_bytes, unsigned min_slots)
{
    unsigned slots = 1;
    while (slots < min_slots)
        slots *= 2;
    *ring = (struct ring){
        .memory = calloc(slots, slot_bytes), .slot_bytes = slot_bytes, .slots = slots};
    return ring->memory != NULL;
}

void ring_destroy(struct ring *ring)
{
    free(ring->memory);
    ring->memory = NULL;
}

static void *slot(const struct ring *ring, unsigned count)
{
    return ring->memory + ring->slot_bytes * (count & (ring->slots - 1));
}

void *ring_slot_to_fill(struct ring *ring)
{
    const unsigned emptied = __atomic_load_n(&ring->emptied, __ATOMIC_ACQUIRE);
    return ring->filled - emptied < ring->slots ? slot(ring, ring->filled) : NULL;
}

void ring_fill(struct ring *ring)
{
    __atomic_store_n(&ring->filled, ring->filled + 1, __ATOMIC_RELEASE);
}

const void *ring_slot_to_empty(struct ring *ring)
{
    const unsigned filled = __atomic_load_n(&ring->filled, __ATOMIC_ACQUIRE);
    return filled != ring->emptied ? slot(ring, ring->emptied) : NULL;
}

void ring_empty(struct ring *ring)
{
    __atomic_store_n(&ring->emptied, ring->emptied + 1, __ATOMIC_RELEASE);
}
