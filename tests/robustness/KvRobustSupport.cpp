// KvRobustSupport.cpp - see KvRobustSupport.h.
#include "KvRobustSupport.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

#include "KvCppMfc/Pool/KvGranularity.h"
#include "KvRfrSvr/Internal/CRsModel.h"

extern char** environ;

KvRsNodeProxy KvRobustRoot()
{
    static bool s_fKept = false;
    KvRsNodeProxy root = KvRsCreateNode("", nullptr, 0);
    if (!s_fKept) {
        KvRsAddRef(root.GetHandle(), root.GetId());
        s_fKept = true;
    }
    return root;
}

CRsNode* KvRobustNode(const KvRsProxy& proxy)
{
    return static_cast<CRsNode*>(
        KvGranularityStatics::_CalcPtr(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(proxy.GetHandle()))));
}

namespace {
// One node's lists; the children go onto the stack (no recursion: a path of
// 8191 bytes makes a chain 4096 nodes deep).
std::string CheckNode(const CRsNode* pNode, std::vector<const CRsNode*>& vStack)
{
    std::string strError;
    if (pNode->m_ptrRefreshInfo.IsNotNull() && !pNode->m_ptrRefreshInfo->m_lstClients.CheckStructure(&strError))
        return "client list of \"" + std::string(pNode->GetName()) + "\": " + strError;
    if (pNode->m_ptrChildList.IsNull())
        return "ok";
    const CRsChildList& list = *pNode->m_ptrChildList;
    if (!list.CheckStructure(&strError))
        return "child list of \"" + std::string(pNode->GetName()) + "\": " + strError;
    uint32_t c = 0;
    for (const CRsNodeHln* p = list.GetFirst(); p != nullptr; p = p->GetNext(), ++c) {
        if (p->m_ptr.IsNull() || p->m_ptr->m_pHln.Get() != p)
            return "entry of \"" + std::string(pNode->GetName()) + "\" does not link back";
        vStack.push_back(p->m_ptr.Get());
    }
    if (c != list.GetCount())
        return "child count of \"" + std::string(pNode->GetName()) + "\" differs from its entries";
    return "ok";
}
}  // namespace

std::string KvRobustCheckTree(const KvRsNodeProxy& start)
{
    if (start.IsNull())
        return "no start node";
    KvRsRequestMutex();
    std::string strResult = "ok";
    std::vector<const CRsNode*> vStack{KvRobustNode(start)};
    while (!vStack.empty() && strResult == "ok") {
        const CRsNode* p = vStack.back();
        vStack.pop_back();
        strResult = CheckNode(p, vStack);
    }
    KvRsReleaseMutex();
    return strResult;
}

namespace {
// Runs the tool with its output in a temporary file; returns its exit status
// (-1 when it could not run) and the output in *pstrOut.
int RunTool(const std::vector<std::string>& args, std::string* pstrOut)
{
    char szPath[] = "/tmp/kvrs-check-XXXXXX";
    const int fd = mkstemp(szPath);
    unlink(szPath);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, fd, 1);
    posix_spawn_file_actions_adddup2(&fa, fd, 2);
    std::vector<char*> argv;
    for (const std::string& s : args)
        argv.push_back(const_cast<char*>(s.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    int status = -1;
    if (posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), environ) == 0)
        waitpid(pid, &status, 0);
    posix_spawn_file_actions_destroy(&fa);
    lseek(fd, 0, SEEK_SET);
    char ach[4096];
    ssize_t cb;
    while ((cb = read(fd, ach, sizeof(ach))) > 0)
        pstrOut->append(ach, static_cast<size_t>(cb));
    close(fd);
    return pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
}  // namespace

std::string KvRobustRunChecker()
{
#ifdef KVRS_EXE
    std::string strOut;
    if (access(KVRS_EXE, X_OK) != 0 || RunTool({KVRS_EXE, "check", "--help"}, &strOut) != 0)
        return "skipped";
    strOut.clear();
    return RunTool({KVRS_EXE, "check"}, &strOut) == 0 ? "ok" : "kvrs check failed:\n" + strOut;
#else
    return "skipped";
#endif
}

::testing::AssertionResult KvRobustCheckerPasses()
{
    const std::string str = KvRobustRunChecker();
    if (str == "ok" || str == "skipped")
        return ::testing::AssertionSuccess() << str;
    return ::testing::AssertionFailure() << str;
}
