// KvrsValueText.cpp - see KvrsValueText.h.
#include "KvrsValueText.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "KvrsAnnounce.h"

namespace {

std::vector<unsigned char> ReadAll(FILE* pf, const std::string& strWhat)
{
    std::vector<unsigned char> ab;
    unsigned char abBuf[65536];
    size_t cb;
    while ((cb = fread(abBuf, 1, sizeof(abBuf), pf)) > 0) {
        ab.insert(ab.end(), abBuf, abBuf + cb);
        KvrsCheckValueSize(ab.size());  // stop reading early on an oversized input
    }
    if (ferror(pf))
        throw KvrsError(KVRS_EXIT_FAILED, "cannot read " + strWhat + ": " + strerror(errno));
    return ab;
}

std::vector<unsigned char> ReadFile(const std::string& strFile)
{
    FILE* pf = fopen(strFile.c_str(), "rb");
    if (pf == nullptr)
        throw KvrsError(KVRS_EXIT_FAILED, "cannot open '" + KvrsShown(strFile) + "': " + strerror(errno));
    try {
        std::vector<unsigned char> ab = ReadAll(pf, "'" + KvrsShown(strFile) + "'");
        fclose(pf);
        return ab;
    } catch (...) {
        fclose(pf);
        throw;
    }
}

// Why a node holds no value, for the error line.
std::string NoValueReason(const KvRsNodeProxy& node)
{
    const uint32_t dwType = KvrsNodeType(node);
    if (dwType & KVRS_TYPE_REF)
        return "a reference without target";
    const long cChildren = KvRsGetChildNodeCount(node.GetHandle(), node.GetId());
    if (cChildren > 0)
        return "a parent node with " + std::to_string(cChildren) + (cChildren == 1 ? " child" : " children");
    return "an empty node";
}

}  // namespace

std::vector<unsigned char> KvrsReadValueSource(const KvrsValueSource& src)
{
    std::vector<unsigned char> ab;
    if (!src.m_strFile.empty()) {
        ab = ReadFile(src.m_strFile);
    } else if (src.m_strValue == "-") {
        ab = ReadAll(stdin, "standard input");
        // `echo 21.5 | kvrs set t -` means the text 21.5: drop the line end.
        if (!src.m_bKeepNewline && !ab.empty() && ab.back() == '\n')
            ab.pop_back();
    } else {
        ab.assign(src.m_strValue.begin(), src.m_strValue.end());
    }
    if (src.m_bHex)
        ab = KvrsParseHex(std::string(ab.begin(), ab.end()));
    return ab;
}

void KvrsPrintNodeValue(const std::string& strPath, const KvRsNodeProxy& node, KvrsGetMode mode)
{
    const uint32_t dwType = KvrsNodeType(node);
    const KvrsValue v = KvrsReadValue(KvRsGetNodeValue(node.GetHandle(), node.GetId()));
    if (mode == KvrsGetMode::Json) {
        printf("{\"path\":%s,\"type\":%u,\"value\":%s}\n", KvrsJsonString(strPath).c_str(), dwType,
               KvrsValueJson(v).c_str());
        return;
    }
    if (!v.m_bPresent)
        throw KvrsError(KVRS_EXIT_FAILED, "'" + strPath + "' holds no value (" + NoValueReason(node) + ")");
    switch (mode) {
    case KvrsGetMode::Raw: fwrite(v.m_ab.data(), 1, v.m_ab.size(), stdout); break;
    case KvrsGetMode::Hex: printf("%s\n", KvrsHexText(v.m_ab, v.m_ab.size()).c_str()); break;
    case KvrsGetMode::Text:
        if (!KvrsIsPrintable(v.m_ab))
            throw KvrsError(KVRS_EXIT_FAILED, "'" + strPath + "' holds " + std::to_string(v.m_ab.size()) +
                                                  " bytes that are not text: use --hex or --raw");
        printf("%s\n", std::string(v.m_ab.begin(), v.m_ab.end()).c_str());
        break;
    default: printf("%s\n", KvrsValueText(v, v.m_ab.size() * 2 + 2).c_str()); break;
    }
}
