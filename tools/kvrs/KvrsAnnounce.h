// KvrsAnnounce.h - changes to the tree that tell the parties concerned: nodes
// created along a path, and the notifications with which kvrs announces what
// it created, set, removed or changed (message numbers in KvrsCommon.h).
// Callers hold the global mutex (KvrsMutexHold) around change and announcement.
#pragma once

#include <string>
#include <vector>

#include "KvRfrSvr.h"

struct KvrsCreated {
    KvRsNodeProxy m_node;                   // the node at the path
    std::vector<KvRsNodeProxy> m_vCreated;  // the nodes that were missing, top first
};

// Finds or creates every node along strPath and says which ones are new.
KvrsCreated KvrsCreatePath(const std::string& strPath);
// Notifies the node's clients (and, for structural numbers, the parties
// connected for all structural changes) with dwMsg and value.
void KvrsAnnounce(const KvRsNodeProxy& node, uint32_t dwMsg, const KvRsValueProxy& value);
// Announces a structural change of node (created, removed, changed) with a
// value that names it (KVRS_VALUE_TYPE_PATH).
void KvrsAnnounceStructural(const KvRsNodeProxy& node, uint32_t dwMsg);
// Announces each created node, top first.
void KvrsAnnounceCreated(const KvrsCreated& created);
// The node and its whole subtree (references are not followed), children
// after their parent.
std::vector<KvRsNodeProxy> KvrsSubtree(const KvRsNodeProxy& node);
uint32_t KvrsNodeType(const KvRsNodeProxy& node);
