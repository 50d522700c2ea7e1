// KvApiTestUtil.h - small helpers of the API tests: the root reference that every process of a test adds so
// that its exit (which releases one root reference) leaves the tree to others.
#pragma once

#include <string>

#include "KvRfrSvr.h"
#include "common/KvTestSupport.h"

// Adds this process's own root reference (released again by its exit): for
// fork() children, which do not pass through the program's start-up again.
void KvKeepTreeAlive();

// True when another process can make an exported call within cSeconds (the
// global mutex is free or is freed in time).
bool KvMutexFreeForOthers(int cSeconds = 10);
