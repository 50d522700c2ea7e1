// CRsObj.h - base of every object of the model that a handle can name.
#pragma once

#include <cstdint>

#include "CRsLayout.h"
#include "KvCppMfc/Shared/KvSmartPtr.h"

#pragma pack(push, 1)
// Adds the object id to the shared-object header. The id travels with every
// handle; it is random at birth and overwritten when the object dies, so that a
// caller comparing ids can tell a stale handle from a live one.
class CRsObj : public KvSmartPtrTarget {
    KV_SHARED_CLASS(CRsObj)
public:
    static constexpr uint32_t DEAD_ID = 0xABCDEF;

    CRsObj();
    ~CRsObj();
    CRsObj(const CRsObj&) = delete;
    CRsObj& operator=(const CRsObj&) = delete;

    uint32_t GetId() const { return m_dwId; }

    KvsWord<uint32_t> m_dwId;
};
#pragma pack(pop)

static_assert(sizeof(CRsObj) == 21, "CRsObj is the 17-byte header plus the id");
KV_RS_PIN_OFFSET(CRsObj, m_dwId, 17)
