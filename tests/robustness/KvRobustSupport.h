// KvRobustSupport.h - helpers of the bad-input tests: looking behind a proxy at the object model (these tests link
// the library's layers statically, so there is one copy of its state), and the
// consistency checks run after each kind of bad input.
#pragma once

#include <string>

#include <gtest/gtest.h>

#include "KvRfrSvr.h"
#include "common/KvTestSupport.h"

class CRsNode;

// Adds this process's own root reference (its exit releases one) and returns
// the root.
KvRsNodeProxy KvRobustRoot();

// The node a proxy names, inside this process's mapping.
CRsNode* KvRobustNode(const KvRsProxy& proxy);

// Walks the subtree under the global mutex and verifies every child list and
// client list (order, counts, index). "ok", or the first violation.
std::string KvRobustCheckTree(const KvRsNodeProxy& start);

// Runs `kvrs check` on this namespace as a separate process: "ok" when it
// passes, "skipped" when this build has no checker (or no kvrs), else its output.
std::string KvRobustRunChecker();
// Google Test assertion over KvRobustRunChecker(): passes when skipped.
::testing::AssertionResult KvRobustCheckerPasses();
