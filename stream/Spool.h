#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>

#include <functional>
#include <map>

namespace OrviaGonioManager::Stream {

// Messages on disk until the broker has them: a series of small segment files, one
// "<seq> <payload>" line a message, and a state file with the next number and the highest one
// acknowledged. Numbers grow by one per message and survive restarts. Only what waits holds disk:
// a segment goes as soon as all its messages are acknowledged, the newest one too. Bounded: when
// full, the oldest segment goes, acknowledged or not; when the disk refuses a message, that
// message goes. lostMessages() counts both. Once open, nothing here throws.
class Spool
{
public:
    struct Record
    {
        qint64 seq = 0;
        QByteArray payload; // one line, no line end
    };

    // Opens or creates the spool in dir; throws MRL::Utils::Exception, with the system's reason and
    // the path, when it cannot be made or written.
    Spool(const QString& dir, qint64 maxBytes);
    ~Spool();

    // Makes dir and its parents; throws "cannot make the spool <dir>: <reason>" on failure.
    static void makeDirectory(const QString& dir);

    qint64 nextSeq() const { return nextSeq_; }
    qint64 acked() const { return acked_; }
    // Spooled and not acknowledged yet (lost numbers are not waiting).
    qint64 waiting() const;
    qint64 lostMessages() const { return lostMessages_; }
    qint64 lostBytes() const { return lostBytes_; }
    qint64 bytes() const { return totalBytes_; }

    // Writes the message with the next number and returns that number. 0 when the disk refused it:
    // the message is lost (its number too, a gap subscribers can see), diskError() says why, and
    // what is spooled stays readable. payload(seq) makes the line once its number is known.
    qint64 append(const std::function<QByteArray(qint64 seq)>& payload);
    // Why the last write failed ("cannot write the spool file <path>: No space left on device");
    // empty again once an append succeeds.
    QString diskError() const { return diskError_; }
    // The next messages after the read position, at most max of them.
    QList<Record> next(int max);
    // Back to the first unacknowledged message, after a broken connection.
    void rewind();
    // Every message up to seq has reached the broker.
    void ack(qint64 seq);
    // On disk now (the data and the state).
    void flush();

    // Called with the lost bytes so far each time they pass another tenth of the bound.
    std::function<void(qint64 lostMessages, qint64 lostBytes)> onLoss;

    // Tests: called before each write to a spool file; a non-zero errno makes that write fail.
    static void setWriteFailureForTest(std::function<int()> failure);

private:
    struct Segment
    {
        QString path;
        qint64 bytes = 0;
    };
    using Segments = std::map<qint64, Segment>; // by first number

    void load();
    void loadState();
    bool writeState();
    bool openWriter(qint64 firstSeq);
    void closeWriter();
    bool seekReader(qint64 seq);
    void trim();
    void dropSegment(Segments::iterator it);
    void removeSegment(Segments::iterator it);
    qint64 markLost(qint64 first, qint64 last);
    void countLoss(qint64 messages, qint64 bytes);
    void absorbLost();
    void setDiskError(int error, const QString& path);
    static qint64 lastSeqIn(const QString& path);

    QString dir_;
    qint64 maxBytes_;
    qint64 segmentBytes_;
    Segments segments_;
    std::map<qint64, qint64> lost_; // numbers above acked_ lost on the way: first -> last
    qint64 totalBytes_ = 0;
    qint64 nextSeq_ = 1;
    qint64 acked_ = 0;
    qint64 lostMessages_ = 0;
    qint64 lostBytes_ = 0;
    qint64 lossWarnedTenths_ = 0;
    QString diskError_;
    int writer_ = -1; // the newest segment, appended to
    int state_ = -1;
    QString statePath_;
    QFile reader_;
    qint64 readerSegment_ = -1; // first number of the segment the reader is in
    qint64 readSeq_ = 1;        // the next number next() returns
};

} // namespace OrviaGonioManager::Stream
