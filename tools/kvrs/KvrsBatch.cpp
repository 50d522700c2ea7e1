// KvrsBatch.cpp - `kvrs -`: many commands in one process, one per line of
// standard input. On a terminal it prompts and goes on after a failed command;
// from a file or pipe it stops at the first failure and exits with its status,
// so that a script of changes is applied up to the first one that went wrong.
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "KvrsCommands.h"
#include "KvrsCommon.h"

namespace {

// Splits a line into words the way a shell does for the simple cases:
// blanks separate, '...' is literal, "..." and a backslash escape, '#' at the
// start of a word begins a comment.
std::vector<std::string> SplitWords(const std::string& strLine)
{
    std::vector<std::string> vstr;
    std::string strWord;
    bool bInWord = false;
    for (size_t i = 0; i < strLine.size(); ++i) {
        const char ch = strLine[i];
        if (ch == ' ' || ch == '\t' || ch == '\r') {
            if (bInWord)
                vstr.push_back(strWord);
            strWord.clear();
            bInWord = false;
        } else if (ch == '#' && !bInWord) {
            break;
        } else if (ch == '\'') {
            const size_t iEnd = strLine.find('\'', i + 1);
            if (iEnd == std::string::npos)
                KvrsUsageError("unterminated ' quote");
            strWord += strLine.substr(i + 1, iEnd - i - 1);
            i = iEnd;
            bInWord = true;
        } else if (ch == '"') {
            for (++i; i < strLine.size() && strLine[i] != '"'; ++i) {
                if (strLine[i] == '\\' && i + 1 < strLine.size())
                    ++i;
                strWord += strLine[i];
            }
            if (i >= strLine.size())
                KvrsUsageError("unterminated \" quote");
            bInWord = true;
        } else if (ch == '\\' && i + 1 < strLine.size()) {
            strWord += strLine[++i];
            bInWord = true;
        } else {
            strWord += ch;
            bInWord = true;
        }
    }
    if (bInWord)
        vstr.push_back(strWord);
    return vstr;
}

bool ReadLine(std::string* pstr)
{
    pstr->clear();
    int ch;
    while ((ch = getchar()) != EOF && ch != '\n')
        *pstr += static_cast<char>(ch);
    return ch != EOF || !pstr->empty();
}

// Runs one line; returns its exit status.
int RunLine(const std::string& strLine, size_t iLine, bool bInteractive)
{
    std::vector<std::string> vstrWords;
    try {
        vstrWords = SplitWords(strLine);
    } catch (const KvrsError& e) {
        fprintf(stderr, "kvrs: line %zu: %s\n", iLine, e.what());
        return e.Status();
    }
    if (vstrWords.empty())
        return KVRS_EXIT_OK;
    if (vstrWords[0] == "-") {
        fprintf(stderr, "kvrs: line %zu: '-' is already reading commands\n", iLine);
        return KVRS_EXIT_USAGE;
    }
    // From a file the line number finds the command that failed.
    return KvrsRunCommand(vstrWords, bInteractive ? std::string() : "line " + std::to_string(iLine) + ": ");
}

}  // namespace

int KvrsRunBatch()
{
    const bool bInteractive = isatty(STDIN_FILENO) != 0;
    if (bInteractive)
        printf("kvrs: one command per line (without \"kvrs\"), \"help\" lists them, Ctrl-D ends\n");
    std::string strLine;
    size_t iLine = 0;
    for (;;) {
        if (bInteractive) {
            printf("kvrs> ");
            fflush(stdout);
        }
        if (!ReadLine(&strLine))
            break;
        ++iLine;
        if (strLine == "quit" || strLine == "exit")
            break;
        const int iStatus = strLine == "help" ? KvrsRunCommand({"--help"}) : RunLine(strLine, iLine, bInteractive);
        KvrsClearStopRequest();
        if (iStatus != KVRS_EXIT_OK && !bInteractive)
            return iStatus;
    }
    if (bInteractive)
        printf("\n");
    return KVRS_EXIT_OK;
}
