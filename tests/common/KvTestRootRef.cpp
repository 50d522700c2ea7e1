// KvTestRootRef.cpp - linked into every test program that runs the library's
// start-up. Each process releases one root reference when it exits; a test
// program takes the one its exit will give back, as every program must, so that
// it never ends a tree that other processes of its namespace keep.
#include "KvRfrSvr.h"

namespace {
const bool s_fRootReferenceTaken = [] {
    KvRsNodeProxy root = KvRsCreateNode("", nullptr, 0);
    KvRsAddRef(root.GetHandle(), root.GetId());
    return true;
}();
}  // namespace
