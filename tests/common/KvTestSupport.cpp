// KvTestSupport.cpp - the pool-balance helpers of KvTestSupport.h (they read
// the pools through the library's own classes; see KvTestProcess.cpp for the rest).
#include "KvTestSupport.h"

#include "KvCppMfc/Pool/KvGranularity.h"

KvPoolSnapshot KvTakePoolSnapshot()
{
    KvPoolSnapshot snap{};
    for (uint32_t i = 0; KvGranularity::_poinf != nullptr && i < KVGRAN_COUNT; ++i) {
        const KvGranularity* g = KvGranularity::_GetGranularity(i);
        // Frees are counted downwards: the sum wraps to the net count.
        snap[i] = static_cast<int64_t>(g->_cAllocChecked + g->_cFreeChecked + g->_cNetUnchecked);
    }
    return snap;
}

::testing::AssertionResult KvPoolsBalanced(const KvPoolSnapshot& before)
{
    const KvPoolSnapshot now = KvTakePoolSnapshot();
    for (uint32_t i = 0; i < KVGRAN_COUNT; ++i)
        if (now[i] != before[i])
            return ::testing::AssertionFailure()
                   << "pool " << i << " (block size " << KvGranularity::_GetGranularity(i)->_stSize << ") holds "
                   << (now[i] - before[i]) << " more blocks than at the snapshot";
    return ::testing::AssertionSuccess();
}
