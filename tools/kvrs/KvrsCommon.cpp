// KvrsCommon.cpp - argument parsing, node lookup and printing shared by the
// subcommands. Everything goes through the public API.
#include "KvrsCommon.h"

#include <signal.h>
#include <time.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "KvCppMfc/Pool/KvGranularity.h"

namespace {

// The library copies a path into a buffer of this size; longer ones are refused here.
constexpr size_t kcchPathLimit = KVRS_PATH_MAX + 1;

volatile sig_atomic_t s_fStop = 0;

extern "C" void KvrsOnStopSignal(int)
{
    s_fStop = 1;
}

// Length of the UTF-8 sequence at ab[i], or 0 when it is not a valid one.
size_t Utf8SequenceLength(const std::vector<unsigned char>& ab, size_t i)
{
    const unsigned char b = ab[i];
    size_t cb = 0;
    if (b >= 0xC2 && b < 0xE0)
        cb = 2;
    else if (b >= 0xE0 && b < 0xF0)
        cb = 3;
    else if (b >= 0xF0 && b <= 0xF4)
        cb = 4;
    if (cb == 0 || i + cb > ab.size())
        return 0;
    for (size_t k = 1; k < cb; ++k)
        if ((ab[i + k] & 0xC0) != 0x80)
            return 0;
    return cb;
}

}  // namespace

void KvrsUsageError(const std::string& strText)
{
    throw KvrsError(KVRS_EXIT_USAGE, strText);
}

void KvrsNotFound(const std::string& strPath)
{
    throw KvrsError(KVRS_EXIT_FAILED, "no node '" + strPath + "'");
}

uint32_t KvrsParseNumber(const std::string& str, const char* pszWhat)
{
    const char* psz = str.c_str();
    if (str.empty() || str[0] == '-' || str[0] == '+' || isspace(static_cast<unsigned char>(str[0])))
        KvrsUsageError(std::string("bad number '") + KvrsShown(str) + "' for " + pszWhat);
    errno = 0;
    char* pszEnd = nullptr;
    const unsigned long long ull = strtoull(psz, &pszEnd, 0);
    if (errno != 0 || *pszEnd != '\0')
        KvrsUsageError(std::string("bad number '") + KvrsShown(str) + "' for " + pszWhat);
    if (ull > 0xFFFFFFFFull)
        KvrsUsageError(std::string("number '") + str + "' for " + pszWhat + " does not fit in 32 bits");
    return static_cast<uint32_t>(ull);
}

std::string KvrsShown(const std::string& str)
{
    std::string strOut = str.size() > 32 ? str.substr(0, 32) + "..." : str;
    for (char& ch : strOut)
        if (static_cast<unsigned char>(ch) < 0x20 || ch == 0x7F)
            ch = '?';
    return strOut;
}

const char* KvrsMsgEventName(uint32_t dwNumber)
{
    switch (dwNumber & KVRS_NOTIFY_MSG_MASK) {
    case KVRS_MSG_CREATED: return "created";
    case KVRS_MSG_REMOVED: return "removed";
    case KVRS_MSG_CHANGED: return "changed";
    default: return "";
    }
}

long KvrsParseCount(const std::string& str, const char* pszWhat, long lMin, long lMax)
{
    const std::string strRange = std::to_string(lMin) + " to " + std::to_string(lMax);
    // Echo at most a short piece of the input: the message stays one short line.
    const std::string strShown = KvrsShown(str);
    const bool bDigits = !str.empty() && str.size() <= 18 &&
                         str.find_first_not_of("0123456789", str[0] == '-' ? 1 : 0) == std::string::npos && str != "-";
    if (!bDigits)
        KvrsUsageError(std::string("bad ") + pszWhat + " '" + strShown + "': expected a whole number from " + strRange);
    const long long ll = strtoll(str.c_str(), nullptr, 10);
    if (ll < lMin || ll > lMax)
        KvrsUsageError(std::string("bad ") + pszWhat + " '" + strShown + "': expected a whole number from " + strRange);
    return static_cast<long>(ll);
}

