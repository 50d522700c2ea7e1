// KvFile.h - the few file calls of the debug file: open, write, position, sync.
#pragma once

#include <cstddef>
#include <cstdint>

// Opens the file for reading and writing, creating it (mode 0600) when missing,
// without truncating it and without append mode. Returns the descriptor or -1.
int KvFileOpenReadWrite(const char* pszPath);
// Writes all bytes unless an error stops it; returns how many were written.
size_t KvFileWriteAll(int fd, const char* pch, size_t cch);
// The current position, or -1.
int64_t KvFileTell(int fd);
void KvFileRewind(int fd);
// Commits the file to disk: 0, or -1.
int KvFileSync(int fd);
void KvFileClose(int fd);
