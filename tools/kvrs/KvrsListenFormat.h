// KvrsListenFormat.h - how `kvrs listen` prints what it hears: a line of text,
// a JSON object, or the user's --format (codes like mosquitto_sub -F).
#pragma once

#include <cstdint>
#include <string>

#include "KvrsCommon.h"

// One thing heard: a message, or the value a node held when listening began.
struct KvrsEvent {
    bool m_bCurrent = false;  // the present value, printed before any change
    uint32_t m_dwNumber = 0;  // message number (not for current values)
    bool m_bNode = false;     // the message names a node
    std::string m_strPath;    // its full path ("" for the root)
    uintptr_t m_uTarget = 0;
    unsigned long m_idTarget = 0;
    KvrsValue m_value;
};

enum class KvrsListenStyle { Text, Json, Format };

class KvrsListenFormat {
public:
    // strFormat is used with KvrsListenStyle::Format; a bad code is a usage error.
    KvrsListenFormat(KvrsListenStyle style, const std::string& strFormat);
    // The line for ev, newline included; the time is taken now.
    std::string Line(const KvrsEvent& ev) const;

private:
    KvrsListenStyle m_style;
    std::string m_strFormat;
};

// Help text for --format.
extern const char* const kpszKvrsFormatHelp;
