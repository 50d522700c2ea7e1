// KvApiTestUtil.cpp - see KvApiTestUtil.h.
#include "KvApiTestUtil.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "common/KvTestSupport.h"

KvStderrCapture::KvStderrCapture()
{
    char szPath[] = "/tmp/kvrs-stderr-XXXXXX";
    m_fdFile = mkstemp(szPath);
    unlink(szPath);
    fflush(stderr);
    m_fdSaved = dup(2);
    dup2(m_fdFile, 2);
}

KvStderrCapture::~KvStderrCapture()
{
    Stop();
}

std::string KvStderrCapture::Stop()
{
    std::string str;
    if (m_fdSaved < 0)
        return str;
    fflush(stderr);
    dup2(m_fdSaved, 2);
    close(m_fdSaved);
    m_fdSaved = -1;
    lseek(m_fdFile, 0, SEEK_SET);
    char ach[4096];
    ssize_t cb;
    while ((cb = read(m_fdFile, ach, sizeof(ach))) > 0)
        str.append(ach, static_cast<size_t>(cb));
    close(m_fdFile);
    m_fdFile = -1;
    return str;
}

int KvCountOf(const std::string& str, const std::string& strWhat)
{
    int c = 0;
    for (size_t i = str.find(strWhat); i != std::string::npos; i = str.find(strWhat, i + strWhat.size()))
        ++c;
    return c;
}

void KvKeepTreeAlive()
{
    KvRsNodeProxy root = KvRsCreateNode("", 0, 0);
    KvRsAddRef(root.GetHandle(), root.GetId());
}

// A child that makes one exported call and exits.
KV_CHILD_SCENARIO(OneCall)
{
    (void)args;
    KvKeepTreeAlive();
    return KvRsGetNodeType(nullptr, 0) == 0 ? 0 : 1;
}

bool KvMutexFreeForOthers(int cSeconds)
{
    return KvTestWait(KvTestSpawn("OneCall"), cSeconds) == 0;
}
