// KvrsOptions.cpp - what every subcommand shares on its command line: the
// namespace option, the check that a change will outlive the command, and the
// parser's errors retold as one short line of our own.
#include "KvrsOptions.h"

#include <cstdlib>
#include <cstring>
#include <sstream>
#include <vector>

#include "KvCppMfc/Platform/KvPlatform.h"
#include "KvCppMfc/Pool/KvGranularity.h"
#include "KvrsCommon.h"

namespace {

// The argument that follows a namespace option, or that the option carries
// ("-nNS", "--namespace=NS"); null when argv[i] is no namespace option.
const char* NamespaceArgument(int argc, char** argv, int* pi)
{
    const char* psz = argv[*pi];
    if (strcmp(psz, "-n") == 0 || strcmp(psz, "--namespace") == 0)
        return *pi + 1 < argc ? argv[++*pi] : nullptr;
    if (strncmp(psz, "--namespace=", 12) == 0)
        return psz + 12;
    if (strncmp(psz, "-n", 2) == 0 && psz[2] != '\0')
        return psz + 2;
    return nullptr;
}

// Text after the first `pszMarker` in str, or "" when it is not there.
std::string After(const std::string& str, const char* pszMarker)
{
    const size_t i = str.find(pszMarker);
    return i == std::string::npos ? std::string() : str.substr(i + strlen(pszMarker));
}

std::vector<std::string> Words(const std::string& str)
{
    std::vector<std::string> vstr;
    std::istringstream in(str);
    for (std::string strWord; in >> strWord;)
        vstr.push_back(strWord);
    return vstr;
}

bool StartsWith(const std::string& str, const char* psz)
{
    return str.rfind(psz, 0) == 0;
}

}  // namespace

const char* KvrsNamespaceFromArguments(int argc, char** argv)
{
    const char* pszFound = nullptr;
    for (int i = 1; i < argc && argv[i] != nullptr; ++i) {
        if (strcmp(argv[i], "--") == 0)
            break;
        const char* psz = NamespaceArgument(argc, argv, &i);
        if (psz != nullptr)
            pszFound = psz;  // the last one wins, as with any repeated option
    }
    return pszFound;
}

bool KvrsIsNamespaceName(const std::string& str)
{
    if (str.empty() || str.size() > 64 || str[0] == '.')
        return false;
    return str.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-") ==
           std::string::npos;
}

void KvrsCheckNamespaceOption(const std::string& strGiven)
{
    if (!KvrsIsNamespaceName(strGiven))
        KvrsUsageError("bad namespace '" + KvrsShown(strGiven) +
                       "': use 1 to 64 letters, digits, '.', '_' or '-', not starting with '.'");
    // The tree was attached before the arguments were parsed, from the
    // namespace that the start-up read off the command line.
    if (strGiven != KvNamespace())
        KvrsUsageError("the namespace is chosen once per kvrs process (this one works on '" + KvNamespace() + "')");
}

void KvrsAddNamespaceOption(CLI::App* pApp, std::string* pstr)
{
    pApp->add_option("-n,--namespace", *pstr, "Work on the tree of namespace NS (default: $KVRFRSVR_NAMESPACE)")
        ->type_name("NS")
        ->each([](const std::string& str) { KvrsCheckNamespaceOption(str); });
}

void KvrsAddVanishOption(CLI::App* pApp, bool* pb)
{
    pApp->add_flag("--allow-vanish", *pb,
                   "Change the tree even when no other process keeps it: the change ends with this command");
}

void KvrsCheckKept(bool bAllowVanish)
{
    if (bAllowVanish)
        return;
    // This process is one attachment; a change outlives it only when another
    // process (kvrs serve, a listener, an application) has the segment mapped.
    if (KvGranularity::_QueryCountAllocSharedMem() > 1)
        return;
    throw KvrsError(KVRS_EXIT_FAILED, "no process keeps the tree of namespace '" + KvNamespace() +
                                          "' alive, so the change would vanish with this command: start `kvrs "
                                          "serve` first (or give --allow-vanish)");
}

std::string KvrsParseErrorText(const CLI::ParseError& e)
{
    // The error's class tells the kind; its name field may hold the app's name.
    std::string str = e.what();
    for (char& ch : str)
        if (ch == '\n')
            ch = ' ';
    if (dynamic_cast<const CLI::RequiredError*>(&e) != nullptr) {
        if (StartsWith(str, "A subcommand"))
            return "missing command";
        const size_t i = str.find(" is required");
        return "missing " + (i == std::string::npos ? KvrsShown(str) : str.substr(0, i));
    }
    if (dynamic_cast<const CLI::ExtrasError*>(&e) != nullptr) {
        // CLI11 lists what is left over last word first.
        std::string strArgs;
        for (const std::string& strWord : Words(After(str, "expected: ")))
            strArgs = strWord + (strArgs.empty() ? "" : " ") + strArgs;
        return (StartsWith(strArgs, "-") ? "unknown option " : "unexpected argument ") +
               KvrsShown(strArgs.empty() ? str : strArgs);
    }
    if (dynamic_cast<const CLI::ArgumentMismatch*>(&e) != nullptr) {
        const size_t i = str.find(':');
        return (i == std::string::npos ? std::string("an option") : str.substr(0, i)) + " needs a value";
    }
    if (dynamic_cast<const CLI::ConversionError*>(&e) != nullptr) {
        const std::string strWhat = After(str, "convert: ");
        const size_t i = strWhat.find(" = ");
        if (i != std::string::npos)
            return "bad value '" + KvrsShown(strWhat.substr(i + 3)) + "' for " + strWhat.substr(0, i);
        return "bad value: " + KvrsShown(str);
    }
    if (dynamic_cast<const CLI::ExcludesError*>(&e) != nullptr ||
        dynamic_cast<const CLI::RequiresError*>(&e) != nullptr)
        return str;  // "--hex excludes --raw": already our words
    if (StartsWith(str, "unknown"))
        return str;
    return "bad arguments: " + KvrsShown(str);
}
