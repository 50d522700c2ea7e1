// KvRsValueApi.cpp - exported value functions. All of them test the handle: a
// null value does nothing and gives the neutral result.
#include <cstdint>
#include "KvRfrSvr/Internal/CRsModel.h"
#include "KvRsHandles.h"

KvRsValueProxy KvRsCreateValue(void)
{
    return KvRsFramedResult<KvRsValueProxy>(__LINE__, [&](KvRsValueProxy& result) {
        KvRsSetProxy(result, KvSmartPtr<CRsValue>(KvNewObject));
    });
}

unsigned long KvRsGetValueType(void* hValue, unsigned long idValue)
{
    return KvRsFramedResult<unsigned long>(__LINE__, [&](unsigned long& dwResult) {
        CRsValue* pValue = KvRsBorrow<CRsValue>(hValue, idValue);
        if (pValue != nullptr)
            dwResult = pValue->GetValueType();
    });
}

void KvRsSetValueType(void* hValue, unsigned long idValue, unsigned long type)
{
    KvRsFramed(__LINE__, [&] {
        CRsValue* pValue = KvRsBorrow<CRsValue>(hValue, idValue);  // changed, never released by it
        if (pValue != nullptr)
            pValue->SetValueType(static_cast<uint32_t>(type));
    });
}

long KvRsGetValueByteCount(void* hValue, unsigned long idValue)
{
    return KvRsFramedResult<long>(__LINE__, [&](long& cResult) {
        CRsValue* pValue = KvRsBorrow<CRsValue>(hValue, idValue);
        if (pValue != nullptr)
            cResult = pValue->GetByteCount();
    });
}

void KvRsGetValueBytes(void* hValue, unsigned long idValue, unsigned char* pb)
{
    // A bad caller buffer faults inside the copy and ends in the frame's report.
    KvRsFramed(__LINE__, [&] {
        CRsValue* pValue = KvRsBorrow<CRsValue>(hValue, idValue);
        if (pValue != nullptr)
            pValue->GetBytes(pb);
    });
}

void KvRsSetValueBytes(void* hValue, unsigned long idValue, unsigned char* pb, long cb)
{
    KvRsFramed(__LINE__, [&] {
        CRsValue* pValue = KvRsBorrow<CRsValue>(hValue, idValue);  // changed, never released by it
        // long is 64-bit on x86_64: the count is judged whole, never by its low
        // 32 bits. 0 or less empties the value; more than 32 bits can hold is
        // the largest count, which the pools then refuse.
        const int32_t cBytes = cb <= 0 ? 0 : (cb > INT32_MAX ? INT32_MAX : static_cast<int32_t>(cb));
        if (pValue != nullptr)
            pValue->SetBytes(pb, cBytes);
    });
}
