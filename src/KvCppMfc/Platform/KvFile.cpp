// KvFile.cpp - see KvFile.h.
#include "KvFile.h"

#include <fcntl.h>
#include <unistd.h>

int KvFileOpenReadWrite(const char* pszPath)
{
    return open(pszPath, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
}

size_t KvFileWriteAll(int fd, const char* pch, size_t cch)
{
    size_t cDone = 0;
    while (cDone < cch) {
        const ssize_t c = write(fd, pch + cDone, cch - cDone);
        if (c <= 0)
            break;
        cDone += static_cast<size_t>(c);
    }
    return cDone;
}

int64_t KvFileTell(int fd)
{
    return static_cast<int64_t>(lseek(fd, 0, SEEK_CUR));
}

void KvFileRewind(int fd)
{
    lseek(fd, 0, SEEK_SET);
}

int KvFileSync(int fd)
{
    return fsync(fd);
}

void KvFileClose(int fd)
{
    close(fd);
}
