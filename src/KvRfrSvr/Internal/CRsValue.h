// CRsValue.h - a typed run of bytes in the segment, shared (never copied) by
// the nodes, messages and callers that hold it.
#pragma once

#include <cstdint>

#include "CRsObj.h"
#include "KvCppMfc/Pool/KvGranularity.h"
#include "KvRfrSvr.h"

#pragma pack(push, 1)
class CRsValue : public CRsObj {
    KV_SHARED_CLASS(CRsValue)
public:
    CRsValue();
    ~CRsValue();

    // Replaces the bytes with a fresh block of exactly cBytes (never resized in
    // place); a count of 0 or less, or a null source, leaves the value empty.
    void SetBytes(const void* pvSource, int32_t cBytes);
    // Copies exactly GetByteCount() bytes; the caller sized the buffer.
    void GetBytes(void* pvBuffer) const;
    int32_t GetByteCount() const { return m_cBytes; }
    const void* GetBytePtr() const { return m_pvStorage.Get(); }
    uint32_t GetValueType() const { return m_dwType; }
    void SetValueType(uint32_t dwType) { m_dwType = dwType; }

    KvsPtr<char> m_pvStorage;    // own block of the pool of m_cBytes' size class; null when empty
    KvsWord<uint32_t> m_dwType;  // the caller's type number
    KvsWord<int32_t> m_cBytes;   // exact byte count (release needs the same size class)

private:
    void ReleaseStorage();
};
#pragma pack(pop)

static_assert(sizeof(CRsValue) == 33, "a value is 33 bytes");
static_assert(KVRS_VALUE_MAX_BYTES == KVGRAN_MAX_REQUEST, "the largest value is the largest block");
KV_RS_PIN_OFFSET(CRsValue, m_pvStorage, 21)
KV_RS_PIN_OFFSET(CRsValue, m_dwType, 25)
KV_RS_PIN_OFFSET(CRsValue, m_cBytes, 29)
