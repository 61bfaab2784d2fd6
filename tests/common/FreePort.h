#pragma once
// A port on 127.0.0.1 that nothing listens on, for a server a test starts.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace TestSupport {

inline int freePort()
{
    const int s = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof a;
    ::bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
    ::getsockname(s, reinterpret_cast<sockaddr*>(&a), &length);
    ::close(s);
    return ntohs(a.sin_port);
}

} // namespace TestSupport
