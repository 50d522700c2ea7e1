// CRsTestModel.cpp - attaching the model for tests; report capture.
#include "CRsTestModel.h"

#include "KvCppMfc/Platform/KvPlatform.h"

namespace {
bool s_bMadeRoot = false;
std::vector<std::string> s_vecStatements;

void CaptureBox(const char* pszText, const char*)
{
    const std::string str = pszText != nullptr ? pszText : "";
    const size_t i = str.find("statement: ");
    s_vecStatements.push_back(i == std::string::npos ? str : str.substr(i + 11));
}
}  // namespace

void CRsTestAttach(bool bFreshNamespace)
{
    KvRsRegisterSharedClasses();
    if (bFreshNamespace)
        KvTestUseFreshNamespace();
    KvGranularity::_AllocSharedMem(0x4000000, "KVRFRSVR_MEM");
    s_bMadeRoot = false;
    if (KvGranularity::_GetRoot(KVRS_ROOT_SLOT) == nullptr) {
        KvSmartPtr<CRsNode> ptrRoot(KvNewObject);
        KvGranularity::_SetRoot(ptrRoot.Detach(), KVRS_ROOT_SLOT);  // the slot keeps the reference
        s_bMadeRoot = true;
    }
    g_ptrThisPrcsQueue.NewObject();
    g_ptrThisPrcsQueue->SetName(KVRS_DEFAULT_QUEUE_NAME);
}

void CRsTestDetach()
{
    g_ptrThisPrcsQueue.RmvRef();
    if (s_bMadeRoot) {
        auto* pRoot = static_cast<CRsNode*>(KvGranularity::_GetRoot(KVRS_ROOT_SLOT));
        if (pRoot != nullptr && KvReleaseSmartUnit(pRoot))
            KvGranularity::_SetRoot(nullptr, KVRS_ROOT_SLOT);
    }
    KvGranularity::_FreeMem();
}

CRsReportCapture::CRsReportCapture()
{
    s_vecStatements.clear();
    KvUiSink sink = KvGetUiSink();
    sink.pfnMessageBox = &CaptureBox;
    m_sinkOld = KvSetUiSink(sink);
}

CRsReportCapture::~CRsReportCapture()
{
    KvSetUiSink(m_sinkOld);
}

const std::vector<std::string>& CRsReportCapture::Statements() const
{
    return s_vecStatements;
}

size_t CRsReportCapture::Count(const std::string& strStatement) const
{
    size_t c = 0;
    for (const auto& str : s_vecStatements)
        c += str == strStatement ? 1 : 0;
    return c;
}

void CRsReportCapture::Clear()
{
    s_vecStatements.clear();
}

KvSmartPtr<CRsNode> CRsModelTest::MakeNode(const KvSmartPtr<CRsNode>& ptrParent, const char* pszName, uint32_t dwType)
{
    KvSmartPtr<CRsNode> ptr(KvNewObject);
    ptr->SetName(pszName);
    ptr->SetType(dwType);
    if (ptrParent.IsNotNull())
        ptrParent->AddChild(ptr);
    return ptr;
}

KvSmartPtr<CRsQueue> CRsModelTest::MakeQueue(uint32_t dwPrcsId)
{
    KvSmartPtr<CRsQueue> ptr(KvNewObject);
    ptr->m_dwPrcsId = dwPrcsId;
    return ptr;
}

std::vector<KvSmartPtr<CRsMsg>> CRsModelTest::Drain(const KvSmartPtr<CRsQueue>& ptrQueue)
{
    std::vector<KvSmartPtr<CRsMsg>> vec;
    while (ptrQueue->GetMsgCount() > 0)
        vec.push_back(ptrQueue->m_ptrMsgList->RemoveFirst());
    return vec;
}
