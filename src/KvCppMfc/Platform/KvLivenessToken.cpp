// KvLivenessToken.cpp - see KvLivenessToken.h.
#include "KvLivenessToken.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include "KvPlatformNames.h"
#include "KvProcess.h"

namespace {
std::string KvTokenName(const KvProcessKey& key)
{
    char sz[64];
    snprintf(sz, sizeof(sz), "KVRS_PRC.%u.%llu", key.dwPid, static_cast<unsigned long long>(key.qwStartTime));
    return KvObjectName(sz);
}
}  // namespace

uint64_t KvProcessStartTime(uint32_t dwPid)
{
    char szPath[64];
    snprintf(szPath, sizeof(szPath), "/proc/%u/stat", dwPid);
    FILE* pf = fopen(szPath, "re");
    if (pf == nullptr)
        return 0;
    char sz[1024];
    const size_t cch = fread(sz, 1, sizeof(sz) - 1, pf);
    fclose(pf);
    sz[cch] = '\0';
    // The command name may hold blanks and parentheses: fields count from the
    // last ')'. Field 22 (start time) is the 20th after it.
    const char* p = strrchr(sz, ')');
    if (p == nullptr)
        return 0;
    for (int iField = 2; iField < 22 && p != nullptr; ++iField)
        p = strchr(p + 1, ' ');
    return p != nullptr ? strtoull(p + 1, nullptr, 10) : 0;
}

KvProcessKey KvThisProcessKey()
{
    static KvProcessKey s_key{0, 0};
    const uint32_t dwPid = KvGetCurrentProcessId();
    if (s_key.dwPid != dwPid)
        s_key = KvProcessKey{dwPid, KvProcessStartTime(dwPid)};
    return s_key;
}

bool KvLivenessToken::Take(const KvProcessKey& key)
{
    Drop();
    m_strName = KvTokenName(key);
    // A token of the same name can only be left by an earlier image of this
    // very process (before an exec): nobody holds it, so it is taken over.
    m_fd = shm_open(m_strName.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (m_fd < 0)
        return false;
    if (flock(m_fd, LOCK_EX | LOCK_NB) != 0) {
        close(m_fd);
        m_fd = -1;
        return false;
    }
    return true;
}

void KvLivenessToken::Drop()
{
    if (m_fd < 0)
        return;
    shm_unlink(m_strName.c_str());
    close(m_fd);
    m_fd = -1;
}

void KvLivenessToken::ForgetAfterFork()
{
    if (m_fd >= 0)
        close(m_fd);  // the parent's descriptor keeps the description and its lock
    m_fd = -1;
}

bool KvLivenessToken::IsAlive(const KvProcessKey& key)
{
    const std::string strName = KvTokenName(key);
    const int fd = shm_open(strName.c_str(), O_RDWR | O_CLOEXEC, 0600);
    if (fd < 0)
        return errno != ENOENT;  // an object we may not open is not ours to judge
    const bool fAlive = flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    close(fd);  // also drops the probe's lock, if it got one
    return fAlive;
}

void KvLivenessToken::Remove(const KvProcessKey& key)
{
    shm_unlink(KvTokenName(key).c_str());
}
