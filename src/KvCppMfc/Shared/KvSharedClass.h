// KvSharedClass.h - what every class that lives in the shared segment carries:
// the index of its delete function as the object's first field, a registered
// __Delete that any process can call, and creation in a pool block.
//
// Shared classes have no virtual functions (a virtual table's address differs per
// process); deletion goes through the per-process registry of delete functions,
// whose indices agree across processes because every process registers the same
// classes in the same order (see KvRegisterSharedClass).
#pragma once

#include <cstdint>
#include <new>
#include <utility>

#include "../Pool/KvGranularity.h"
#include "../Pool/KvsWord.h"

// Destroys an object of class X in place and gives its block back to its pool.
template <class X>
void KvSharedClassDelete(void* pv)
{
    static_cast<X*>(pv)->~X();
    KvGranularity::_Free(pv, sizeof(X), nullptr);
}

// The per-class boilerplate: the class's registry index, its delete function and
// operator delete (which gives the block back after a delete-expression has run
// the destructor). Place it in the class body of every shared class.
#define KV_SHARED_CLASS(X)                            \
public:                                               \
    static inline int32_t sm_iDeleteFunction = 0;     \
    static void __Delete(void* pv)                    \
    {                                                 \
        KvSharedClassDelete<X>(pv);                   \
    }                                                 \
    static void operator delete(void* pv)             \
    {                                                 \
        KvGranularity::_Free(pv, sizeof(X), nullptr); \
    }

// Registers X's delete function once per process under the given name (the name
// and size enter the build fingerprint). Called from one place, in a fixed order.
template <class X>
void KvRegisterSharedClass(const char* pszName)
{
    if (X::sm_iDeleteFunction == 0)
        X::sm_iDeleteFunction = KvGranularity::_RegisterDeleteFunction(&X::__Delete, pszName, sizeof(X));
}
#define KV_REGISTER_SHARED_CLASS(X) KvRegisterSharedClass<X>(#X)

// Creates an X in a block of X's size class: the delete-function index is written
// first, then the constructor runs (it leaves that word alone). The block goes
// back to its pool if the constructor throws.
//
// The index is written again after the constructor: the compiler may treat the
// store before a constructor as dead (the object's lifetime begins with it), and
// a class whose constructor leaves the word alone would then keep the zero of the
// fresh block. A class that was never registered has no delete function another
// process could call: creating one is refused.
template <class X, class... A>
X* KvNewShared(A&&... args)
{
    const int32_t iIndex = X::sm_iDeleteFunction;
    if (iIndex <= 0)
        KvGranThrow("KvNewShared(): the class's delete function is not registered");
    void* pv = KvGranularity::_Alloc(sizeof(X), nullptr);
    *static_cast<int32_t*>(pv) = iIndex;
    X* p = nullptr;
    try {
        p = ::new (pv) X(std::forward<A>(args)...);
    } catch (...) {
        KvGranularity::_Free(pv, sizeof(X), nullptr);
        throw;
    }
    *static_cast<int32_t*>(pv) = iIndex;
    return p;
}

// Deletes any shared object through the delete function named by its first field.
inline void KvDeleteShared(void* pv)
{
    const KvDeleteFunction pfnDelete = KvGranularity::_GetDeleteFunction(*static_cast<const int32_t*>(pv));
    pfnDelete(pv);
}
