#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>

#include <functional>
#include <map>

namespace OrviaGonioManager::Stream {

// Messages on disk until the broker has them: an append-only series of segment files, one
// "<seq> <payload>" line a message, and a state file with the next number and the highest one
// acknowledged. Numbers grow by one per message and survive restarts. Bounded: when full, the
// oldest segment goes, acknowledged or not, and lost() counts what went unsent.
class Spool
{
public:
    struct Record
    {
        qint64 seq = 0;
        QByteArray payload; // one line, no line end
    };

    // Opens or creates the spool in dir; throws MRL::Utils::Exception when it cannot be written.
    Spool(const QString& dir, qint64 maxBytes);
    ~Spool();

    qint64 nextSeq() const { return nextSeq_; }
    qint64 acked() const { return acked_; }
    qint64 waiting() const { return nextSeq_ - 1 - acked_; }
    qint64 lostMessages() const { return lostMessages_; }
    qint64 lostBytes() const { return lostBytes_; }
    qint64 bytes() const { return totalBytes_; }

    // Writes the message with the next number and returns that number; throws when the disk
    // refuses it. payload(seq) makes the line once its number is known.
    qint64 append(const std::function<QByteArray(qint64 seq)>& payload);
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

private:
    struct Segment
    {
        QString path;
        qint64 bytes = 0;
    };

    void load();
    void loadState();
    void writeState();
    void openWriter(qint64 firstSeq);
    void dropOldest();
    void seekReader(qint64 seq);
    static qint64 lastSeqIn(const QString& path);

    QString dir_;
    qint64 maxBytes_;
    qint64 segmentBytes_;
    std::map<qint64, Segment> segments_; // by first number
    qint64 totalBytes_ = 0;
    qint64 nextSeq_ = 1;
    qint64 acked_ = 0;
    qint64 lostMessages_ = 0;
    qint64 lostBytes_ = 0;
    qint64 lossWarnedTenths_ = 0;
    QFile writer_;
    QFile state_;
    QFile reader_;
    qint64 readerSegment_ = -1; // first number of the segment the reader is in
    qint64 readSeq_ = 1;        // the next number next() returns
};

} // namespace OrviaGonioManager::Stream
