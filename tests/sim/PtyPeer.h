#pragma once
// The program's end of the pseudo-terminal, for tests: raw, blocking writes, reads waited with poll().

#include <QByteArray>
#include <QElapsedTimer>
#include <QFile>

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

class PtyPeer
{
public:
    explicit PtyPeer(const QString& path)
        : m_fd(::open(QFile::encodeName(path).constData(), O_RDWR | O_NOCTTY | O_CLOEXEC))
    {
        termios t{};
        if (tcgetattr(m_fd, &t) == 0) {
            cfmakeraw(&t);
            tcsetattr(m_fd, TCSANOW, &t);
            tcflush(m_fd, TCIOFLUSH);
        }
    }
    ~PtyPeer() { ::close(m_fd); }
    PtyPeer(const PtyPeer&) = delete;
    PtyPeer& operator=(const PtyPeer&) = delete;

    bool send(const QByteArray& b) { return ::write(m_fd, b.constData(), b.size()) == b.size(); }

    // Reads what is there, waiting up to timeoutMs for something. Returns false once the other side is
    // gone (end of file or an I/O error).
    bool readSome(int timeoutMs)
    {
        pollfd p{m_fd, POLLIN, 0};
        if (::poll(&p, 1, timeoutMs) > 0) {
            char buffer[65536];
            const ssize_t n = ::read(m_fd, buffer, sizeof buffer);
            if (n <= 0)
                return false;
            m_buffer.append(buffer, int(n));
        }
        return true;
    }

    // The next complete line, CR LF included; empty after timeoutMs or when the other side is gone.
    QByteArray line(int timeoutMs = 10000)
    {
        QElapsedTimer timer;
        timer.start();
        while (!m_buffer.contains("\r\n"))
            if (timer.hasExpired(timeoutMs) || !readSome(int(timeoutMs - timer.elapsed())))
                return {};
        const QByteArray l = m_buffer.left(m_buffer.indexOf("\r\n") + 2);
        m_buffer.remove(0, l.size());
        return l;
    }

    QByteArray& buffer() { return m_buffer; }

private:
    int m_fd = -1;
    QByteArray m_buffer;
};
