// KvsWord.h - a word of a shared object, changed only through the write path.
//
// The fields of the shared classes are KvsWord (numbers), KvsPtr (links) or
// classes built of them, so that no assignment to the segment can skip the
// journal: reading is a plain load, every change records the old bytes first
// (KvsSave, KvsPtr.h). Construction records nothing: an object is constructed in
// a block its allocation handed out in this very section, which undoing the
// allocation gives back whole. The layout is the plain T's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "KvsPtr.h"

#pragma pack(push, 1)
template <class T>
class KvsWord {
public:
    KvsWord() = default;
    constexpr KvsWord(T v) : m_v(v) {}  // NOLINT(google-explicit-constructor): a field initialiser
    KvsWord(const KvsWord&) = default;

    operator T() const { return m_v; }  // NOLINT(google-explicit-constructor)
    T Get() const { return m_v; }

    KvsWord& operator=(const KvsWord& o)
    {
        Set(o.m_v);
        return *this;
    }
    KvsWord& operator=(T v)
    {
        Set(v);
        return *this;
    }
    KvsWord& operator+=(T d)
    {
        Set(static_cast<T>(m_v + d));
        return *this;
    }
    KvsWord& operator-=(T d)
    {
        Set(static_cast<T>(m_v - d));
        return *this;
    }
    KvsWord& operator|=(T d)
    {
        Set(static_cast<T>(m_v | d));
        return *this;
    }
    KvsWord& operator&=(T d)
    {
        Set(static_cast<T>(m_v & d));
        return *this;
    }
    KvsWord& operator++() { return *this += 1; }
    KvsWord& operator--() { return *this -= 1; }
    T operator++(int)
    {
        const T v = m_v;
        *this += 1;
        return v;
    }
    T operator--(int)
    {
        const T v = m_v;
        *this -= 1;
        return v;
    }

private:
    void Set(T v)
    {
        KvsSave(this, sizeof(T));
        m_v = v;
    }
    T m_v;
};
#pragma pack(pop)
static_assert(sizeof(KvsWord<uint64_t>) == 8 && sizeof(KvsWord<uint8_t>) == 1, "a word is its plain type");

// Bytes of the segment (a text's characters) written through the write path.
inline void KvsWriteBytes(void* pvDst, const void* pvSrc, size_t cb)
{
    KvsSave(pvDst, static_cast<uint32_t>(cb));
    memmove(pvDst, pvSrc, cb);
}
