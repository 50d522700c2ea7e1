// KvWaitWord.h - sleeping on a 32-bit word in shared memory until another
// process moves it on (a process-shared futex).
#pragma once

#include <cstdint>

// Sleeps while *pw holds dwExpected, at most cmsTimeout milliseconds (negative:
// no limit). Returns 0 when woken (or the word had moved on already),
// ETIMEDOUT, or EINTR when a signal handler ran.
int KvWaitWordSleep(uint32_t* pw, uint32_t dwExpected, long cmsTimeout);
// Wakes every thread of every process asleep on the word.
void KvWaitWordWakeAll(uint32_t* pw);
