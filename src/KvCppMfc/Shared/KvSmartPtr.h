// KvSmartPtr.h - reference counting of objects in the shared segment.
//
// Every counted shared object starts with the 17-byte KvSmartPtrTarget header:
// its delete-function index, a smart count, a child count, a reserved byte and
// the offset of its parent. A KvSmartPtr counts one unit on its target and on
// every ancestor; a KvChildPtr counts one child unit on its target only. An
// object is deleted, in whichever process, the moment smart + child reaches 0.
// Counts are plain integers: every use happens under the library's global mutex.
#pragma once

#include <cstdint>
#include <exception>

#include "../Diag/KvDiag.h"
#include "KvSharedClass.h"

template <class T>
class KvSmartPtr;

struct KvSmartPtrNewObject {};
constexpr KvSmartPtrNewObject KvNewObject{};

#pragma pack(push, 1)
class KvSmartPtrTarget {
public:
    // The delete-function index is written by the creator before construction
    // and left alone here; the construction guard (child count 1) keeps a
    // half-built object alive while its constructor hands itself out.
    KvSmartPtrTarget() : m_cSmart(1), m_cChild(1), m_bReserved(0) {}
    KvSmartPtrTarget(const KvSmartPtrTarget&) = delete;
    KvSmartPtrTarget& operator=(const KvSmartPtrTarget&) = delete;

    // Smart count += 1 on this object and each ancestor.
    void AddRefFromSmartPtr()
    {
        for (KvSmartPtrTarget* p = this; p != nullptr; p = p->m_ptrParent.Get())
            p->m_cSmart += 1;
    }
    // Releases one smart unit from the ancestors (deleting any that die) and then
    // from this object; true when this object must now be deleted by the caller.
    bool RmvRefFromSmartPtr()
    {
        ReleaseParentUnit();
        m_cSmart -= 1;
        return m_cSmart + m_cChild <= 0;
    }
    // Child count -= 1; true when the object must now be deleted by the caller.
    bool RmvRefFromChildPtr()
    {
        m_cChild -= 1;
        return m_cSmart + m_cChild <= 0;
    }
    void SetParent(const KvSmartPtr<KvSmartPtrTarget>& ptrParent);
    KvSmartPtr<KvSmartPtrTarget> GetParent() const;
    KvSmartPtr<KvSmartPtrTarget> KvGetThisAsSmartPtr();

    // Deletes this object through its class's registered delete function.
    void DeleteThis() { KvDeleteShared(this); }

    // One smart unit less on the parent chain: the parent dies (and the link is
    // cleared) when that was its last hold.
    void ReleaseParentUnit()
    {
        if (m_ptrParent.IsNotNull() && m_ptrParent->RmvRefFromSmartPtr())
            m_ptrParent.Delete();
    }

    KvsWord<int32_t> m_iDeleteFunction;
    KvsWord<int32_t> m_cSmart;
    KvsWord<int32_t> m_cChild;
    KvsWord<uint8_t> m_bReserved;
    KvsPtr<KvSmartPtrTarget> m_ptrParent;
};
#pragma pack(pop)
static_assert(sizeof(KvSmartPtrTarget) == 17, "the shared-object header is 17 bytes");
static_assert(offsetof(KvSmartPtrTarget, m_cSmart) == 4, "");
static_assert(offsetof(KvSmartPtrTarget, m_cChild) == 8, "");
static_assert(offsetof(KvSmartPtrTarget, m_bReserved) == 12, "");
static_assert(offsetof(KvSmartPtrTarget, m_ptrParent) == 13, "");

// Drops one smart unit of the object (and its ancestors); deletes it when its
// counts reach 0. Returns true when it was deleted.
inline bool KvReleaseSmartUnit(KvSmartPtrTarget* p)
{
    p->ReleaseParentUnit();
    p->m_cSmart -= 1;
    if (p->m_cSmart + p->m_cChild == 0) {
        p->DeleteThis();
        return true;
    }
    return false;
}

