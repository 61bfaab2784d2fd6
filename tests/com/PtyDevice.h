#pragma once

// The far end of a pseudo-terminal, played by a test: the link opens slavePath() as its serial
// port; the test reads the frames the link writes and writes the device's answers.

#include <QByteArray>
#include <QCoreApplication>
#include <QList>
#include <QObject>
#include <QSocketNotifier>
#include <QString>

#include <fcntl.h>
#include <functional>
#include <stdlib.h>
#include <unistd.h>

class PtyDevice : public QObject
{
    Q_OBJECT

public:
    PtyDevice()
    {
        master_ = ::posix_openpt(O_RDWR | O_NOCTTY);
        if (master_ < 0 || ::grantpt(master_) != 0 || ::unlockpt(master_) != 0)
            return;
        slavePath_ = QString::fromLocal8Bit(::ptsname(master_));
        ::fcntl(master_, F_SETFL, ::fcntl(master_, F_GETFL) | O_NONBLOCK);
        // Held open so that the master never sees a hang-up when the link closes its port.
        slave_ = ::open(slavePath_.toLocal8Bit().constData(), O_RDWR | O_NOCTTY | O_NONBLOCK);
        notifier_ = new QSocketNotifier(master_, QSocketNotifier::Read, this);
        connect(notifier_, &QSocketNotifier::activated, this, &PtyDevice::readMaster);
    }
    ~PtyDevice() override
    {
        closeMaster();
        if (slave_ >= 0)
            ::close(slave_);
    }

    bool isValid() const { return master_ >= 0 && slave_ >= 0; }
    QString slavePath() const { return slavePath_; }

    void write(const QByteArray& bytes)
    {
        qint64 done = 0;
        while (master_ >= 0 && done < bytes.size()) {
            const ssize_t n = ::write(master_, bytes.constData() + done, size_t(bytes.size() - done));
            if (n > 0)
                done += n;
            else
                QCoreApplication::processEvents(QEventLoop::AllEvents, 10); // the tty's input queue is full
        }
    }
    void writeLine(const QByteArray& line) { write(line + "\r\n"); }

    void closeMaster()
    {
        if (master_ < 0)
            return;
        delete notifier_;
        notifier_ = nullptr;
        ::close(master_);
        master_ = -1;
    }

    // Lines written by the link, without their line end.
    QList<QByteArray> lines;
    // Called for every line; the test's device logic.
    std::function<void(const QByteArray& line)> onLine;

signals:
    void lineReceived(QByteArray line);

private:
    void readMaster()
    {
        char chunk[4096];
        for (;;) {
            const ssize_t n = ::read(master_, chunk, sizeof chunk);
            if (n <= 0)
                break;
            buffer_.append(chunk, int(n));
        }
        int end = -1;
        while ((end = buffer_.indexOf('\n')) >= 0) {
            QByteArray line = buffer_.left(end);
            buffer_.remove(0, end + 1);
            if (line.endsWith('\r'))
                line.chop(1);
            lines.append(line);
            if (onLine)
                onLine(line);
            emit lineReceived(line);
        }
    }

    int master_ = -1;
    int slave_ = -1;
    QString slavePath_;
    QSocketNotifier* notifier_ = nullptr;
    QByteArray buffer_;
};
