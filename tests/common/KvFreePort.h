// KvFreePort.h - a loopback TCP port for a private broker, shared by the
// bridge's tests and its benchmark.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

// A port the kernel had free a moment ago (0 when none could be had); the
// broker may still lose it to another process, so callers try again.
inline int KvFreePort()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t cb = sizeof addr;
    int iPort = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &cb) == 0)
        iPort = ntohs(addr.sin_port);
    close(fd);
    return iPort;
}
