// CRsValue.cpp - a value's byte storage: one block of the pool of its exact
// byte count's size class, replaced (never resized) on every write.
#include "CRsValue.h"

#include <cstring>

#include "KvCppMfc/Platform/KvPlatform.h"

CRsValue::CRsValue() : m_dwType(0), m_cBytes(0) {}

CRsValue::~CRsValue()
{
    ReleaseStorage();
}

// Gives the block back to the pool it came from; the exact count picks that pool.
void CRsValue::ReleaseStorage()
{
    if (m_pvStorage.IsNotNull()) {
        // The report names the line the system has always given for this check.
        if (!(m_cBytes > 0))
            KvAssertReport("m_cBytes > 0", KV_RS_MODULE, 38);
        KvsPtr<char> pvOld = m_pvStorage;
        const int32_t cOld = m_cBytes;
        m_pvStorage = KvsPtr<char>();
        m_cBytes = 0;
        // A broken count cannot name a pool: the block is then left behind
        // rather than freed into a wrong one.
        if (cOld > 0)
            KvGranularity::_Free(pvOld.Get(), static_cast<uint32_t>(cOld), KvGranularity::_GetDefaultWatcher());
    }
    m_pvStorage = KvsPtr<char>();
    m_cBytes = 0;
}

void CRsValue::SetBytes(const void* pvSource, int32_t cBytes)
{
    ReleaseStorage();
    if (cBytes <= 0 || pvSource == nullptr)
        return;
    char* pb =
        static_cast<char*>(KvGranularity::_Alloc(static_cast<uint32_t>(cBytes), KvGranularity::_GetDefaultWatcher()));
    KvCopyBytes(pb, pvSource, static_cast<size_t>(cBytes));  // the caller's buffer
    m_pvStorage = pb;
    m_cBytes = cBytes;
}

void CRsValue::GetBytes(void* pvBuffer) const
{
    if (m_pvStorage.IsNotNull() && m_cBytes > 0)
        KvCopyBytes(pvBuffer, m_pvStorage.Get(), static_cast<size_t>(m_cBytes));  // the caller's buffer
}
