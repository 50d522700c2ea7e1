// CRsTestModel.h - attaching the object model for a test, and counting the
// internal-consistency reports it makes.
#pragma once

#include <string>
#include <vector>

#include "KvCppMfc/Diag/KvDiag.h"
#include "KvRfrSvr/Internal/CRsModel.h"
#include "common/KvTestSupport.h"

inline void* H(uintptr_t u)
{
    return reinterpret_cast<void*>(u);
}

// A fresh namespace with the model attached: the root in its slot and this
// process's default queue. m_snap is taken after both exist, so every test can
// end with KvPoolsBalanced(m_snap).
class CRsModelTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        KvRsRegisterSharedClasses();
        KvTestUseFreshNamespace();
        KvDebugOutput::SetTestMode(true);  // reports of broken invariants are counted, not shown
        ASSERT_EQ(1, KvGranularity::_AllocSharedMem(0x4000000, "KVRFRSVR_MEM"));
        KvSmartPtr<CRsNode> ptrRoot(KvNewObject);
        KvGranularity::_SetRoot(ptrRoot.Detach(), KVRS_ROOT_SLOT);  // the slot keeps the reference
        g_ptrThisPrcsQueue.NewObject();
        g_ptrThisPrcsQueue->SetName(KVRS_DEFAULT_QUEUE_NAME);
        m_snap = KvTakePoolSnapshot();
        KvDebugOutput::ResetTestModeCounters();
    }
    void TearDown() override
    {
        g_ptrThisPrcsQueue.RmvRef();
        KvReleaseSmartUnit(static_cast<CRsNode*>(KvGranularity::_SetRoot(nullptr, KVRS_ROOT_SLOT)));
        KvGranularity::_FreeMem();
        KvDebugOutput::SetTestMode(false);
    }
    // The number of reports of broken invariants since the last call.
    static long Reports()
    {
        const long c = KvDebugOutput::GetErrorOutputCount();
        KvDebugOutput::ResetTestModeCounters();
        return c;
    }

    // A new node of that name and type added under ptrParent (unless null).
    static KvSmartPtr<CRsNode> MakeNode(const KvSmartPtr<CRsNode>& ptrParent, const char* pszName, uint32_t dwType = 0)
    {
        KvSmartPtr<CRsNode> ptr(KvNewObject);
        ptr->SetName(pszName);
        ptr->SetType(dwType);
        if (ptrParent.IsNotNull())
            ptrParent->AddChild(ptr);
        return ptr;
    }
    // A queue owned by a pretended process (the key of a client is its queue's process id).
    static KvSmartPtr<CRsQueue> MakeQueue(uint32_t dwPrcsId)
    {
        KvSmartPtr<CRsQueue> ptr(KvNewObject);
        ptr->m_dwPrcsId = dwPrcsId;
        return ptr;
    }
    // Takes every message out of a queue, ignoring the owner check.
    static std::vector<KvSmartPtr<CRsMsg>> Drain(const KvSmartPtr<CRsQueue>& ptrQueue)
    {
        std::vector<KvSmartPtr<CRsMsg>> vec;
        while (ptrQueue->GetMsgCount() > 0)
            vec.push_back(ptrQueue->m_ptrMsgList->RemoveFirst());
        return vec;
    }

    KvPoolSnapshot m_snap;
};