double KvrsParseSeconds(const std::string& str, const char* pszWhat, double dMax)
{
    const std::string strShown = KvrsShown(str);
    char* pszEnd = nullptr;
    errno = 0;
    const double d = str.empty() || !isdigit(static_cast<unsigned char>(str[0])) ? -1.0 : strtod(str.c_str(), &pszEnd);
    if (d < 0 || errno != 0 || pszEnd == nullptr || *pszEnd != '\0' || !(d <= dMax))
        KvrsUsageError(std::string("bad ") + pszWhat + " '" + strShown + "': expected seconds from 0 to " +
                       std::to_string(static_cast<long>(dMax)));
    return d;
}

std::vector<unsigned char> KvrsParseHex(const std::string& str)
{
    std::vector<unsigned char> ab;
    int iHigh = -1;
    for (char ch : str) {
        if (isspace(static_cast<unsigned char>(ch)) || ch == ':') {
            if (iHigh >= 0)
                KvrsUsageError("bad hex '" + KvrsShown(str) + "': odd number of digits in a byte");
            continue;
        }
        if (!isxdigit(static_cast<unsigned char>(ch)))
            KvrsUsageError("bad hex '" + KvrsShown(str) + "': '" + KvrsShown(std::string(1, ch)) +
                           "' is not a hex digit");
        const int iDigit = isdigit(static_cast<unsigned char>(ch)) ? ch - '0' : (tolower(ch) - 'a' + 10);
        if (iHigh < 0) {
            iHigh = iDigit;
        } else {
            ab.push_back(static_cast<unsigned char>(iHigh * 16 + iDigit));
            iHigh = -1;
        }
    }
    if (iHigh >= 0)
        KvrsUsageError("bad hex '" + KvrsShown(str) + "': odd number of digits");
    return ab;
}

void KvrsCheckPath(const std::string& strPath, bool fRootOk)
{
    if (strPath.empty()) {
        if (!fRootOk)
            KvrsUsageError("bad path '': the root cannot be used here");
        return;
    }
    if (strPath.size() >= kcchPathLimit)
        KvrsUsageError("bad path: " + std::to_string(strPath.size()) + " bytes, the limit is " +
                       std::to_string(kcchPathLimit - 1));
    if (strPath.find('\0') != std::string::npos)
        KvrsUsageError("bad path: it holds a NUL byte");
    size_t iStart = 0;
    for (;;) {
        const size_t iDot = strPath.find('.', iStart);
        const size_t iEnd = iDot == std::string::npos ? strPath.size() : iDot;
        if (iEnd == iStart)
            KvrsUsageError("bad path '" + KvrsShown(strPath) + "': empty name");
        if (iDot == std::string::npos)
            break;
        iStart = iDot + 1;
    }
}

uint32_t KvrsMaxValueBytes()
{
    return KVGRAN_MAX_REQUEST;
}

void KvrsCheckValueSize(size_t cb)
{
    if (cb > KvrsMaxValueBytes())
        KvrsUsageError("value of " + std::to_string(cb) + " bytes is too large for the segment (at most " +
                       std::to_string(KvrsMaxValueBytes()) + " bytes)");
}

KvRsNodeProxy KvrsRoot()
{
    // An empty path with no parent yields the root and creates nothing.
    return KvRsCreateNode("", nullptr, 0);
}

KvRsNodeProxy KvrsFindNode(const std::string& strPath)
{
    KvRsNodeProxy node = strPath.empty() ? KvrsRoot() : KvRsGetNode(strPath.c_str());
    if (node.GetHandle() == nullptr)
        KvrsNotFound(strPath);
    return node;
}

std::string KvrsNodeName(const KvRsNodeProxy& node)
{
    // Holding the mutex keeps the name from changing between the two calls.
    KvRsRequestMutex();
    const long cch = KvRsGetNodeNameLength(node.GetHandle(), node.GetId());
    std::vector<char> ach(static_cast<size_t>(cch > 0 ? cch : 0) + 1, '\0');
    if (cch > 0)
        KvRsGetNodeName(node.GetHandle(), node.GetId(), ach.data());
    KvRsReleaseMutex();
    return std::string(ach.data(), strnlen(ach.data(), ach.size()));
}

