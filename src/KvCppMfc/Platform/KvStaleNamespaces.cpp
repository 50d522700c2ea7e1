// KvStaleNamespaces.cpp - see KvStaleNamespaces.h.
#include "KvStaleNamespaces.h"

#include <cstring>
#include <string>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "KvPlatformNames.h"

namespace {

const char kSegment[] = "KVRFRSVR_MEM.";
const char* const kapszFixed[] = {"KVRFRSVR_MEM", "KVRFRSVR_GLOBAL_MUTEX", "OGRAN.MTX", "OGRAN.JRN"};

struct KvNamespaceRef {
    std::string strSuffix;  // "." + namespace + "." + word size
};

// "KVRFRSVR_MEM.<namespace>.<32|64>" of this user: the suffix, or "" when the
// name is not a segment of ours.
std::string KvSegmentSuffix(int fdDir, const char* pszName)
{
    if (strncmp(pszName, kSegment, sizeof(kSegment) - 1) != 0)
        return "";
    std::string strSuffix = pszName + sizeof(kSegment) - 2;  // from the "."
    if (strSuffix.size() < 5 || (strSuffix.compare(strSuffix.size() - 3, 3, ".32") != 0 &&
                                 strSuffix.compare(strSuffix.size() - 3, 3, ".64") != 0))
        return "";
    struct stat st;
    if (fstatat(fdDir, pszName, &st, AT_SYMLINK_NOFOLLOW) != 0 || st.st_uid != getuid())
        return "";
    return strSuffix;
}

// An object of one process, "<prefix><digits>.<digits><suffix>": a liveness
// token (KVRS_PRC.) or a wake pipe (KVRS_WFD.).
bool KvIsProcessObjectOf(const std::string& strName, const std::string& strPrefix, const std::string& strSuffix)
{
    if (strName.size() <= strPrefix.size() + strSuffix.size() || strName.compare(0, strPrefix.size(), strPrefix) != 0 ||
        strName.compare(strName.size() - strSuffix.size(), strSuffix.size(), strSuffix) != 0)
        return false;
    const std::string strMiddle =
        strName.substr(strPrefix.size(), strName.size() - strPrefix.size() - strSuffix.size());
    const size_t iDot = strMiddle.find('.');
    return iDot != std::string::npos && iDot > 0 && iDot + 1 < strMiddle.size() &&
           strMiddle.find_first_not_of("0123456789.") == std::string::npos &&
           strMiddle.find('.', iDot + 1) == std::string::npos;
}

// True when nobody holds the segment of that suffix. The caller holds the
// namespace's KVCRITSEC, under which every process joins or creates it.
bool KvIsSegmentStale(const std::string& strSuffix)
{
    const int fd = shm_open(("/KVRFRSVR_MEM" + strSuffix).c_str(), O_RDWR | O_CLOEXEC, 0600);
    if (fd < 0)
        return false;
    const bool fStale = flock(fd, LOCK_EX | LOCK_NB) == 0;
    close(fd);
    return fStale;
}

void KvUnlinkNamespace(const std::string& strSuffix, const std::vector<std::string>& vstrAll)
{
    for (const char* pszFixed : kapszFixed)
        shm_unlink(("/" + std::string(pszFixed) + strSuffix).c_str());
    for (const std::string& strName : vstrAll)
        if (KvIsProcessObjectOf(strName, "KVRS_PRC.", strSuffix) ||
            KvIsProcessObjectOf(strName, "KVRS_WFD.", strSuffix))
            shm_unlink(("/" + strName).c_str());
}

// Removes the namespace when it is stale; false when it is in use or busy.
bool KvRemoveIfStale(const std::string& strSuffix, const std::vector<std::string>& vstrAll)
{
    const std::string strLock = "/KVCRITSEC" + strSuffix;
    const int fdLock = shm_open(strLock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fdLock < 0)
        return false;
    bool fRemoved = false;
    if (flock(fdLock, LOCK_EX | LOCK_NB) == 0 && KvIsSegmentStale(strSuffix)) {
        KvUnlinkNamespace(strSuffix, vstrAll);
        shm_unlink(strLock.c_str());  // last: a waiter on it opens the name afresh
        fRemoved = true;
    }
    close(fdLock);
    return fRemoved;
}

}  // namespace

int KvRemoveStaleNamespaces()
{
    DIR* pdir = opendir("/dev/shm");
    if (pdir == nullptr)
        return 0;
    std::vector<std::string> vstrAll, vstrSuffixes;
    const std::string strOwn = KvNamespaceSuffix();
    while (dirent* pent = readdir(pdir)) {
        vstrAll.emplace_back(pent->d_name);
        const std::string strSuffix = KvSegmentSuffix(dirfd(pdir), pent->d_name);
        if (!strSuffix.empty() && strSuffix != strOwn)
            vstrSuffixes.push_back(strSuffix);
    }
    closedir(pdir);
    int c = 0;
    for (const std::string& strSuffix : vstrSuffixes)
        c += KvRemoveIfStale(strSuffix, vstrAll) ? 1 : 0;
    return c;
}
