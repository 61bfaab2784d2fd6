#include "sim/PtyTransport.h"

#include "sim/Frame.h"
#include "sim/SimulatorShared.h"

#include <QFile>
#include <QFileInfo>
#include <QSocketNotifier>
#include <QTimer>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

namespace gnxsim {

namespace {
constexpr qint64 maxQueuedBytes = 64 * 1024; // beyond this, unsolicited output is dropped
constexpr int maxWrite = 4096;
} // namespace

PtyTransport::PtyTransport(SimulatorShared* shared, const Options& options)
    : m_shared(shared), m_options(options), m_rng(options.seed ^ 0x5eed5eedu), m_pumpTimer(new QTimer(this)),
      m_eventTimer(new QTimer(this)), m_saveTimer(new QTimer(this))
{
    m_inboundTimer = new QTimer(this);
    m_inboundTimer->setSingleShot(true);
    m_inboundTimer->setTimerType(Qt::PreciseTimer);
    connect(m_inboundTimer, &QTimer::timeout, this, &PtyTransport::deliverDue);
    m_pumpTimer->setSingleShot(true);
    m_pumpTimer->setTimerType(Qt::PreciseTimer);
    m_eventTimer->setSingleShot(true);
    m_eventTimer->setTimerType(Qt::PreciseTimer);
    m_saveTimer->setInterval(1000);
    connect(m_pumpTimer, &QTimer::timeout, this, &PtyTransport::pump);
    connect(m_eventTimer, &QTimer::timeout, this, &PtyTransport::kick);
    connect(m_saveTimer, &QTimer::timeout, this, [this] {
        QMutexLocker lock(&m_shared->mutex);
        if (!m_shared->statePath.isEmpty())
            m_shared->save(nullptr);
    });
}

PtyTransport::~PtyTransport()
{
    close();
}

bool PtyTransport::open(QString* error)
{
    if (m_master >= 0)
        return true;
    const QFileInfo link(m_options.linkPath);
    if (!m_options.linkPath.isEmpty() && link.exists() && !link.isSymLink()) {
        if (error)
            *error = QStringLiteral("%1 exists and is not a symbolic link").arg(m_options.linkPath);
        return false;
    }
    auto fail = [&](const char* what) {
        if (error)
            *error =
                QStringLiteral("%1: %2").arg(QLatin1String(what), QString::fromLocal8Bit(strerror(errno)));
        if (m_master >= 0)
            ::close(m_master);
        m_master = -1;
        return false;
    };
    m_master = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (m_master < 0)
        return fail("posix_openpt");
    if (grantpt(m_master) != 0 || unlockpt(m_master) != 0)
        return fail("unlockpt");
    char name[128] = {};
    if (ptsname_r(m_master, name, sizeof name) != 0)
        return fail("ptsname");
    ::fcntl(m_master, F_SETFD, FD_CLOEXEC);
    // Keep one slave descriptor open: the master then never sees a hang-up between two sessions of
    // the program, and the line is raw (no echo of our own answers) before anybody opens it.
    m_slaveKeep = ::open(name, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (m_slaveKeep < 0)
        return fail("open slave");
    termios tio{};
    if (tcgetattr(m_slaveKeep, &tio) == 0) {
        cfmakeraw(&tio);
        cfsetispeed(&tio, B115200);
        cfsetospeed(&tio, B115200);
        tcsetattr(m_slaveKeep, TCSANOW, &tio);
    }
    m_readNotifier = new QSocketNotifier(m_master, QSocketNotifier::Read, this);
    connect(m_readNotifier, &QSocketNotifier::activated, this, &PtyTransport::onReadable);
    m_writeNotifier = new QSocketNotifier(m_master, QSocketNotifier::Write, this);
    m_writeNotifier->setEnabled(false);
    connect(m_writeNotifier, &QSocketNotifier::activated, this, [this] {
        m_writeNotifier->setEnabled(false);
        pump();
    });
    {
        QMutexLocker lock(&m_shared->mutex);
        m_shared->slavePath = QString::fromLocal8Bit(name);
        m_shared->device.takeOutput(); // nobody was listening
    }
    updateLink();
    m_saveTimer->start();
    kick();
    return true;
}

void PtyTransport::close()
{
    m_inboundTimer->stop();
    m_inbound.clear();
    m_inboundLineFreeNs = 0;
    m_pumpTimer->stop();
    m_eventTimer->stop();
    m_saveTimer->stop();
    delete m_readNotifier;
    m_readNotifier = nullptr;
    delete m_writeNotifier;
    m_writeNotifier = nullptr;
    if (m_master >= 0)
        ::close(m_master);
    if (m_slaveKeep >= 0)
        ::close(m_slaveKeep);
    m_master = m_slaveKeep = -1;
    m_queue.clear();
    m_queuedBytes = 0;
    m_blocked = false;
    QString slave;
    {
        QMutexLocker lock(&m_shared->mutex);
        slave = m_shared->slavePath;
        m_shared->slavePath.clear();
    }
    if (!m_options.linkPath.isEmpty() && !slave.isEmpty()) {
        const QFileInfo link(m_options.linkPath);
        if (link.isSymLink() && link.symLinkTarget() == slave)
            QFile::remove(m_options.linkPath);
    }
}

void PtyTransport::updateLink()
{
    if (m_options.linkPath.isEmpty())
        return;
    QString slave;
    {
        QMutexLocker lock(&m_shared->mutex);
        slave = m_shared->slavePath;
    }
    // Replace atomically: a new link under a temporary name, renamed over the old one.
    const QByteArray target = QFile::encodeName(slave);
    const QByteArray path = QFile::encodeName(m_options.linkPath);
    const QByteArray temporary = path + ".tmp" + QByteArray::number(getpid());
    ::unlink(temporary.constData());
    if (::symlink(target.constData(), temporary.constData()) != 0 ||
        ::rename(temporary.constData(), path.constData()) != 0) {
        ::unlink(temporary.constData());
        fprintf(stderr, "gnxsim: cannot link %s to %s: %s\n", path.constData(), target.constData(),
                strerror(errno));
    }
}

void PtyTransport::onReadable()
{
    char buffer[4096];
    QByteArray data;
    for (;;) {
        const ssize_t n = ::read(m_master, buffer, sizeof buffer);
        if (n > 0) {
            data.append(buffer, int(n));
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        break; // EAGAIN, or EIO while no slave is open (cannot happen while we keep one)
    }
    if (data.isEmpty()) {
        kick();
        return;
    }
    if (m_options.baud <= 0) {
        deliver(data);
        return;
    }
    // 8N1: ten bits a byte on a line that carries one byte after the other.
    const qint64 byteNs = 10'000'000'000LL / m_options.baud;
    const qint64 now = m_shared->clock.nsecsElapsed();
    m_inboundLineFreeNs = qMax(now, m_inboundLineFreeNs) + qint64(data.size()) * byteNs;
    m_inbound.append({m_inboundLineFreeNs, data});
    deliverDue();
}

void PtyTransport::deliver(const QByteArray& data)
{
    {
        QMutexLocker lock(&m_shared->mutex);
        m_shared->sync();
        m_shared->device.receive(data);
    }
    kick();
}

void PtyTransport::deliverDue()
{
    const qint64 now = m_shared->clock.nsecsElapsed();
    QByteArray due;
    // Timers count whole milliseconds: what falls due within half of one is delivered now, so the
    // rate stays right on average instead of losing up to a millisecond a line.
    while (!m_inbound.isEmpty() && m_inbound.first().first <= now + 500'000)
        due += m_inbound.takeFirst().second;
    if (!m_inbound.isEmpty())
        m_inboundTimer->start(int(qMax<qint64>(0, (m_inbound.first().first - now + 500'000) / 1'000'000)));
    if (!due.isEmpty())
        deliver(due);
}

void PtyTransport::kick()
{
    QList<Device::OutUnit> units;
    qint64 next = -1;
    {
        QMutexLocker lock(&m_shared->mutex);
        m_shared->sync();
        units = m_shared->device.takeOutput();
        next = m_shared->device.msUntilNextEvent();
    }
    if (m_master >= 0)
        for (const auto& u : units)
            enqueue(u.bytes, u.text, u.answer);
    if (next >= 0)
        m_eventTimer->start(int(qMin<qint64>(next + 1, 3600 * 1000)));
    else
        m_eventTimer->stop();
    pump();
}

void PtyTransport::enqueue(const QByteArray& unit, bool text, quint64 answer)
{
    if (answer != 0) {
        if (answer != m_lastAnswer) {
            m_lastAnswer = answer;
            m_dropAnswer = m_faults.dropReply > 0 && m_rng.generateDouble() < m_faults.dropReply;
        }
        if (m_dropAnswer)
            return;
    } else if (m_blocked || m_queuedBytes > maxQueuedBytes) {
        return; // like the receiver, which does not keep reports nobody reads
    }
    QByteArray bytes = unit;
    if (text && m_faults.corruptChecksum > 0 && m_rng.generateDouble() < m_faults.corruptChecksum) {
        const int star = bytes.lastIndexOf('*');
        if (star >= 0 && star + 3 <= bytes.size()) {
            const quint8 old = quint8(bytes.mid(star + 1, 2).toUInt(nullptr, 16));
            bytes.replace(star + 1, 2, Frame::hex2(quint8(old ^ (1 + m_rng.bounded(255)))));
        }
    }
    QList<QByteArray> pieces;
    if (m_faults.noise > 0 && m_rng.generateDouble() < m_faults.noise) {
        QByteArray garbage(1 + int(m_rng.bounded(8)), '\0');
        for (auto& c : garbage) {
            do
                c = char(m_rng.bounded(256));
            while (c == '$' || c == '\r' || c == '\n');
        }
        pieces << garbage + "\r\n";
    }
    pieces << bytes;

    const qint64 now = m_shared->clock.nsecsElapsed();
    if (m_queue.isEmpty() && m_options.baud > 0) {
        const qint64 byteNs = 10'000'000'000LL / m_options.baud;
        if (now >= m_throttleStartNs + m_throttleSent * byteNs) { // the line has gone idle
            m_throttleStartNs = now;
            m_throttleSent = 0;
        }
    }
    qint64 notBefore =
        qMax(now + qint64(m_faults.delayMs) * 1'000'000, m_queue.isEmpty() ? 0 : m_queue.last().notBeforeNs);
    for (const QByteArray& piece : pieces) {
        if (m_faults.splitBytes > 0) {
            for (int at = 0; at < piece.size(); at += m_faults.splitBytes) {
                m_queue.append({piece.mid(at, m_faults.splitBytes), notBefore});
                notBefore += qint64(qMax(0, m_faults.splitGapMs)) * 1'000'000;
            }
        } else {
            m_queue.append({piece, notBefore});
        }
        m_queuedBytes += piece.size();
    }
}

void PtyTransport::scheduleIn(qint64 ns)
{
    // Nearest millisecond; pump() accepts what falls due within half of one, so the line rate is
    // right on average.
    const int ms = int(qBound(qint64(0), (ns + 500'000) / 1'000'000, qint64(60000)));
    if (!m_pumpTimer->isActive() || m_pumpTimer->remainingTime() > ms)
        m_pumpTimer->start(ms);
}

void PtyTransport::pump()
{
    while (!m_queue.isEmpty() && m_master >= 0) {
        Pending& p = m_queue.first();
        const qint64 now = m_shared->clock.nsecsElapsed();
        if (p.notBeforeNs > now + 500'000) {
            scheduleIn(p.notBeforeNs - now);
            return;
        }
        qint64 allowed = p.bytes.size();
        if (m_options.baud > 0) {
            const qint64 byteNs = 10'000'000'000LL / m_options.baud;
            const qint64 credit = (now + 500'000 - m_throttleStartNs) / byteNs - m_throttleSent;
            // Write in batches of about 5 ms of line time rather than byte by byte.
            const qint64 want = qMin<qint64>(p.bytes.size(), qMax(1, m_options.baud / 10 / 200));
            if (credit < want) {
                scheduleIn(m_throttleStartNs + (m_throttleSent + want) * byteNs - now);
                return;
            }
            allowed = qMin(allowed, credit);
        }
        const ssize_t n = ::write(m_master, p.bytes.constData(), size_t(qMin<qint64>(allowed, maxWrite)));
        if (n < 0) {
            if (errno == EINTR)
                continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                m_blocked = true;
                if (m_writeNotifier)
                    m_writeNotifier->setEnabled(true);
            } else {
                m_queue.clear();
                m_queuedBytes = 0;
            }
            return;
        }
        m_blocked = false;
        m_throttleSent += n;
        m_queuedBytes -= n;
        p.bytes.remove(0, int(n));
        if (p.bytes.isEmpty())
            m_queue.removeFirst();
    }
}

} // namespace gnxsim
