// KvPlatform.h - the one place where the utility library talks to the operating
// system, one header per concept:
//   KvPlatformNames.h  names of the named objects (namespace, word size)
//   KvShmObject.h      named shared-memory objects, file locks, private memory
//   KvNamedLock.h      the namespace-wide critical section (an flock)
//   KvNamedMutex.h     process-shared, recursive, robust mutexes
//   KvProcess.h        process and thread ids, clocks, fork, standard error
//   KvFault.h          hardware faults as exceptions, fault-safe copies
//   KvFile.h           the debug file's calls
//   KvLivenessToken.h  the token that tells other processes this one lives
//   KvStaleNamespaces.h  removing what killed namespaces left in /dev/shm
//   KvWaitWord.h       sleeping on a word of the segment until it moves on
//   KvWakePipe.h       a process's FIFO that others ring for its event loop
// This header includes them all, for code that uses several.
//
// Everything above this layer is platform neutral. Named objects are POSIX
// shared-memory objects whose names carry a namespace and the word size, so that
// test runs, users and 32/64-bit builds never see each other's objects.
#pragma once

#include "KvFault.h"
#include "KvFile.h"
#include "KvNamedLock.h"
#include "KvNamedMutex.h"
#include "KvPlatformNames.h"
#include "KvProcess.h"
#include "KvShmObject.h"
#include "KvStaleNamespaces.h"
#include "KvWaitWord.h"
#include "KvWakePipe.h"
