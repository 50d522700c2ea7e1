// KvShmObject.cpp - see KvShmObject.h.
#include "KvShmObject.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include "KvNamedMutex.h"

bool KvShmObject::OpenOrCreate(const std::string& strName, size_t cb, bool fCreateOk, bool* pfCreated)
{
    *pfCreated = false;
    m_strName = strName;
    m_cb = cb;
    m_fd = shm_open(strName.c_str(), O_RDWR | O_CLOEXEC, 0600);
    if (m_fd < 0 && errno == ENOENT && fCreateOk) {
        m_fd = shm_open(strName.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (m_fd >= 0) {
            if (ftruncate(m_fd, static_cast<off_t>(cb)) != 0) {
                close(m_fd);
                shm_unlink(strName.c_str());
                m_fd = -1;
                return false;
            }
            *pfCreated = true;
        }
    }
    if (m_fd < 0)
        return false;
    if (!*pfCreated) {
        // An existing object keeps its own size; cb 0 accepts any size.
        struct stat st;
        if (fstat(m_fd, &st) != 0 || static_cast<size_t>(st.st_size) < cb) {
            close(m_fd);
            m_fd = -1;
            return false;
        }
        m_cb = static_cast<size_t>(st.st_size);
    }
    return true;
}

bool KvShmObject::Map()
{
    if (m_fd < 0)
        return false;
    void* pv = mmap(nullptr, m_cb, PROT_READ | PROT_WRITE, MAP_SHARED, m_fd, 0);
    if (pv == MAP_FAILED)
        return false;
    m_pv = pv;
    return true;
}

void KvShmObject::Unmap()
{
    if (m_pv != nullptr)
        munmap(m_pv, m_cb);
    m_pv = nullptr;
}

void KvShmObject::Close()
{
    Unmap();
    if (m_fd >= 0)
        close(m_fd);
    m_fd = -1;
}

bool KvShmObject::Reopen()
{
    const int fd = OpenAnotherDescription();
    if (fd >= 0)
        AdoptDescription(fd);  // the parent's description stays open (and locked) in the parent
    return fd >= 0;
}

int KvShmObject::OpenAnotherDescription() const
{
    return m_strName.empty() ? -1 : shm_open(m_strName.c_str(), O_RDWR | O_CLOEXEC, 0600);
}

void KvShmObject::AdoptDescription(int fd)
{
    if (m_fd >= 0 && m_fd != fd)
        close(m_fd);
    m_fd = fd;
}

bool KvShmObject::Unlink(const std::string& strName)
{
    return shm_unlink(strName.c_str()) == 0;
}

void* KvReserveMemory(size_t cb)
{
    void* pv = mmap(nullptr, cb, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return pv == MAP_FAILED ? nullptr : pv;
}

void KvReleaseMemory(void* pv, size_t cb)
{
    if (pv != nullptr)
        munmap(pv, cb);
}

bool KvFlockShared(int fd)
{
    while (flock(fd, LOCK_SH) != 0)
        if (errno != EINTR)
            return false;
    return true;
}

bool KvFlockTryExclusive(int fd)
{
    while (flock(fd, LOCK_EX | LOCK_NB) != 0)
        if (errno != EINTR)
            return false;
    return true;
}

void KvFlockUnlock(int fd)
{
    flock(fd, LOCK_UN);
}

void KvCloseDescriptor(int fd)
{
    if (fd >= 0)
        close(fd);
}
