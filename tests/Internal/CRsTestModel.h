// CRsTestModel.h - attaching the object model for a test, and capturing the
// internal-consistency reports it makes.
#pragma once

#include <string>
#include <vector>

#include "KvRfrSvr/Internal/CRsModel.h"
#include "KvCppMfc/Platform/KvPlatform.h"
#include "common/KvTestSupport.h"

// Registers the model's classes, attaches the segment (in a fresh namespace of
// this process unless bFreshNamespace is false), creates the root into its slot
// when empty and makes this process's default queue.
void CRsTestAttach(bool bFreshNamespace = true);
// Releases the default queue and the root (when this process made it), then detaches.
void CRsTestDetach();

// Collects the statements of the reports made while it lives (the boxes go
// nowhere else).
class CRsReportCapture {
public:
    CRsReportCapture();
    ~CRsReportCapture();
    const std::vector<std::string>& Statements() const;
    size_t Count(const std::string& strStatement) const;
    void Clear();

private:
    KvUiSink m_sinkOld;
};

// A test with the model attached; m_snap is taken after the root and the
// default queue exist, so every test body can end with KvPoolsBalanced(m_snap).
class CRsModelTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        CRsTestAttach();
        m_snap = KvTakePoolSnapshot();
    }
    void TearDown() override { CRsTestDetach(); }

    // A new node of that name and type added under ptrParent (unless null).
    static KvSmartPtr<CRsNode> MakeNode(const KvSmartPtr<CRsNode>& ptrParent, const char* pszName, uint32_t dwType = 0);
    // A queue owned by a pretended process (the key of a client is its queue's process id).
    static KvSmartPtr<CRsQueue> MakeQueue(uint32_t dwPrcsId);
    // Takes every message out of a queue, ignoring the owner check.
    static std::vector<KvSmartPtr<CRsMsg>> Drain(const KvSmartPtr<CRsQueue>& ptrQueue);

    KvPoolSnapshot m_snap;
};
