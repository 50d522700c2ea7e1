// KvrsListenFormat.cpp - see KvrsListenFormat.h.
#include "KvrsListenFormat.h"

#include <time.h>

#include <cstdio>

const char* const kpszKvrsFormatHelp =
    "Print each line as FMT: %I ISO 8601 time, %U epoch seconds, %t path, %e event (current, message, "
    "created, removed, changed), %m message number, %p value as it is, %x value as hex, %l value length, "
    "%T value type, %j the JSON object, %% a percent sign; \\n \\t \\\\ escapes";

namespace {

struct Timestamp {
    std::string m_strIso;    // 2026-11-23T22:10:00.123456+01:00
    std::string m_strEpoch;  // 1763932200.123456
};

Timestamp Now()
{
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tmLocal;
    localtime_r(&ts.tv_sec, &tmLocal);
    char szDate[32], szZone[8], sz[64];
    strftime(szDate, sizeof(szDate), "%Y-%m-%dT%H:%M:%S", &tmLocal);
    strftime(szZone, sizeof(szZone), "%z", &tmLocal);  // +0100
    const std::string strZone = std::string(szZone).insert(3, ":");
    Timestamp t;
    snprintf(sz, sizeof(sz), "%s.%06ld%s", szDate, static_cast<long>(ts.tv_nsec / 1000), strZone.c_str());
    t.m_strIso = sz;
    snprintf(sz, sizeof(sz), "%lld.%06ld", static_cast<long long>(ts.tv_sec), static_cast<long>(ts.tv_nsec / 1000));
    t.m_strEpoch = sz;
    return t;
}

std::string EventName(const KvrsEvent& ev)
{
    if (ev.m_bCurrent)
        return "current";
    const std::string str = KvrsMsgEventName(ev.m_dwNumber);
    return str.empty() ? "message" : str;
}

std::string PathText(const KvrsEvent& ev)
{
    return !ev.m_bNode ? "(no node)" : ev.m_strPath.empty() ? "(root)" : ev.m_strPath;
}

std::string JsonLine(const KvrsEvent& ev, const Timestamp& t)
{
    char sz[64];
    std::string str = "{\"time\":" + KvrsJsonString(t.m_strIso) + ",\"epoch\":" + t.m_strEpoch;
    str += ",\"event\":" + KvrsJsonString(EventName(ev));
    if (!ev.m_bCurrent)
        str += ",\"number\":" + std::to_string(ev.m_dwNumber);
    str += ",\"path\":" + (ev.m_bNode ? KvrsJsonString(ev.m_strPath) : std::string("null"));
    snprintf(sz, sizeof(sz), ",\"target\":{\"handle\":%lu,\"id\":%lu}", static_cast<unsigned long>(ev.m_uTarget),
             ev.m_idTarget);
    return str + sz + ",\"value\":" + KvrsValueJson(ev.m_value) + "}";
}

std::string TextLine(const KvrsEvent& ev, const Timestamp& t)
{
    char szNumber[16];
    snprintf(szNumber, sizeof(szNumber), "#0x%04x", ev.m_dwNumber);
    std::string strWhat = ev.m_bCurrent ? "current" : szNumber;
    const std::string strName = ev.m_bCurrent ? "" : KvrsMsgEventName(ev.m_dwNumber);
    if (!strName.empty())
        strWhat += " " + strName;
    return t.m_strIso + "  " + strWhat + "  " + PathText(ev) + "  target " +
           std::to_string(static_cast<unsigned long>(ev.m_uTarget)) + "/" + std::to_string(ev.m_idTarget) + "  " +
           KvrsValueText(ev.m_value, 64);
}

// The text of one % code, or false when the code is unknown.
bool Code(char ch, const KvrsEvent& ev, const Timestamp& t, std::string* pstr)
{
    const std::vector<unsigned char>& ab = ev.m_value.m_ab;
    switch (ch) {
    case 'I': *pstr += t.m_strIso; return true;
    case 'U': *pstr += t.m_strEpoch; return true;
    case 't': *pstr += ev.m_strPath; return true;
    case 'e': *pstr += EventName(ev); return true;
    case 'm': *pstr += ev.m_bCurrent ? std::string() : std::to_string(ev.m_dwNumber); return true;
    case 'p': pstr->append(ab.begin(), ab.end()); return true;
    case 'x': *pstr += KvrsHexText(ab, ab.size()); return true;
    case 'l': *pstr += std::to_string(ab.size()); return true;
    case 'T': *pstr += ev.m_value.m_bPresent ? std::to_string(ev.m_value.m_dwType) : std::string(); return true;
    case 'j': *pstr += JsonLine(ev, t); return true;
    case '%': *pstr += '%'; return true;
    default: return false;
    }
}

std::string Formatted(const std::string& strFormat, const KvrsEvent& ev, const Timestamp& t)
{
    std::string str;
    for (size_t i = 0; i < strFormat.size(); ++i) {
        const char ch = strFormat[i];
        const char chNext = i + 1 < strFormat.size() ? strFormat[i + 1] : '\0';
        if (ch == '%' && Code(chNext, ev, t, &str)) {
            ++i;
        } else if (ch == '\\' && (chNext == 'n' || chNext == 't' || chNext == '\\')) {
            str += chNext == 'n' ? '\n' : chNext == 't' ? '\t' : '\\';
            ++i;
        } else if (ch == '%') {
            KvrsUsageError(std::string("bad --format: unknown code '%") +
                           (chNext == '\0' ? "" : std::string(1, chNext)) + "' (see kvrs listen --help)");
        } else {
            str += ch;
        }
    }
    return str;
}

}  // namespace

KvrsListenFormat::KvrsListenFormat(KvrsListenStyle style, const std::string& strFormat)
    : m_style(style), m_strFormat(strFormat)
{
    if (m_style == KvrsListenStyle::Format)
        Formatted(m_strFormat, KvrsEvent(), Timestamp());  // refuses a bad code before listening
}

std::string KvrsListenFormat::Line(const KvrsEvent& ev) const
{
    const Timestamp t = Now();
    switch (m_style) {
    case KvrsListenStyle::Json: return JsonLine(ev, t) + "\n";
    case KvrsListenStyle::Format: return Formatted(m_strFormat, ev, t) + "\n";
    default: return TextLine(ev, t) + "\n";
    }
}
