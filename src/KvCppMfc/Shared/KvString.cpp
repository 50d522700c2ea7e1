// KvString.cpp - see KvString.h.
#include "KvString.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "../Diag/KvDiag.h"

// What a string without a buffer reads as.
const char KvString::s_szEmpty[1] = {'\0'};

KvString::KvString()
{
    Init(s_szEmpty);
}

KvString::KvString(const char* psz)
{
    Init(psz);
}

KvString::KvString(const KvString& str)
{
    Init(str.GetCharPtr());
}

KvString& KvString::operator=(const KvString& str)
{
    if (this != &str)
        Assign(str.GetCharPtr());
    return *this;
}

KvString& KvString::operator=(const char* psz)
{
    Assign(psz);
    return *this;
}

KvString::~KvString()
{
    if (m_psz.IsNotNull())
        FreeBuffer(m_psz.Get(), m_pGran.Get());
    m_psz = KvsPtr<char>();
    m_pGran = KvsPtr<KvGranularity>();
}

void KvString::Init(const char* psz)
{
    if (psz == nullptr)
        psz = s_szEmpty;
    m_psz = KvsPtr<char>();
    m_pGran = KvsPtr<KvGranularity>();
    const size_t cch = strlen(psz);
    AllocIfNecessary(static_cast<uint32_t>(cch + 1));
    if (m_psz.IsNotNull())
        KvsWriteBytes(m_psz.Get(), psz, cch + 1);
}

void KvString::Assign(const char* psz)
{
    if (psz == nullptr)
        psz = s_szEmpty;
    const size_t cch = strlen(psz);
    // A text longer than our buffer cannot lie inside it, so growing never
    // frees psz under our feet.
    AllocIfNecessary(static_cast<uint32_t>(cch + 1));
    if (m_psz.IsNotNull())
        KvsWriteBytes(m_psz.Get(), psz, cch + 1);
}

void KvString::ConcatN(const char* psz, uint32_t cch)
{
    if (cch == 0 || psz == nullptr)
        return;
    // Appending a piece of our own text: keep a copy, since growing moves it.
    const char* pBuf = m_psz.Get();
    std::string strCopy;
    if (pBuf != nullptr && psz >= pBuf && psz < pBuf + GetCapacity()) {
        strCopy.assign(psz, cch);
        psz = strCopy.c_str();
    }
    const uint32_t cchOld = GetLength();
    AllocIfNecessary(cchOld + cch + 1);
    char* p = m_psz.Get();
    if (p == nullptr)
        return;
    KvsWriteBytes(p + cchOld, psz, cch);
    KvsWriteBytes(p + cchOld + cch, "", 1);
}

void KvString::Concat(const char* psz)
{
    if (psz != nullptr)
        ConcatN(psz, static_cast<uint32_t>(strlen(psz)));
}

uint32_t KvString::GetLength() const
{
    return static_cast<uint32_t>(strlen(GetCharPtr()));
}

uint32_t KvString::GetCapacity() const
{
    return m_pGran.IsNotNull() ? m_pGran->_stSize : 0;
}

void KvString::AllocIfNecessary(uint32_t n)
{
    if (n <= GetCapacity())
        return;  // a string never shrinks
    if (n > KVGRAN_MAX_REQUEST) {
        char sz[160];
        snprintf(sz, sizeof(sz), "KvString: a text of 0x%x bytes exceeds the largest block size (0x%x bytes)", n,
                 KVGRAN_MAX_REQUEST);
        KvGranThrow(sz);
    }
    char* pszOld = m_psz.Get();
    KvGranularity* pGranOld = m_pGran.Get();
    m_psz = KvsPtr<char>();
    m_pGran = KvsPtr<KvGranularity>();
    if (n > 1) {
        // Exactly the class that fits; the empty text takes no block.
        KvGranularity* pGran = KvGranularity::_GetGranularity(KvGranularity::_IndexForSize(n));
        char* psz = nullptr;
        try {
            psz = static_cast<char*>(pGran->Alloc(n, nullptr));
        } catch (...) {
            // Out of pool memory: the string keeps its old text and block.
            m_psz = pszOld;
            m_pGran = pGranOld;
            throw;
        }
        m_pGran = pGran;
        m_psz = psz;
        if (pszOld == nullptr)
            psz[0] = '\0';
        else
            memcpy(psz, pszOld, strlen(pszOld) + 1);
    }
    if (pszOld != nullptr) {
        FreeBuffer(pszOld, pGranOld);
        if (m_psz.Get() == pszOld)
            KvAssertReport("_psz != pszOld", "KvCppMfc/OSTR", 355);
    }
}

void KvString::FreeBuffer(char* psz, KvGranularity* pGran)
{
    // The string's internal watcher is none.
    if (pGran != nullptr)
        pGran->Free(psz, nullptr);
}
