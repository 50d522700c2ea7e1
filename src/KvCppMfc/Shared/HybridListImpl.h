// HybridListImpl.h - the longer members of HybridList (included by HybridList.h).
#pragma once

#include <string>
#include <vector>

template <class T>
bool HybridList<T>::Remove(T* pElem)
{
    if (pElem == nullptr || m_cEntries == 0)
        return false;
    Top* pCover = nullptr;
    T* pPrev = nullptr;
    T* p = FindInsertionPoint(pElem, &pCover, &pPrev, KvHlSearchTypeFor(m_dwSortType));
    if (pCover == Top::BeforeFirst())
        pCover = m_pAnchor.Get();
    // Walk the run of equal elements up to the one with pElem's identity; the
    // cover follows, since the run may cross into the next entry's range.
    while (p != nullptr && (p == pElem || pElem->Compare(*p) == 0)) {
        Top* pNext = pCover->m_pNext.Get();
        if (pNext != nullptr && pNext->m_pBottom.Get() == p)
            pCover = pNext;
        if (p == pElem) {
            T* pAfter = p->GetNext();
            p->Remove(pPrev);
            m_cEntries -= 1;
            pCover->SubNodeRemoved(p, pAfter);
            return true;
        }
        pPrev = p;
        p = p->GetNext();
    }
    return false;
}

template <class T>
void HybridList<T>::FreeIndex()
{
    // The first entry of each level leads to the first entry of the level above.
    Top* pLevel = m_pAnchor.Get();
    m_pAnchor = KvsPtr<Top>();
    while (pLevel != nullptr) {
        Top* pUp = pLevel->m_pParent.Get();
        for (Top* q = pLevel; q != nullptr;) {
            Top* pNext = q->m_pNext.Get();
            KvSharedClassDelete<Top>(q);
            q = pNext;
        }
        pLevel = pUp;
    }
    m_cEntries = 0;
}

// --- the structure check --------------------------------------------------------

template <class T>
bool HybridList<T>::CheckStructure(std::string* pstrError) const
{
    auto fail = [pstrError](const std::string& str) {
        if (pstrError != nullptr)
            *pstrError = str;
        return false;
    };
    Top* pAnchor = m_pAnchor.Get();
    if (pAnchor == nullptr)
        return fail("no anchor");
    if (pAnchor->m_pPrev.IsNotNull() || pAnchor->m_pChild.IsNotNull())
        return fail("the anchor is not the first entry of the lowest level");

    // The bottom list: length and order. Walks are bounded, so a cycle shows as
    // a count mismatch instead of a hang.
    std::vector<T*> vElems;
    for (T* p = pAnchor->m_pBottom.Get(); p != nullptr; p = p->GetNext()) {
        if (vElems.size() > m_cEntries)
            return fail("the bottom list is longer than m_cEntries = " + std::to_string(m_cEntries));
        vElems.push_back(p);
    }
    if (vElems.size() != m_cEntries)
        return fail("the bottom list has " + std::to_string(vElems.size()) +
                    " elements, m_cEntries = " + std::to_string(m_cEntries));
    if (m_dwSortType <= KVHL_SEARCH_DESCENDING) {
        const bool bAscending = m_dwSortType == 0 || m_dwSortType == 2;
        for (size_t i = 1; i < vElems.size(); ++i) {
            const int cmp = vElems[i - 1]->Compare(*vElems[i]);
            if (bAscending ? cmp > 0 : cmp < 0)
                return fail("elements " + std::to_string(i - 1) + " and " + std::to_string(i) + " are out of order");
        }
    }

    // The lowest level: each entry starts where the previous one's run ended.
    std::vector<Top*> vLevel;
    size_t iPos = 0;
    for (Top* q = pAnchor; q != nullptr; q = q->m_pNext.Get()) {
        if (vLevel.size() > vElems.size())
            return fail("the lowest level has more entries than elements");
        if (q->m_pNext.IsNotNull() && q->m_pNext->m_pPrev.Get() != q)
            return fail("prev/next links of the lowest level are not symmetric");
        if (q->m_pChild.IsNotNull())
            return fail("an entry of the lowest level has a child");
        if (q->m_cCount == 0 && !(q == pAnchor && vElems.empty()))
            return fail("an entry of the lowest level covers nothing");
        T* pExpected = iPos < vElems.size() ? vElems[iPos] : nullptr;
        if (q->m_pBottom.Get() != pExpected)
            return fail("lowest entry " + std::to_string(vLevel.size()) +
                        ": bottom is not the first element of its run");
        iPos += q->m_cCount;
        vLevel.push_back(q);
    }
    if (iPos != vElems.size())
        return fail("the lowest level covers " + std::to_string(iPos) + " elements of " +
                    std::to_string(vElems.size()));

    // Each upper level covers the level below run by run; only the first entry
    // of a run carries the parent link.
    uint32_t cMin = KVHL_MIN_LOWEST;
    for (int iLevel = 0;; ++iLevel) {
        Top* pUpFirst = vLevel.front()->m_pParent.Get();
        if (pUpFirst == nullptr) {
            if (vLevel.size() != 1)
                return fail("the top level (" + std::to_string(iLevel) + ") has " + std::to_string(vLevel.size()) +
                            " entries");
            return true;
        }
        for (Top* q : vLevel)
            if (q->m_cCount < cMin)
                return fail("level " + std::to_string(iLevel) + ": an entry covers " + std::to_string(q->m_cCount) +
                            ", under the merge limit");
        if (pUpFirst->m_pPrev.IsNotNull())
            return fail("level " + std::to_string(iLevel + 1) + " does not start at the first entry's parent");
        std::vector<Top*> vUpper;
        iPos = 0;
        for (Top* u = pUpFirst; u != nullptr; u = u->m_pNext.Get()) {
            const std::string strAt = "level " + std::to_string(iLevel + 1) + " entry " + std::to_string(vUpper.size());
            if (vUpper.size() >= vLevel.size())
                return fail(strAt + ": the level is not smaller than the one below");
            if (u->m_pNext.IsNotNull() && u->m_pNext->m_pPrev.Get() != u)
                return fail(strAt + ": prev/next links are not symmetric");
            if (u->m_cCount == 0 || iPos + u->m_cCount > vLevel.size())
                return fail(strAt + ": count " + std::to_string(u->m_cCount) + " does not fit the level below");
            if (u->m_pChild.Get() != vLevel[iPos] || vLevel[iPos]->m_pParent.Get() != u)
                return fail(strAt + ": child and parent links do not meet");
            for (size_t i = iPos + 1; i < iPos + u->m_cCount; ++i)
                if (vLevel[i]->m_pParent.IsNotNull())
                    return fail(strAt + ": a parent link on an entry that does not start a run");
            if (u->m_pBottom != vLevel[iPos]->m_pBottom)
                return fail(strAt + ": bottom differs from its child's bottom");
            iPos += u->m_cCount;
            vUpper.push_back(u);
        }
        if (iPos != vLevel.size())
            return fail("level " + std::to_string(iLevel + 1) + " covers " + std::to_string(iPos) + " of " +
                        std::to_string(vLevel.size()) + " entries");
        vLevel.swap(vUpper);
        cMin = KVHL_MIN_UPPER;
    }
}