#pragma pack(push, 1)
template <class T>
class KvSmartPtr {
public:
    KvSmartPtr() = default;
    explicit KvSmartPtr(KvSmartPtrNewObject) { Create(); }
    KvSmartPtr(const KvSmartPtr& o) : m_p(o.m_p) { AddRef(); }
    // Moving hands the unit over: no walk of the ancestor chain.
    KvSmartPtr(KvSmartPtr&& o) noexcept : m_p(o.m_p) { o.m_p = KvsPtr<T>(); }
    template <class U>
    KvSmartPtr(const KvSmartPtr<U>& o) : m_p(KvsPtr<T>::FromOffset(o.Offset()))
    {
        AddRef();
    }
    // Takes a new counted reference on an object given by address (may be null).
    explicit KvSmartPtr(T* p) : m_p(p) { AddRef(); }
    // May throw: a fault while releasing (a stale or wrecked object) becomes the
    // library's exception inside an exported call, which must reach the frame.
    // While another exception unwinds, a second one would end the process, so a
    // fault then is dropped: the object it concerned was unusable anyway.
    ~KvSmartPtr() noexcept(false)
    {
        if (std::uncaught_exceptions() == 0) {
            RmvRef();
            return;
        }
        try {
            RmvRef();
        } catch (...) {
        }
    }

    KvSmartPtr& operator=(const KvSmartPtr& o)
    {
        if (this != &o) {
            o.AddRef();
            RmvRef();
            m_p = o.m_p;
        }
        return *this;
    }
    // Not noexcept: releasing the old object may raise (a fault in a wrecked
    // segment becomes the library's exception).
    KvSmartPtr& operator=(KvSmartPtr&& o)  // NOLINT(performance-noexcept-move-constructor)
    {
        if (this != &o) {
            RmvRef();
            m_p = o.m_p;
            o.m_p = KvsPtr<T>();
        }
        return *this;
    }
    template <class U>
    KvSmartPtr& operator=(const KvSmartPtr<U>& o)
    {
        o.AddRef();
        RmvRef();
        m_p = KvsPtr<T>::FromOffset(o.Offset());
        return *this;
    }

    // Releases what is held and creates a new T held by this pointer.
    void NewObject()
    {
        RmvRef();
        Create();
    }

    void AddRef() const
    {
        if (m_p.IsNotNull())
            Target()->AddRefFromSmartPtr();
    }
    // Drops the unit held (deleting the object when it was the last) and forgets it.
    void RmvRef()
    {
        if (m_p.IsNull())
            return;
        KvSmartPtrTarget* p = Target();
        m_p = KvsPtr<T>();
        KvReleaseSmartUnit(p);
    }
    // Removes the construction guard of a new object.
    void InitRef()
    {
        if (m_p.IsNotNull() && Target()->RmvRefFromChildPtr())
            KvAssertReport("!m_pObj->RmvRefFromChildPtr()", "KvCppMfc/KvSmartPtr", 110);
    }

    T* operator->() const { return m_p.Get(); }
    T& operator*() const { return *m_p.Get(); }
    T* Get() const { return m_p.Get(); }
    uint32_t Offset() const { return m_p.Offset(); }
    bool IsNull() const { return m_p.IsNull(); }
    bool IsNotNull() const { return m_p.IsNotNull(); }
    bool operator==(const KvSmartPtr& o) const { return m_p == o.m_p; }
    bool operator!=(const KvSmartPtr& o) const { return m_p != o.m_p; }

    // Forgets the object without releasing its unit (the caller takes it over).
    T* Detach()
    {
        T* p = m_p.Get();
        m_p = KvsPtr<T>();
        return p;
    }
    // Takes over a unit that the caller already holds.
    void Attach(T* p)
    {
        RmvRef();
        m_p = p;
    }

private:
    KvSmartPtrTarget* Target() const { return reinterpret_cast<KvSmartPtrTarget*>(m_p.Get()); }
    void Create()
    {
        m_p = KvNewShared<T>();
        InitRef();
    }

