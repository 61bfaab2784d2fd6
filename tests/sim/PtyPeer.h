#pragma once
// The program's end of the pseudo-terminal, for tests: raw, non-blocking, waits with poll().

#include <QByteArray>
#include <QElapsedTimer>
#include <QFile>
#include <QString>

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

class PtyPeer
{
public:
    explicit PtyPeer(const QString& path)
    {
        m_fd = ::open(QFile::encodeName(path).constData(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
        if (m_fd >= 0) {
            termios t{};
            tcgetattr(m_fd, &t);
            cfmakeraw(&t);
            tcsetattr(m_fd, TCSANOW, &t);
            tcflush(m_fd, TCIOFLUSH);
        }
    }
    ~PtyPeer()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    PtyPeer(const PtyPeer&) = delete;
    PtyPeer& operator=(const PtyPeer&) = delete;

    bool isOpen() const { return m_fd >= 0; }

    bool send(const QByteArray& bytes)
    {
        qint64 done = 0;
        while (done < bytes.size()) {
            const ssize_t n = ::write(m_fd, bytes.constData() + done, size_t(bytes.size() - done));
            if (n > 0)
                done += n;
            else if (n < 0 && errno != EAGAIN && errno != EINTR)
                return false;
            else
                waitFor(POLLOUT, 1000);
        }
        return true;
    }

    // Reads what is there, waiting up to timeoutMs for something. Returns false on hang-up.
    bool readSome(int timeoutMs)
    {
        if (!waitFor(POLLIN, timeoutMs))
            return !m_hungUp;
        char buffer[65536];
        const ssize_t n = ::read(m_fd, buffer, sizeof buffer);
        if (n > 0) {
            m_buffer.append(buffer, int(n));
            ++m_reads;
            return true;
        }
        if (n == 0 || (n < 0 && errno == EIO))
            m_hungUp = true;
        return !m_hungUp;
    }

    // The next complete line, CR LF included; empty after timeoutMs.
    QByteArray line(int timeoutMs = 10000)
    {
        QElapsedTimer timer;
        timer.start();
        for (;;) {
            const int end = m_buffer.indexOf("\r\n");
            if (end >= 0) {
                const QByteArray l = m_buffer.left(end + 2);
                m_buffer.remove(0, end + 2);
                return l;
            }
            const qint64 left = timeoutMs - timer.elapsed();
            if (left <= 0 || !readSome(int(left)))
                return {};
        }
    }

    // Exactly n bytes, or fewer after timeoutMs.
    QByteArray bytes(int n, int timeoutMs = 10000)
    {
        QElapsedTimer timer;
        timer.start();
        while (m_buffer.size() < n) {
            const qint64 left = timeoutMs - timer.elapsed();
            if (left <= 0 || !readSome(int(left)))
                break;
        }
        const QByteArray out = m_buffer.left(n);
        m_buffer.remove(0, out.size());
        return out;
    }

    // True once the other side is gone (reads report end of file or an I/O error).
    bool waitHangUp(int timeoutMs = 10000)
    {
        QElapsedTimer timer;
        timer.start();
        while (!m_hungUp && timer.elapsed() < timeoutMs)
            readSome(int(timeoutMs - timer.elapsed()));
        return m_hungUp;
    }

    int reads() const { return m_reads; }
    QByteArray& buffer() { return m_buffer; }

private:
    bool waitFor(short events, int timeoutMs)
    {
        pollfd p{m_fd, events, 0};
        const int r = ::poll(&p, 1, timeoutMs);
        if (r > 0 && (p.revents & (POLLHUP | POLLERR)) && !(p.revents & POLLIN))
            m_hungUp = true;
        return r > 0 && (p.revents & events);
    }

    int m_fd = -1;
    QByteArray m_buffer;
    bool m_hungUp = false;
    int m_reads = 0;
};
