// What may be done on an audio thread: nothing that could block. A child process prepares
// freely, then forbids itself every system call but the one that ends it, and every call
// of the heap and of a mutex, and acts. audio_thread.cpp stands in for the C library's
// functions in the whole program that it is linked into.
#pragma once

#include <functional>

inline constexpr int WENT_TO_THE_HEAP = 3, TOOK_A_LOCK = 4;

// Why there is no ban here, to skip what needs it; null where there is one.
const char *no_ban_here();

// Prepares in a child process and acts there under the ban. Returns the status of waitpid:
// 0 when the act returned 0 and did nothing forbidden; an exit with one of the above at a
// call of heap or mutex; the signal SIGSYS at a system call.
int ends_with(const std::function<std::function<int()>()> &prepare);
