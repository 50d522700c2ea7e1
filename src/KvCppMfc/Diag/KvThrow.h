// KvThrow.h - KvThrow reports an internal error (debug lines, tones, the
// statistics dump, a box) and raises it; nothing else in the diagnostics raises.
#pragma once

#include <cstddef>

// The object raised by KvThrow: the first 255 bytes of the text.
struct KvThrowText {
    char m_sz[256];
};

[[noreturn]] void KvThrow(const char* pszText);
void KvThrowSetTestMode(bool f);
bool KvThrowGetTestMode();

// The pools hand in their statistics dump, so that KvThrow can show the memory
// state without the diagnostics knowing the pools.
void KvSetStatisticsDump(void (*pfnDump)());

// Length of the longest prefix of psz, at most cchMax bytes, that ends on a
// character boundary (UTF-8 continuation bytes are never cut from their lead).
size_t KvCutAtCharBoundary(const char* psz, size_t cchMax);
