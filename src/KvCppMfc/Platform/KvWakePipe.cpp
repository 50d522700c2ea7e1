// KvWakePipe.cpp - see KvWakePipe.h.
#include "KvWakePipe.h"

#include <cerrno>
#include <cstdio>
#include <mutex>
#include <string>
#include <unordered_map>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "KvPlatformNames.h"

namespace {

std::string KvWakePipePath(const KvProcessKey& key)
{
    char sz[64];
    snprintf(sz, sizeof(sz), "KVRS_WFD.%u.%llu", key.dwPid, static_cast<unsigned long long>(key.qwStartTime));
    return "/dev/shm" + KvObjectName(sz);
}

// The descriptors this process writes into, one per slot of the table of
// processes: a notifier opens a receiver's FIFO once, not per message.
struct KvWakeWriter {
    KvProcessKey key;
    int fd;
};

struct KvWakeWriters {
    std::mutex mtx;
    std::unordered_map<uint32_t, KvWakeWriter> map;
};

KvWakeWriters* s_pWriters = nullptr;  // made on first use; outlives every exit handler

KvWakeWriters& KvWriters()
{
    KvWakeWriters* p = __atomic_load_n(&s_pWriters, __ATOMIC_ACQUIRE);
    if (p != nullptr)
        return *p;
    auto* pNew = new KvWakeWriters;
    if (!__atomic_compare_exchange_n(&s_pWriters, &p, pNew, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
        delete pNew;
        return *p;
    }
    return *pNew;
}

int KvOpenWriter(const KvProcessKey& key)
{
    return open(KvWakePipePath(key).c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
}

}  // namespace

int KvWakePipe::Create(const KvProcessKey& key)
{
    const std::string strPath = KvWakePipePath(key);
    // A FIFO of the same name can only be left by an earlier image of this very
    // process (before an exec), whose bytes would be stale: it is made anew.
    unlink(strPath.c_str());
    if (mkfifo(strPath.c_str(), 0600) != 0)
        return -1;
    const int fd = open(strPath.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        const int err = errno;
        unlink(strPath.c_str());
        errno = err;
    }
    return fd;
}

void KvWakePipe::Remove(const KvProcessKey& key)
{
    unlink(KvWakePipePath(key).c_str());
}

bool KvWakePipe::Ring(uint32_t iSlot, const KvProcessKey& key)
{
    KvWakeWriters& w = KvWriters();
    std::lock_guard<std::mutex> lock(w.mtx);
    auto it = w.map.find(iSlot);
    if (it != w.map.end() && (it->second.key.dwPid != key.dwPid || it->second.key.qwStartTime != key.qwStartTime)) {
        close(it->second.fd);
        w.map.erase(it);
        it = w.map.end();
    }
    if (it == w.map.end()) {
        const int fd = KvOpenWriter(key);
        if (fd < 0)
            return false;
        it = w.map.emplace(iSlot, KvWakeWriter{key, fd}).first;
    }
    const char ch = 1;
    // A full pipe is readable already: EAGAIN loses nothing.
    const ssize_t cb = write(it->second.fd, &ch, 1);
    (void)cb;
    return true;
}

void KvWakePipe::ForgetWritersAfterFork()
{
    // Another of the parent's threads may have held the map's lock at fork
    // time, and it is never released in the child: the child starts a map of
    // its own. The parent's descriptors stay open in the child (they close on
    // exec); a few, one per process the parent had woken.
    __atomic_store_n(&s_pWriters, nullptr, __ATOMIC_RELEASE);
}
