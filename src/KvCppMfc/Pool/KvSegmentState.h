// KvSegmentState.h - per-process state of the attachment that the pool layer
// keeps beside KvGranularity's statics: the segment object with its shared lock,
// the pool mutex and the build fingerprint.
#pragma once

#include <cstdint>
#include <string>

#include "KvGranularity.h"

// Offset of the build fingerprint in the header zone (after the stated header
// fields; bytes 1228..1255 stay zero).
constexpr uint32_t KVGRAN_FINGERPRINT_OFFSET = 0x800;

#pragma pack(push, 1)
// What the creating process writes so that a process of another build or word
// size refuses to attach instead of corrupting the tree.
struct KvBuildFingerprint {
    char szMagic[8];         // "KVRFRSVR"
    uint32_t dwWordSize;     // 32 or 64
    uint32_t cbInfo;         // sizeof(KvGranularity::Info)
    uint32_t cbGranularity;  // sizeof(KvGranularity)
    uint32_t cClasses;       // registered shared classes at attachment
    uint64_t qwClassHash;    // their names and sizes, in registration order
};
#pragma pack(pop)
static_assert(sizeof(KvBuildFingerprint) == 32, "");

// Adds a registered class to this process's fingerprint.
void KvFingerprintAddClass(const char* pszClass, uint32_t cbClass);
// This process's fingerprint as it stands now.
KvBuildFingerprint KvCurrentFingerprint();
// Text of the registered classes, in order (for messages and tools).
std::string KvFingerprintClassList();

// True while this process is attached to a shared (not private) segment.
bool KvIsSharedSegmentAttached();
