// KvString.h - the text string whose characters live in a pool block of the
// shared segment, so that a string embedded in a shared object (a node's or a
// queue's name) reads the same in every process.
//
// Three 32-bit words: the delete-function index word that every shared object
// carries first (never read or written by the string: inside another object it
// keeps what the block held), the buffer's offset and the offset of the pool
// entry it came from. The capacity is that pool's block size. A string grows to
// exactly the size class that fits, never shrinks, and gives its block back only
// when destroyed or when it moves to a larger block. Strings are copied by
// copying text, never by sharing blocks.
#pragma once

#include <cstddef>
#include <cstdint>

#include "../Pool/KvGranularity.h"
#include "../Pool/KvsWord.h"

#pragma pack(push, 1)
class KvString {
public:
    KvString();
    KvString(const char* psz);
    KvString(const KvString& str);
    KvString& operator=(const KvString& str);
    KvString& operator=(const char* psz);
    ~KvString();

    // Forgets buffer and pool (without giving anything back) and takes psz.
    void Init(const char* psz);
    // Replaces the text; null counts as the empty text.
    void Assign(const char* psz);
    // Appends the first cch bytes of psz.
    void ConcatN(const char* psz, uint32_t cch);
    void Concat(const char* psz);

    // The text; the process's static empty text when there is no buffer.
    const char* GetCharPtr() const
    {
        const char* p = m_psz.Get();
        return p != nullptr ? p : s_szEmpty;
    }
    operator const char*() const { return GetCharPtr(); }
    uint32_t GetLength() const;
    bool IsEmpty() const { return GetCharPtr()[0] == '\0'; }
    // Block size of the buffer's pool, 0 without one.
    uint32_t GetCapacity() const;

    // Makes room for n bytes, terminator included.
    void AllocIfNecessary(uint32_t n);

    KvsWord<uint32_t> m_dwDeleteIndex;  // the shared-object index word; not the string's
    KvsPtr<char> m_psz;                 // the buffer; 0: none
    KvsPtr<KvGranularity> m_pGran;      // the pool entry of the buffer; 0: none

private:
    static const char s_szEmpty[1];
    void FreeBuffer(char* psz, KvGranularity* pGran);
};
#pragma pack(pop)

static_assert(sizeof(KvString) == 12, "a shared string is three words");
static_assert(offsetof(KvString, m_psz) == 4, "");
static_assert(offsetof(KvString, m_pGran) == 8, "");
