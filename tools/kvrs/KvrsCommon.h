// KvrsCommon.h - what every kvrs subcommand shares: exit statuses, the error
// that carries one, parsing of numbers, paths and hex text, node lookup, full
// paths, printing of type words and values, JSON text and the stop signals.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "KvRfrSvr.h"

// Exit statuses of every subcommand.
enum KvrsExit : int {
    KVRS_EXIT_OK = 0,
    KVRS_EXIT_FAILED = 1,   // a node was not found, or the tree refused the change
    KVRS_EXIT_USAGE = 2,    // bad arguments: path, number, hex text, value size
    KVRS_EXIT_TIMEOUT = 3,  // listen: the time ran out before --count messages came
};

// Message numbers with which kvrs announces the changes it makes. 0x4, 0x8 and
// 0xC carry structural bits, so parties connected for all structural changes
// hear them too; none has 0x2, which would pass on through reference nodes.
constexpr uint32_t KVRS_MSG_VALUE = 0x1;    // set: the node's value changed
constexpr uint32_t KVRS_MSG_CREATED = 0x4;  // the node was created
constexpr uint32_t KVRS_MSG_REMOVED = 0x8;  // the node was removed from the tree
constexpr uint32_t KVRS_MSG_CHANGED = 0xC;  // the node's reference or type word changed
// The root's clients are told of a structural change with the root as the
// changed node, so kvrs's structural announcements carry a value of this type
// whose bytes are the full path of the node concerned.
constexpr uint32_t KVRS_VALUE_TYPE_PATH = 0x6b767273;  // "kvrs"
// "created", "removed", "changed" for those numbers, else "".
const char* KvrsMsgEventName(uint32_t dwNumber);

// Thrown by a subcommand; main prints "kvrs: <text>" on standard error and exits
// with the status.
class KvrsError : public std::runtime_error {
public:
    KvrsError(int iStatus, const std::string& strText) : std::runtime_error(strText), m_iStatus(iStatus) {}
    int Status() const { return m_iStatus; }

private:
    int m_iStatus;
};

[[noreturn]] void KvrsUsageError(const std::string& strText);
[[noreturn]] void KvrsNotFound(const std::string& strPath);
// Text from the user as an error message shows it: at most 32 characters,
// control characters as '?', so that the message stays one short line.
std::string KvrsShown(const std::string& str);

// --- arguments ---------------------------------------------------------------

// An unsigned 32-bit number, decimal or 0x-hex; pszWhat names it in the message.
uint32_t KvrsParseNumber(const std::string& str, const char* pszWhat);
// A whole number from lMin to lMax (decimal), or a usage error naming pszWhat.
long KvrsParseCount(const std::string& str, const char* pszWhat, long lMin, long lMax);
// Seconds as a non-negative decimal number ("0.3"), at most dMax.
double KvrsParseSeconds(const std::string& str, const char* pszWhat, double dMax);
// Hex text ("48656c6c6f", whitespace and colons allowed between bytes) into bytes.
std::vector<unsigned char> KvrsParseHex(const std::string& str);
// Checks a dotted path: no empty name, shorter than the library's path limit.
// The empty path names the root and is accepted only when fRootOk.
void KvrsCheckPath(const std::string& strPath, bool fRootOk);
// Largest value the segment's pools can hold in one block.
uint32_t KvrsMaxValueBytes();
// Throws a usage error when a value of cb bytes cannot be stored.
void KvrsCheckValueSize(size_t cb);

// --- nodes -------------------------------------------------------------------

// Root node of the tree ("" names it); never creates anything but the root.
KvRsNodeProxy KvrsRoot();
// The node at strPath (the root for ""), or a KvrsNotFound error.
KvRsNodeProxy KvrsFindNode(const std::string& strPath);
// Full dotted path of a node, found by walking parents and names ("" for the root).
std::string KvrsNodePath(const KvRsNodeProxy& node);
std::string KvrsNodeName(const KvRsNodeProxy& node);
// Names of the library's flags set in a type word ("value", "ref", "parent",
// "const"), and the same joined with ",".
std::vector<std::string> KvrsTypeFlagList(uint32_t dwType);
std::string KvrsTypeFlags(uint32_t dwType);
std::string KvrsHex32(uint32_t dw);

// A value as read through the API.
struct KvrsValue {
    bool m_bPresent = false;
    uint32_t m_dwType = 0;
    std::vector<unsigned char> m_ab;
};
KvrsValue KvrsReadValue(const KvRsValueProxy& value);
// New value with the given type and bytes (the size is checked beforehand).
KvRsValueProxy KvrsMakeValue(uint32_t dwType, const std::vector<unsigned char>& ab);
bool KvrsIsPrintable(const std::vector<unsigned char>& ab);
std::string KvrsHexText(const std::vector<unsigned char>& ab, size_t cbMax);
// Human form: `type 1, 4 bytes "21.5"` or `type 7, 3 bytes 0a0b0c`, shortened to
// about cchMax characters of content. Text is quoted with \" and \\ escaped, so
// that text and hex never read alike.
std::string KvrsValueText(const KvrsValue& v, size_t cchMax);
// JSON object {"type":..,"bytes":..,"text"|"hex":..} or null.
std::string KvrsValueJson(const KvrsValue& v);

// Holds the global mutex for a scope, so that a command's reads, change and
// announcements are one step for every other process.
class KvrsMutexHold {
public:
    KvrsMutexHold() { KvRsRequestMutex(); }
    ~KvrsMutexHold() { KvRsReleaseMutex(); }
    KvrsMutexHold(const KvrsMutexHold&) = delete;
    KvrsMutexHold& operator=(const KvrsMutexHold&) = delete;
};

// --- JSON ----------------------------------------------------------------------
std::string KvrsJsonString(const std::string& str);

// --- stop signals ----------------------------------------------------------------

// Installs SIGINT/SIGTERM handlers that only raise a flag, so that loops end and
// disconnect cleanly.
void KvrsInstallStopHandlers();
bool KvrsStopRequested();
// Forgets a stop request: `kvrs -` runs the next command after a listen that
// Ctrl-C ended.
void KvrsClearStopRequest();
// Monotonic time in microseconds (the same clock in every process of the machine).
int64_t KvrsNowMicros();
void KvrsSleepMicros(int64_t cus);
// "hh:mm:ss.uuuuuu" local wall-clock time for message lines.
std::string KvrsClockText();