std::string KvrsNodePath(const KvRsNodeProxy& node)
{
    std::vector<std::string> vstrNames;
    KvRsNodeProxy cur = node;
    for (;;) {
        KvRsNodeProxy parent = KvRsGetNodeParent(cur.GetHandle(), cur.GetId());
        if (parent.GetHandle() == nullptr)
            break;  // cur is the root (or a node unlinked from the tree)
        vstrNames.push_back(KvrsNodeName(cur));
        cur = parent;
    }
    std::string strPath;
    for (auto it = vstrNames.rbegin(); it != vstrNames.rend(); ++it)
        strPath += (strPath.empty() ? "" : ".") + *it;
    return strPath;
}

std::string KvrsHex32(uint32_t dw)
{
    char sz[16];
    snprintf(sz, sizeof(sz), "0x%x", dw);
    return sz;
}

std::vector<std::string> KvrsTypeFlagList(uint32_t dwType)
{
    static const struct {
        uint32_t dwMask;
        const char* pszName;
    } s_aFlags[] = {
        {KVRS_TYPE_VALUE, "value"}, {KVRS_TYPE_REF, "ref"}, {KVRS_TYPE_PARENT, "parent"}, {KVRS_TYPE_CONST, "const"}};
    std::vector<std::string> vstr;
    for (const auto& f : s_aFlags)
        if (dwType & f.dwMask)
            vstr.push_back(f.pszName);
    return vstr;
}

std::string KvrsTypeFlags(uint32_t dwType)
{
    std::string str;
    for (const std::string& strFlag : KvrsTypeFlagList(dwType))
        str += (str.empty() ? "" : ",") + strFlag;
    return str;
}

KvrsValue KvrsReadValue(const KvRsValueProxy& value)
{
    KvrsValue v;
    if (value.GetHandle() == nullptr)
        return v;
    v.m_bPresent = true;
    // Type, size and bytes in one hold of the mutex: another process may set
    // the value between the calls.
    KvRsRequestMutex();
    v.m_dwType = static_cast<uint32_t>(KvRsGetValueType(value.GetHandle(), value.GetId()));  // 32-bit types
    const long cb = KvRsGetValueByteCount(value.GetHandle(), value.GetId());
    if (cb > 0) {
        v.m_ab.resize(static_cast<size_t>(cb));
        KvRsGetValueBytes(value.GetHandle(), value.GetId(), v.m_ab.data());
    }
    KvRsReleaseMutex();
    return v;
}

KvRsValueProxy KvrsMakeValue(uint32_t dwType, const std::vector<unsigned char>& ab)
{
    KvRsValueProxy value = KvRsCreateValue();
    KvRsSetValueType(value.GetHandle(), value.GetId(), dwType);
    std::vector<unsigned char> abCopy(ab);  // the API takes a non-const buffer
    KvRsSetValueBytes(value.GetHandle(), value.GetId(), abCopy.data(), static_cast<long>(abCopy.size()));
    if (KvRsGetValueByteCount(value.GetHandle(), value.GetId()) != static_cast<long>(ab.size()))
        throw KvrsError(KVRS_EXIT_FAILED,
                        "value of " + std::to_string(ab.size()) + " bytes does not fit in the segment");
    return value;
}

bool KvrsIsPrintable(const std::vector<unsigned char>& ab)
{
    for (size_t i = 0; i < ab.size();) {
        const unsigned char b = ab[i];
        if (b >= 0x80) {
            const size_t cb = Utf8SequenceLength(ab, i);
            if (cb == 0)
                return false;
            i += cb;
            continue;
        }
        if ((b < 0x20 && b != '\t') || b == 0x7F)
            return false;
        ++i;
    }
    return true;
}

