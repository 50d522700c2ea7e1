// KvPlatformNames.h - the names of the named objects: namespace, word size and the
// POSIX name of each fixed object name.
#pragma once

#include <string>

// The namespace of this process's named objects: $KVRFRSVR_NAMESPACE when set and
// non-empty, else "u" + uid. Read at every call, so a test may switch it before
// it attaches.
std::string KvNamespace();

// Suffix shared by every object of the current namespace: "." + namespace + "."
// + word size ("32" or "64").
std::string KvNamespaceSuffix();

// POSIX name of a fixed object name: "/" + name + suffix. Characters that a POSIX
// name cannot hold ("/", control bytes) are replaced by "_"; a name that would pass
// NAME_MAX is shortened and made unique by a hash of the full name.
std::string KvObjectName(const char* pszName);

// Removes every shared-memory object of the current namespace (the names that end
// in KvNamespaceSuffix()) except strKeep (a POSIX name, or ""). With fKeepMutexes,
// named mutex objects (KvNamedMutex) stay too: processes may hold them before they
// attach, and a robust mutex survives the death of its owner. Returns how many
// were removed.
int KvUnlinkNamespaceObjects(const std::string& strKeep, bool fKeepMutexes = false);

// Word size of this build in bits (32 or 64).
constexpr int KvWordSize()
{
    return static_cast<int>(sizeof(void*) * 8);
}
