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

// A port on 127.0.0.1 bound but not listening, for as long as this lives: a connection there is
// refused, and no other server (of a test running beside) can take it meanwhile.
class RefusingPort
{
public:
    RefusingPort() : socket_(::socket(AF_INET, SOCK_STREAM, 0))
    {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof a;
        ::bind(socket_, reinterpret_cast<sockaddr*>(&a), sizeof a);
        ::getsockname(socket_, reinterpret_cast<sockaddr*>(&a), &length);
        port_ = ntohs(a.sin_port);
    }
    ~RefusingPort() { ::close(socket_); }
    RefusingPort(const RefusingPort&) = delete;
    RefusingPort& operator=(const RefusingPort&) = delete;
    int port() const { return port_; }

private:
    int socket_;
    int port_ = 0;
};

} // namespace TestSupport