std::string KvrsHexText(const std::vector<unsigned char>& ab, size_t cbMax)
{
    std::string str;
    char sz[4];
    for (size_t i = 0; i < ab.size() && i < cbMax; ++i) {
        snprintf(sz, sizeof(sz), "%02x", ab[i]);
        str += sz;
    }
    if (ab.size() > cbMax)
        str += "...";
    return str;
}

std::string KvrsValueText(const KvrsValue& v, size_t cchMax)
{
    if (!v.m_bPresent)
        return "(no value)";
    std::string str = "type " + std::to_string(v.m_dwType) + ", " + std::to_string(v.m_ab.size()) + " bytes";
    if (v.m_ab.empty())
        return str;
    if (KvrsIsPrintable(v.m_ab)) {
        std::string strText(v.m_ab.begin(), v.m_ab.end());
        if (strText.size() > cchMax) {
            // Cut before a UTF-8 continuation byte never, so the text stays valid.
            size_t cch = cchMax;
            while (cch > 0 && (static_cast<unsigned char>(strText[cch]) & 0xC0) == 0x80)
                --cch;
            strText = strText.substr(0, cch) + "...";
        }
        std::string strQuoted;
        for (char ch : strText) {
            if (ch == '"' || ch == '\\')
                strQuoted += '\\';
            strQuoted += ch;
        }
        return str + " \"" + strQuoted + "\"";
    }
    return str + " " + KvrsHexText(v.m_ab, cchMax / 2);
}

std::string KvrsValueJson(const KvrsValue& v)
{
    if (!v.m_bPresent)
        return "null";
    std::string str = "{\"type\":" + std::to_string(v.m_dwType) + ",\"bytes\":" + std::to_string(v.m_ab.size());
    if (KvrsIsPrintable(v.m_ab))
        str += ",\"text\":" + KvrsJsonString(std::string(v.m_ab.begin(), v.m_ab.end()));
    else
        str += ",\"hex\":\"" + KvrsHexText(v.m_ab, v.m_ab.size()) + "\"";
    return str + "}";
}

std::string KvrsJsonString(const std::string& str)
{
    std::string strOut = "\"";
    for (unsigned char ch : str) {
        switch (ch) {
        case '"': strOut += "\\\""; break;
        case '\\': strOut += "\\\\"; break;
        case '\n': strOut += "\\n"; break;
        case '\t': strOut += "\\t"; break;
        case '\r': strOut += "\\r"; break;
        default:
            if (ch < 0x20) {
                char sz[8];
                snprintf(sz, sizeof(sz), "\\u%04x", ch);
                strOut += sz;
            } else {
                strOut += static_cast<char>(ch);
            }
        }
    }
    return strOut + "\"";
}

void KvrsInstallStopHandlers()
{
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = KvrsOnStopSignal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no SA_RESTART: a sleep ends early so the loop sees the flag
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    // A reader that goes away (`kvrs listen ... | head -1`) ends the command
    // as cleanly as Ctrl-C does: its connections leave the tree.
    sigaction(SIGPIPE, &sa, nullptr);
}

bool KvrsStopRequested()
{
    return s_fStop != 0;
}

void KvrsClearStopRequest()
{
    s_fStop = 0;
}

int64_t KvrsNowMicros()
{
    using namespace std::chrono;
    return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

void KvrsSleepMicros(int64_t cus)
{
    struct timespec ts;
    ts.tv_sec = static_cast<time_t>(cus / 1000000);
    ts.tv_nsec = static_cast<long>((cus % 1000000) * 1000);
    nanosleep(&ts, nullptr);  // a stop signal ends it early, which is wanted
}

std::string KvrsClockText()
{
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tmLocal;
    localtime_r(&ts.tv_sec, &tmLocal);
    char sz[32];
    snprintf(sz, sizeof(sz), "%02d:%02d:%02d.%06ld", tmLocal.tm_hour, tmLocal.tm_min, tmLocal.tm_sec,
             static_cast<long>(ts.tv_nsec / 1000));
    return sz;
}
