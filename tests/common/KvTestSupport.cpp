// KvTestSupport.cpp - the pool-balance helpers of KvTestSupport.h (they read
// the pools through the library's own classes; see KvTestProcess.cpp for the rest).
#include "KvTestSupport.h"

#include "KvCppMfc/Pool/KvGranularity.h"

KvPoolSnapshot KvTakePoolSnapshot()
{
    KvPoolSnapshot snap;
    if (KvGranularity::_poinf == nullptr)
        return snap;
    for (uint32_t i = 0; i < KVGRAN_COUNT; ++i) {
        const KvGranularity* g = KvGranularity::_GetGranularity(i);
        snap.aNet[i] = static_cast<int64_t>(g->_cAllocChecked + g->_cFreeChecked + g->_cNetUnchecked);
    }
    snap.cbNet = static_cast<int64_t>(KvGranularity::_poinf->_cbAllocChecked + KvGranularity::_poinf->_cbFreeChecked +
                                      KvGranularity::_poinf->_cbNetUnchecked);
    return snap;
}

::testing::AssertionResult KvPoolsBalanced(const KvPoolSnapshot& before)
{
    const KvPoolSnapshot now = KvTakePoolSnapshot();
    for (uint32_t i = 0; i < KVGRAN_COUNT; ++i)
        if (now.aNet[i] != before.aNet[i])
            return ::testing::AssertionFailure()
                   << "pool " << i << " (block size " << KvGranularity::_GetGranularity(i)->_stSize << ") holds "
                   << (now.aNet[i] - before.aNet[i]) << " more blocks than at the snapshot";
    return ::testing::AssertionSuccess();
}
