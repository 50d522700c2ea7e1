// CRsNodeHln.h - a node's child list: sorted entries, one per child, each
// holding its child by a child reference.
#pragma once

#include <cstdint>

#include "CRsNode.h"
#include "KvCppMfc/Shared/HybridList.h"

#pragma pack(push, 1)
// One entry of a child list. It orders by its node's name as an unsigned byte
// string (strcmp order); equal names are equal entries, with no tie-break.
class CRsNodeHln : public HListSimpleNode<CRsNodeHln> {
    KV_SHARED_CLASS(CRsNodeHln)
public:
    CRsNodeHln() {}
    // Holds pNode by a child reference and points the node's entry link here.
    explicit CRsNodeHln(CRsNode* pNode);
    // Clears the node's entry link (when it still names this entry), then drops
    // the hold, which deletes the node when nothing else holds it.
    ~CRsNodeHln();

    const char* GetName() const { return m_ptr.IsNotNull() ? m_ptr->GetName() : ""; }
    int Compare(const CRsNodeHln& other) const;
    static int CompareKey(const char* const& pszName, const CRsNodeHln& entry);
    // Starts loading the node's name link, which a comparison reads next.
    static void PrefetchKey(const CRsNodeHln& entry)
    {
        if (entry.m_ptr.IsNotNull())
            __builtin_prefetch(&entry.m_ptr->m_strName);
    }

    KvChildPtr<CRsNode> m_ptr;
};

class CRsChildList : public CRsObj, public HybridList<CRsNodeHln> {
    KV_SHARED_CLASS(CRsChildList)
public:
    // Ascending, owning its entries.
    CRsChildList();
    // Takes every entry out and deletes it (so the subtree goes depth first),
    // then the index.
    ~CRsChildList();

    // The first entry whose name equals pszName (the first added among
    // duplicates), or null. Creates nothing.
    CRsNodeHln* FindByName(const char* pszName) const;
};
#pragma pack(pop)

static_assert(sizeof(CRsNodeHln) == 12, "a child entry is 12 bytes");
KV_RS_PIN_OFFSET(CRsNodeHln, m_pNext, 4)
KV_RS_PIN_OFFSET(CRsNodeHln, m_ptr, 8)
static_assert(sizeof(CRsChildList) == 38, "a child list is 38 bytes");
KV_RS_PIN_OFFSET(CRsChildList, m_dwVtblPlaceholder, 21)
KV_RS_PIN_OFFSET(CRsChildList, m_pAnchor, 25)
KV_RS_PIN_OFFSET(CRsChildList, m_dwSortType, 29)
KV_RS_PIN_OFFSET(CRsChildList, m_bOwnsEntries, 33)
KV_RS_PIN_OFFSET(CRsChildList, m_cEntries, 34)
