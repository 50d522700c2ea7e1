// KvRobustSupport.h - helpers of the bad-input tests. They link the library's
// layers statically (one copy of its state), so the segment's consistency check
// runs in this process, under the global mutex.
#pragma once

#include <string>

#include "KvRfrSvr.h"
#include "KvRfrSvr/Internal/CRsCheck.h"
#include "common/KvTestSupport.h"

// The root (the program took its own root reference at start-up).
inline KvRsNodeProxy KvRobustRoot()
{
    return KvRsCreateNode("", nullptr, 0);
}

// Google Test assertion: the whole segment passes the consistency check.
inline ::testing::AssertionResult KvSegmentConsistent()
{
    KvCheckReport report;
    KvRsRequestMutex();
    CRsCheckSegment(report);
    KvRsReleaseMutex();
    ::testing::AssertionResult r = report.Ok() ? ::testing::AssertionSuccess() : ::testing::AssertionFailure();
    for (const std::string& str : report.Problems())
        r << "\n  " << str;
    return r;
}

inline std::string KvNameOf(const KvRsNodeProxy& n)
{
    // Guard bytes behind the name catch a copy that runs past its terminator.
    const size_t cch = static_cast<size_t>(KvRsGetNodeNameLength(n.GetHandle(), n.GetId()));
    std::string str(cch + 33, '\xEE');
    KvRsGetNodeName(n.GetHandle(), n.GetId(), &str[0]);
    return str.find_first_not_of('\xEE', cch + 1) == std::string::npos ? str.substr(0, cch) : "<written past the name>";
}
