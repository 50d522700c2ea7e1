// KvRsHandles.cpp - handle conversion, the library side of proxies and the two
// exported reference functions.
#include "KvRsHandles.h"

#include "KvRsFrame.h"

void* KvRsHandleAddress(void* handle)
{
    const uintptr_t uOffset = reinterpret_cast<uintptr_t>(handle);
    if (uOffset >= KvGranularity::_stMax)
        KvRsRaiseAccessViolation(handle);
    return KvGranularity::_pvBase + uOffset;
}

KvSmartPtr<CRsObj> KvRsHandle2Ptr(void* handle, unsigned long id)
{
    return KvRsHandle2<CRsObj>(handle, id);
}

void KvRsProxyAccess::Release(KvRsProxy& proxy)
{
    if (proxy.m_pvHandle != nullptr)
        KvReleaseSmartUnit(static_cast<KvSmartPtrTarget*>(KvRsHandleAddress(proxy.m_pvHandle)));
    proxy.m_pvHandle = nullptr;
    proxy.m_dwId = 0;
}

void KvRsForgetProxy(KvRsProxy& proxy)
{
    KvRsProxyAccess::Forget(proxy);
}

void KvRsProxyAccess::Assign(KvRsProxy& proxy, CRsObj* pObj)
{
    if (pObj != nullptr)
        pObj->AddRefFromSmartPtr();  // first, so that re-naming the same object keeps it alive
    Release(proxy);
    if (pObj == nullptr)
        return;
    proxy.m_pvHandle = KvRsOffsetHandle(KvGranularity::_CalcOffset(pObj));
    proxy.m_dwId = pObj->GetId();
}

void KvRsAddRef(void* handle, unsigned long id)
{
    KvRsFramed(__LINE__, [&] {
        KvSmartPtr<CRsObj> ptr = KvRsHandle2Ptr(handle, id);
        if (ptr.IsNotNull())
            ptr->AddRefFromSmartPtr();
    });
}

bool KvRsRmvRef(void* handle, unsigned long id)
{
    return KvRsFramedResult<bool>(__LINE__, [&](bool& fResult) {
        KvSmartPtr<CRsObj> ptr = KvRsHandle2Ptr(handle, id);
        if (ptr.IsNotNull()) {
            // The temporary still counts, so this cannot be the last unit; the
            // object dies, if at all, when the temporary goes.
            KvReleaseSmartUnit(ptr.Get());
            fResult = true;
        }
    });
}
