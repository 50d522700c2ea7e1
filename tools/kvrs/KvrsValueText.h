// KvrsValueText.h - a value's bytes from the command line, standard input or
// a file, and a node's value printed for `kvrs get`.
#pragma once

#include <string>
#include <vector>

#include "KvRfrSvr.h"
#include "KvrsCommon.h"

// Where `set` takes its bytes from.
struct KvrsValueSource {
    std::string m_strValue;       // VALUE; "-" reads standard input
    std::string m_strFile;        // --file F, taken as it is
    bool m_bHex = false;          // the input is hex text; whitespace is ignored
    bool m_bKeepNewline = false;  // keep the newline that ends standard input
};
std::vector<unsigned char> KvrsReadValueSource(const KvrsValueSource& src);

enum class KvrsGetMode { Described, Text, Hex, Raw, Json };
// Prints what `get` shows of the node at strPath in the given mode. A node
// without a value is an error (status 1) in every mode but JSON, where the
// value is null.
void KvrsPrintNodeValue(const std::string& strPath, const KvRsNodeProxy& node, KvrsGetMode mode);