    KvsPtr<T> m_p;
};
#pragma pack(pop)
static_assert(sizeof(KvSmartPtr<KvSmartPtrTarget>) == 4, "a smart pointer is one offset");

#pragma pack(push, 1)
// Ownership by a containing object: one child unit on the target.
template <class T>
class KvChildPtr {
public:
    KvChildPtr() = default;
    explicit KvChildPtr(T* p) : m_p(p) { AddChild(); }
    KvChildPtr(const KvChildPtr&) = delete;
    KvChildPtr& operator=(const KvChildPtr&) = delete;
    ~KvChildPtr() noexcept(false)  // may throw, as ~KvSmartPtr
    {
        if (std::uncaught_exceptions() == 0) {
            Release();
            return;
        }
        try {
            Release();
        } catch (...) {
        }
    }

    // Holds a new child unit on p, after releasing the one held before.
    void Set(T* p)
    {
        KvsPtr<T> pOld = m_p;
        m_p = p;
        AddChild();
        KvChildPtr<T> old;
        old.m_p = pOld;
    }
    // Drops the child unit; deletes the target when that was its last hold.
    void Release()
    {
        if (m_p.IsNull())
            return;
        KvSmartPtrTarget* p = reinterpret_cast<KvSmartPtrTarget*>(m_p.Get());
        m_p = KvsPtr<T>();
        if (p->RmvRefFromChildPtr())
            p->DeleteThis();
    }

    T* operator->() const { return m_p.Get(); }
    T* Get() const { return m_p.Get(); }
    uint32_t Offset() const { return m_p.Offset(); }
    bool IsNull() const { return m_p.IsNull(); }
    bool IsNotNull() const { return m_p.IsNotNull(); }

private:
    void AddChild()
    {
        if (m_p.IsNotNull())
            reinterpret_cast<KvSmartPtrTarget*>(m_p.Get())->m_cChild += 1;
    }
    KvsPtr<T> m_p;
};
#pragma pack(pop)
static_assert(sizeof(KvChildPtr<KvSmartPtrTarget>) == 4, "a child pointer is one offset");

// --- KvSmartPtrTarget members that need KvSmartPtr ----------------------------

inline void KvSmartPtrTarget::SetParent(const KvSmartPtr<KvSmartPtrTarget>& ptrParent)
{
    if (ptrParent.Offset() == m_ptrParent.Offset())
        return;
    if (m_ptrParent.IsNotNull()) {
        // Take this object's smart units off the old chain, one unit at a time,
        // exactly as a KvSmartPtr release on the old parent would.
        for (int32_t i = 0; i < m_cSmart && m_ptrParent.IsNotNull(); ++i) {
            KvSmartPtrTarget* pOld = m_ptrParent.Get();
            pOld->ReleaseParentUnit();
            pOld->m_cSmart -= 1;
            if (pOld->m_cSmart + pOld->m_cChild == 0)
                m_ptrParent.Delete();
        }
    }
    m_ptrParent = KvsPtr<KvSmartPtrTarget>::FromOffset(ptrParent.Offset());
    if (m_ptrParent.IsNotNull())
        for (int32_t i = 0; i < m_cSmart; ++i)
            m_ptrParent->AddRefFromSmartPtr();
}

inline KvSmartPtr<KvSmartPtrTarget> KvSmartPtrTarget::GetParent() const
{
    return KvSmartPtr<KvSmartPtrTarget>(m_ptrParent.Get());
}

inline KvSmartPtr<KvSmartPtrTarget> KvSmartPtrTarget::KvGetThisAsSmartPtr()
{
    return KvSmartPtr<KvSmartPtrTarget>(this);
}
