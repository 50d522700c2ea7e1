// KvStaleNamespaces.h - a namespace whose processes were all killed leaves its
// named objects in /dev/shm. Every start-up removes those of the user's other
// namespaces (both word sizes) that no live process holds, by the same test
// that finds a namespace's own segment stale: nobody holds a lock on it.
#pragma once

// Removes the objects of every stale namespace of this user except the
// current one (whose start-up handles its own); returns how many namespaces
// were removed.
int KvRemoveStaleNamespaces();
