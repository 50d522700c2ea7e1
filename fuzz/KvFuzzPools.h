// KvFuzzPools.h - a fingerprint of every pool's allocation counters: equal
// before and after an input when the input gave back everything it took.
#pragma once

#include <cstdint>

#include "KvCppMfc/Pool/KvGranularity.h"

inline uint64_t KvFuzzPoolState()
{
    uint64_t qw = 0;
    for (uint32_t i = 0; i < KVGRAN_COUNT; ++i) {
        const KvGranularity* g = KvGranularity::_GetGranularity(i);
        qw = qw * 1000003u + (g->_cAllocChecked + g->_cFreeChecked + g->_cNetUnchecked);
    }
    return qw;
}
