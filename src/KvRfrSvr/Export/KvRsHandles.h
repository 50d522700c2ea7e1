// KvRsHandles.h - handles (segment offset + id) and the library side of proxies.
//
// A handle is turned into a counted reference without validation: the id is
// carried for the caller's benefit only, and a stale handle is used as it is.
// The one guard kept is that an offset outside the segment is answered as the
// access violation it would be, instead of reaching memory of this process
// that is not the segment.
#pragma once

#include <cstdint>

#include "KvCppMfc/Pool/KvGranularity.h"
#include "KvCppMfc/Shared/KvSmartPtr.h"
#include "KvRfrSvr.h"
#include "KvRfrSvr/Internal/CRsObj.h"
#include "KvRsFrame.h"

// Segment offset carried in a handle, and back.
inline uint32_t KvRsHandleOffset(const void* handle)
{
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(handle));
}
inline void* KvRsOffsetHandle(uint32_t ofs)
{
    return reinterpret_cast<void*>(static_cast<uintptr_t>(ofs));
}

// Address of the object a non-null handle names; an offset outside the mapped
// segment raises an access violation.
void* KvRsHandleAddress(void* handle);

// A counted reference to the object at handle, typed as the caller expects
// (null for a null handle). No id, type or liveness check: deliberate.
template <class T>
KvSmartPtr<T> KvRsHandle2(void* handle, unsigned long /*id*/)
{
    if (handle == nullptr)
        return KvSmartPtr<T>();
    return KvSmartPtr<T>(static_cast<T*>(KvRsHandleAddress(handle)));
}

KvSmartPtr<CRsObj> KvRsHandle2Ptr(void* handle, unsigned long id);

// The object at handle for a body that reads it, or changes it without
// dropping any reference that could be the object's last: under the global
// mutex nothing frees it meanwhile, so no counted reference is taken (taking
// one writes the counts of the object and of every ancestor, and the journal
// records each of them).
template <class T>
T* KvRsBorrow(void* handle, unsigned long /*id*/)
{
    return handle == nullptr ? nullptr : static_cast<T*>(KvRsHandleAddress(handle));
}

// The object of a counted reference that a body is about to use; a null one
// raises the access violation that using it would cause.
template <class T>
T* KvRsUse(const KvSmartPtr<T>& ptr)
{
    if (ptr.IsNull())
        KvRsRaiseAccessViolation(nullptr);
    return ptr.Get();
}

// A text the caller handed in, read once through the fault-safe length so that
// an unreadable one ends in the frame's report rather than inside the C
// library; the body may then use the C library's string functions on it.
// A null text is the access violation of reading it.
inline const char* KvRsTextOrFault(const char* psz)
{
    if (psz == nullptr)
        KvRsRaiseAccessViolation(nullptr);
    KvTextLength(psz);
    return psz;
}
// The same for texts where null has a meaning of its own.
inline const char* KvRsTextOrNull(const char* psz)
{
    if (psz != nullptr)
        KvTextLength(psz);
    return psz;
}

// The queue's message count read without the global mutex when nobody holds
// it (see KvRsGetMsgCount); false when it must be read under the mutex.
class CRsQueue;
bool KvRsPollQueue(const CRsQueue* pQueue, long* pc);

// Library side of the proxies: counts are changed directly, since this runs
// inside an exported call that already holds the global mutex.
struct KvRsProxyAccess {
    // Releases what the proxy held, then names pObj (null: empty) and takes one
    // counted reference on it.
    static void Assign(KvRsProxy& proxy, CRsObj* pObj);
    // Releases the reference the proxy holds and empties it.
    static void Release(KvRsProxy& proxy);
    // Empties the proxy without releasing anything.
    static void Forget(KvRsProxy& proxy)
    {
        proxy.m_pvHandle = nullptr;
        proxy.m_dwId = 0;
    }
    // Requires: the proxy is empty; the caller hands over one counted
    // reference on pObj (null: the proxy stays empty).
    static void Adopt(KvRsProxy& proxy, CRsObj* pObj)
    {
        if (pObj == nullptr)
            return;
        proxy.m_pvHandle = KvRsOffsetHandle(KvGranularity::_CalcOffset(pObj));
        proxy.m_dwId = pObj->GetId();
    }
};

// SetProxy: the object must not be null (a null one is the access violation of
// reading its id). SetProxySafe: a null object gives an empty proxy.
template <class T>
void KvRsSetProxy(KvRsProxy& proxy, const KvSmartPtr<T>& ptr)
{
    KvRsProxyAccess::Assign(proxy, KvRsUse(ptr));
}
template <class T>
void KvRsSetProxySafe(KvRsProxy& proxy, const KvSmartPtr<T>& ptr)
{
    KvRsProxyAccess::Assign(proxy, ptr.Get());
}
// From a reference the caller gives up (a function's result): its unit becomes
// the proxy's, without counting up the ancestors and down again.
template <class T>
void KvRsSetProxySafe(KvRsProxy& proxy, KvSmartPtr<T>&& ptr)
{
    KvRsProxyAccess::Release(proxy);  // may raise: ptr still holds its unit then
    KvRsProxyAccess::Adopt(proxy, ptr.Detach());
}
