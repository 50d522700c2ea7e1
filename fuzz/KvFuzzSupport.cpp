// KvFuzzSupport.cpp - see KvFuzzSupport.h.
#include "KvFuzzSupport.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "KvCppMfc/Diag/KvDiag.h"
#include "KvCppMfc/Pool/KvGranularity.h"

extern "C" int LLVMFuzzerInitialize(int* pargc, char*** pargv)
{
    (void)pargc;
    const char* pszNs = getenv("KVRFRSVR_NAMESPACE");
    if (pszNs == nullptr || *pszNs == '\0') {
        // The library attached when the program loaded: start again.
        setenv("KVRFRSVR_NAMESPACE", ("fuzz." + std::to_string(getpid())).c_str(), 1);
        execv("/proc/self/exe", *pargv);
        perror("execv");
        exit(1);
    }
    KvSetUiSink(KvUiSink{nullptr, nullptr, nullptr});
    KvThrowSetTestMode(true);
    KvDebugOutput::SetTestMode(true);
    KvRsNodeProxy root = KvRsCreateNode("", nullptr, 0);
    KvRsAddRef(root.GetHandle(), root.GetId());
    return 0;
}

std::string KvFuzzInput::Text()
{
    std::string str;
    while (m_i < m_cb && m_pb[m_i] != 0)
        str += static_cast<char>(m_pb[m_i++]);
    if (m_i < m_cb)
        ++m_i;
    return str;
}

KvFuzzArea::KvFuzzArea()
{
    KvRsRequestMutex();
    m_ptr = KvSmartPtr<CRsNode>(KvNewObject);
    m_pvHandle = reinterpret_cast<void*>(static_cast<uintptr_t>(KvGranularityStatics::_CalcOffset(m_ptr.Get())));
    m_dwId = m_ptr->GetId();
    KvRsReleaseMutex();
}

KvFuzzArea::~KvFuzzArea()
{
    KvRsRequestMutex();
    m_ptr = KvSmartPtr<CRsNode>();
    KvRsReleaseMutex();
}

bool KvFuzzSegmentNearlyFull()
{
    static bool s_fSaid = false;
    const bool fFull = KvGranularity::_poinf->_pchNextFree.Offset() + 0x100000 > KvGranularity::_stMax;
    if (fFull && !s_fSaid) {
        fprintf(stderr, "kvfuzz: the segment is nearly full (removed children stay allocated)\n");
        s_fSaid = true;
    }
    return fFull;
}

void KvFuzzCheckTree(const CRsNode* pNode)
{
    std::vector<const CRsNode*> vStack{pNode};
    std::string strError;
    while (!vStack.empty()) {
        const CRsNode* p = vStack.back();
        vStack.pop_back();
        if (p->m_ptrChildList.IsNull())
            continue;
        if (!p->m_ptrChildList->CheckStructure(&strError))
            KvFuzzFail(("child list: " + strError).c_str());
        for (const CRsNodeHln* pHln = p->m_ptrChildList->GetFirst(); pHln != nullptr; pHln = pHln->GetNext()) {
            if (pHln->m_ptr.IsNull() || pHln->m_ptr->m_pHln.Get() != pHln)
                KvFuzzFail("a child entry does not link back");
            vStack.push_back(pHln->m_ptr.Get());
        }
    }
}

void KvFuzzFail(const char* pszWhat)
{
    fprintf(stderr, "kvfuzz: %s\n", pszWhat);
    fflush(stderr);
    abort();
}
