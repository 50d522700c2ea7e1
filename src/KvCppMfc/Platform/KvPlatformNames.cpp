// KvPlatformNames.cpp - see KvPlatformNames.h.
#include "KvPlatformNames.h"

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

std::string KvNamespace()
{
    const char* psz = getenv("KVRFRSVR_NAMESPACE");
    if (psz != nullptr && *psz != '\0')
        return psz;
    return "u" + std::to_string(static_cast<unsigned long>(getuid()));
}

std::string KvNamespaceSuffix()
{
    return "." + KvNamespace() + "." + std::to_string(KvWordSize());
}

static uint64_t KvFnv1a(const std::string& str)
{
    uint64_t h = 1469598103934665603ull;
    for (unsigned char ch : str)
        h = (h ^ ch) * 1099511628211ull;
    return h;
}

std::string KvObjectName(const char* pszName)
{
    std::string strBase = pszName != nullptr ? pszName : "";
    for (char& ch : strBase)
        if (ch == '/' || static_cast<unsigned char>(ch) < 0x20)
            ch = '_';
    const std::string strSuffix = KvNamespaceSuffix();
    // Leave room for the leading "/" and a 17-character hash tag.
    const size_t cchMax = NAME_MAX - strSuffix.size() - 18;
    if (strBase.size() > cchMax) {
        char szHash[20];
        snprintf(szHash, sizeof(szHash), "~%016llx", static_cast<unsigned long long>(KvFnv1a(strBase)));
        strBase = strBase.substr(0, cchMax) + szHash;
    }
    return "/" + strBase + strSuffix;
}

int KvUnlinkNamespaceObjects(const std::string& strKeep, bool fKeepMutexes)
{
    const std::string strSuffix = KvNamespaceSuffix();
    DIR* pdir = opendir("/dev/shm");
    if (pdir == nullptr)
        return 0;
    std::vector<std::string> names;
    while (dirent* pent = readdir(pdir)) {
        const std::string strName = pent->d_name;
        if (strName.size() > strSuffix.size() &&
            strName.compare(strName.size() - strSuffix.size(), strSuffix.size(), strSuffix) == 0)
            names.push_back("/" + strName);
    }
    closedir(pdir);
    int c = 0;
    for (const std::string& strName : names) {
        if (strName == strKeep || (fKeepMutexes && KvIsMutexObject(strName)))
            continue;
        if (shm_unlink(strName.c_str()) == 0)
            ++c;
    }
    return c;
}
