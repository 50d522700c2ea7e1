// KvrsBridgeTopic.cpp - escaping of node names into topic levels.
#include "KvrsBridgeTopic.h"

namespace {

const char kszHex[] = "0123456789ABCDEF";

bool IsPlain(unsigned char b)
{
    return b >= 0x21 && b <= 0x7e && b != '%' && b != '/' && b != '+' && b != '#';
}

int HexDigit(char ch)
{
    if (ch >= '0' && ch <= '9')
        return ch - '0';
    if (ch >= 'A' && ch <= 'F')
        return ch - 'A' + 10;
    if (ch >= 'a' && ch <= 'f')
        return ch - 'a' + 10;
    return -1;
}

}  // namespace

std::string KvrsBridgeEscapeName(const std::string& strName)
{
    if (strName.empty())
        return "%";
    std::string str;
    str.reserve(strName.size());
    for (char ch : strName) {
        const auto b = static_cast<unsigned char>(ch);
        if (IsPlain(b)) {
            str += ch;
        } else {
            str += '%';
            str += kszHex[b >> 4];
            str += kszHex[b & 0xf];
        }
    }
    return str;
}

bool KvrsBridgeUnescapeLevel(const std::string& strLevel, std::string& strName)
{
    strName.clear();
    if (strLevel == "%")
        return true;
    // An empty level ("a//b") would be the empty name, but has its own spelling;
    // refusing it keeps one topic per node.
    if (strLevel.empty())
        return false;
    for (size_t i = 0; i < strLevel.size(); ++i) {
        const char ch = strLevel[i];
        if (ch == '\0' || ch == '+' || ch == '#')
            return false;
        if (ch != '%') {
            strName += ch;
            continue;
        }
        if (i + 2 >= strLevel.size())
            return false;
        const int iHigh = HexDigit(strLevel[i + 1]), iLow = HexDigit(strLevel[i + 2]);
        if (iHigh < 0 || iLow < 0 || (iHigh == 0 && iLow == 0))
            return false;
        strName += static_cast<char>(iHigh * 16 + iLow);
        i += 2;
    }
    return true;
}

std::string KvrsBridgeKeyOf(const std::vector<std::string>& vstrNames)
{
    std::string strKey;
    for (const std::string& strName : vstrNames) {
        if (!strKey.empty())  // an escaped name is never empty
            strKey += '/';
        strKey += KvrsBridgeEscapeName(strName);
    }
    return strKey;
}

bool KvrsBridgeNamesOf(const std::string& strKey, std::vector<std::string>& vstrNames)
{
    vstrNames.clear();
    if (strKey.empty())
        return true;
    size_t iStart = 0;
    for (;;) {
        const size_t iSlash = strKey.find('/', iStart);
        const size_t iEnd = iSlash == std::string::npos ? strKey.size() : iSlash;
        std::string strName;
        if (!KvrsBridgeUnescapeLevel(strKey.substr(iStart, iEnd - iStart), strName))
            return false;
        vstrNames.push_back(strName);
        if (iSlash == std::string::npos)
            return true;
        iStart = iSlash + 1;
    }
}

bool KvrsBridgeKeyOfTopic(const std::string& strRoot, const std::string& strTopic, std::string& strKey)
{
    if (strTopic == strRoot) {
        strKey.clear();
        return true;
    }
    if (strTopic.size() <= strRoot.size() + 1 || strTopic.compare(0, strRoot.size(), strRoot) != 0 ||
        strTopic[strRoot.size()] != '/')
        return false;
    strKey = strTopic.substr(strRoot.size() + 1);
    return true;
}

bool KvrsBridgeKeyWithin(const std::string& strKey, const std::string& strPrefix)
{
    if (strPrefix.empty())
        return true;
    return strKey.compare(0, strPrefix.size(), strPrefix) == 0 &&
           (strKey.size() == strPrefix.size() || strKey[strPrefix.size()] == '/');
}
