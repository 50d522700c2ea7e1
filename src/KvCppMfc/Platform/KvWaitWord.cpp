// KvWaitWord.cpp - see KvWaitWord.h.
#include "KvWaitWord.h"

#include <cerrno>
#include <climits>
#include <ctime>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

int KvWaitWordSleep(uint32_t* pw, uint32_t dwExpected, long cmsTimeout)
{
    timespec ts{};
    if (cmsTimeout >= 0) {
        ts.tv_sec = static_cast<time_t>(cmsTimeout / 1000);
        ts.tv_nsec = static_cast<long>(cmsTimeout % 1000) * 1000000L;
    }
    // Shared (not FUTEX_PRIVATE_FLAG): the word lies in the segment.
    const long rc = syscall(SYS_futex, pw, FUTEX_WAIT, dwExpected, cmsTimeout >= 0 ? &ts : nullptr, nullptr, 0);
    if (rc == 0 || errno == EAGAIN)
        return 0;
    return errno == ETIMEDOUT || errno == EINTR ? errno : 0;
}

void KvWaitWordWakeAll(uint32_t* pw)
{
    syscall(SYS_futex, pw, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}
