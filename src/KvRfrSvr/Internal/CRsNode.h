// CRsNode.h - a node of the shared tree: name, type word (whose low bits are its
// flags), and a value and/or children, or else a reference to another node.
#pragma once

#include <cstdint>

#include "CRsObj.h"
#include "KvCppMfc/Shared/KvString.h"
#include "KvRfrSvr.h"

class CRsValue;
class CRsChildList;
class CRsRefreshInfo;
class CRsQueue;
class CRsNodeHln;
struct CRsConnectInfo;

// The type bits (KVRS_TYPE_...) and the parts of a notification number
// (KVRS_NOTIFY_...) are the public header's.

// Paths are copied into a buffer of this size; longer ones are refused.
constexpr uint32_t KVRS_PATH_BUFFER = KVRS_PATH_MAX + 1;

// Bounds that keep a reference cycle from hanging a call or overflowing the
// stack: the length of a followed reference chain, and the depth of a walk.
constexpr uint32_t KVRS_MAX_REF_CHAIN = 4096;
constexpr uint32_t KVRS_MAX_WALK_DEPTH = 4096;

#pragma pack(push, 1)
class CRsNode : public CRsObj {
    KV_SHARED_CLASS(CRsNode)
public:
    CRsNode();
    ~CRsNode();

    // --- type word and flags -----------------------------------------------
    uint32_t GetType() const { return m_dwType; }
    void SetType(uint32_t dwType);
    void SetConstFlag(bool b);
    void SetValueFlag(bool b);
    void SetParentFlag(bool b);
    void SetRefFlag(bool b);
    bool IsConst() const { return (m_dwType & KVRS_TYPE_CONST) != 0; }
    bool HasValue() const { return (m_dwType & KVRS_TYPE_VALUE) != 0; }
    bool HasRef() const { return (m_dwType & KVRS_TYPE_REF) != 0; }
    bool IsParent() const { return (m_dwType & KVRS_TYPE_PARENT) != 0; }

    // --- name ----------------------------------------------------------------
    const char* GetName() const { return m_strName.GetCharPtr(); }
    void SetName(const char* pszName) { m_strName.Assign(pszName); }

    // --- value and reference -------------------------------------------------
    KvSmartPtr<CRsValue> GetValue() const;
    void SetValue(const KvSmartPtr<CRsValue>& ptrValue);
    KvSmartPtr<CRsNode> GetRef() const;
    void SetRef(const KvSmartPtr<CRsNode>& ptrRef);

    // --- children ------------------------------------------------------------
    KvSmartPtr<CRsNode> GetChild(const char* pszName) const;
    // The same without a counted reference, for walks under the global mutex.
    CRsNode* FindChild(const char* pszName) const;
    KvSmartPtr<CRsNode> GetDescendant(const char* pszPath) const;
    KvSmartPtr<CRsNode> GetFirstChild() const;
    // The sibling after this node in its parent's child list (through the entry
    // link), or null. Works on unlinked children too: their entry keeps its link.
    KvSmartPtr<CRsNode> GetNextSibling() const;
    void AddChild(const KvSmartPtr<CRsNode>& ptrChild);
    void RemoveChild(const char* pszName);
    int32_t GetChildCount() const;

    // --- connections (through the refresh info) --------------------------------
    void ConnectServer(void* pvTarget, unsigned long idTarget, const KvSmartPtr<CRsQueue>& ptrQueue);
    void ConnectClient(void* pvTarget, unsigned long idTarget, const KvSmartPtr<CRsQueue>& ptrQueue);
    void DisconnectServer();
    void DisconnectClient(void* pvTarget, unsigned long idTarget);
    void GetServer(CRsConnectInfo* pInfo) const;
    int32_t GetClientCount() const;
    void EnumClients(CRsConnectInfo* pInfo, long cMax) const;
    void DisconnectProcess(bool bRecursive);
    // The same for another process, one that ended without its exit; returns
    // how many of its connections left the tree.
    uint32_t DisconnectProcessOf(uint32_t dwPrcsId, bool bRecursive);

    // --- notification ----------------------------------------------------------
    void NotifyServer(unsigned long dwMsg, const KvSmartPtr<CRsValue>& ptrValue, bool bRecursive);
    void NotifyClients(unsigned long dwMsg, const KvSmartPtr<CRsValue>& ptrValue, bool bRecursive);

    // True when the node passes operations on to the node it refers to.
    bool Forwards() const { return HasRef() && m_ptrRef.IsNotNull(); }
    // The node at the end of the reference chain (this node when it does not
    // forward). A chain longer than KVRS_MAX_REF_CHAIN (a cycle) is reported and
    // gives null, so that a bad reference can never hang or overflow the stack.
    CRsNode* GetForwardTarget() const;

    KvsWord<uint32_t> m_dwType;
    KvString m_strName;
    KvSmartPtr<CRsRefreshInfo> m_ptrRefreshInfo;
    KvSmartPtr<CRsChildList> m_ptrChildList;
    KvSmartPtr<CRsValue> m_ptrValue;
    KvSmartPtr<CRsNode> m_ptrRef;
    KvsPtr<CRsNodeHln> m_pHln;  // entry holding this node in its parent's list; not counted

private:
    // NotifyServer and NotifyClients are one walk that differs only in the
    // refresh-info operation it calls.
    void NotifyWalk(unsigned long dwMsg, const KvSmartPtr<CRsValue>& ptrValue, bool bRecursive, bool bClients,
                    uint32_t cDepth);
    // dwPrcsId 0: this process's exit (CRsRefreshInfo::DisconnectProcess);
    // otherwise the reaping of that ended process.
    uint32_t DisconnectProcessWalk(uint32_t dwPrcsId, bool bRecursive);
    bool IsSelfOrAncestor(const CRsNode* pNode) const;
};
#pragma pack(pop)

static_assert(sizeof(CRsNode) == 57, "a node is 57 bytes and takes a 64-byte block");
KV_RS_PIN_OFFSET(CRsNode, m_dwType, 21)
KV_RS_PIN_OFFSET(CRsNode, m_strName, 25)
KV_RS_PIN_OFFSET(CRsNode, m_ptrRefreshInfo, 37)
KV_RS_PIN_OFFSET(CRsNode, m_ptrChildList, 41)
KV_RS_PIN_OFFSET(CRsNode, m_ptrValue, 45)
KV_RS_PIN_OFFSET(CRsNode, m_ptrRef, 49)
KV_RS_PIN_OFFSET(CRsNode, m_pHln, 53)

// The tree's root (root slot 2 of the segment header) as a counted pointer. It
// never creates the root: an empty slot is reported and gives null.
KvSmartPtr<CRsNode> GetRoot();

// Root slot of the segment header that holds the root node.
constexpr int KVRS_ROOT_SLOT = 2;
