#include "stream/Spool.h"

#include "mrl/utils/Exception.h"

#include <QDir>

#include <algorithm>
#include <unistd.h>

namespace OrviaGonioManager::Stream {

namespace {

constexpr qint64 kMinSegmentBytes = 4 * 1024;
constexpr qint64 kMaxSegmentBytes = 8 * 1024 * 1024;

QString segmentName(qint64 firstSeq)
{
    return QStringLiteral("%1.spool").arg(firstSeq, 16, 10, QLatin1Char('0'));
}

// "<seq> <payload>\n"; 0 when the line is not one (a line cut short by a crash).
qint64 parseLine(const QByteArray& line, QByteArray* payload)
{
    if (!line.endsWith('\n'))
        return 0;
    const qsizetype space = line.indexOf(' ');
    bool ok = false;
    const qint64 seq = space > 0 ? line.left(space).toLongLong(&ok) : 0;
    if (!ok || seq <= 0)
        return 0;
    if (payload)
        *payload = line.mid(space + 1).chopped(1);
    return seq;
}

[[noreturn]] void fail(const QString& what, const QFile& file)
{
    throw MRL::Utils::Exception(
        QStringLiteral("cannot %1 the spool file %2 (%3)").arg(what, file.fileName(), file.errorString()), 2);
}

} // namespace

Spool::Spool(const QString& dir, qint64 maxBytes)
    : dir_(dir), maxBytes_(std::max<qint64>(maxBytes, 2 * kMinSegmentBytes))
      // A segment is at most a twentieth of the bound, so that a full spool loses little at a time.
      ,
      segmentBytes_(std::clamp(maxBytes_ / 20, kMinSegmentBytes, kMaxSegmentBytes))
{
    if (!QDir().mkpath(dir_))
        throw MRL::Utils::Exception(QStringLiteral("cannot create the spool directory %1").arg(dir_), 2);
    load();
}

Spool::~Spool()
{
    try {
        flush();
    } catch (const MRL::Utils::Exception&) {
        // Nothing more can be done on the way out; the segments hold the data.
    }
}

void Spool::load()
{
    loadState();
    const QStringList names = QDir(dir_).entryList({QStringLiteral("*.spool")}, QDir::Files, QDir::Name);
    for (const QString& name : names) {
        const QString path = QDir(dir_).filePath(name);
        const qint64 first = name.section(QLatin1Char('.'), 0, 0).toLongLong();
        if (first <= 0)
            continue;
        const qint64 bytes = QFileInfo(path).size();
        segments_[first] = {path, bytes};
        totalBytes_ += bytes;
    }
    if (!segments_.empty()) {
        const auto& [first, last] = *segments_.rbegin();
        nextSeq_ = std::max({nextSeq_, first, lastSeqIn(last.path) + 1});
    }
    acked_ = std::min(acked_, nextSeq_ - 1);
    ack(acked_ + 0); // drops segments a crash left behind after their acknowledgement
    readSeq_ = acked_ + 1;
}

void Spool::loadState()
{
    state_.setFileName(QDir(dir_).filePath(QStringLiteral("state")));
    if (!state_.open(QIODevice::ReadWrite))
        fail(QStringLiteral("open"), state_);
    const QList<QByteArray> fields = state_.readAll().simplified().split(' ');
    nextSeq_ = std::max<qint64>(1, fields.value(0).toLongLong());
    acked_ = std::max<qint64>(0, fields.value(1).toLongLong());
}

void Spool::writeState()
{
    // Fixed width, so that it is rewritten in place.
    const QByteArray text = QStringLiteral("%1 %2\n").arg(nextSeq_, 20).arg(acked_, 20).toLatin1();
    if (!state_.seek(0) || state_.write(text) != text.size() || !state_.flush())
        fail(QStringLiteral("write"), state_);
}

qint64 Spool::lastSeqIn(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    qint64 last = 0;
    while (!file.atEnd())
        last = std::max(last, parseLine(file.readLine(), nullptr));
    return last;
}

void Spool::openWriter(qint64 firstSeq)
{
    writer_.close();
    auto last = segments_.empty() ? segments_.end() : std::prev(segments_.end());
    const bool reuse = last != segments_.end() && last->second.bytes < segmentBytes_;
    if (!reuse)
        last = segments_.emplace(firstSeq, Segment{QDir(dir_).filePath(segmentName(firstSeq)), 0}).first;
    writer_.setFileName(last->second.path);
    if (!writer_.open(QIODevice::ReadWrite | QIODevice::Unbuffered))
        fail(QStringLiteral("open"), writer_);
    // A line cut short by a crash is ended, so that the next one stands on its own.
    if (writer_.size() > 0 && writer_.seek(writer_.size() - 1) && writer_.peek(1) != "\n") {
        writer_.seek(writer_.size());
        writer_.write("\n", 1);
        ++last->second.bytes;
        ++totalBytes_;
    }
    writer_.seek(writer_.size());
}

qint64 Spool::append(const std::function<QByteArray(qint64)>& payload)
{
    if (!writer_.isOpen() || writer_.size() >= segmentBytes_)
        openWriter(nextSeq_);
    const qint64 seq = nextSeq_;
    const QByteArray line = QByteArray::number(seq) + ' ' + payload(seq) + '\n';
    if (writer_.write(line) != line.size())
        fail(QStringLiteral("write"), writer_);
    ++nextSeq_;
    std::prev(segments_.end())->second.bytes += line.size();
    totalBytes_ += line.size();
    while (totalBytes_ > maxBytes_ && segments_.size() > 1)
        dropOldest();
    return seq;
}

void Spool::dropOldest()
{
    const auto oldest = segments_.begin();
    const qint64 first = oldest->first;
    const qint64 last = std::next(oldest)->first - 1;
    const qint64 unsent = last - std::max(acked_, first - 1);
    if (unsent > 0) {
        lostMessages_ += unsent;
        lostBytes_ += oldest->second.bytes * unsent / std::max<qint64>(1, last - first + 1);
        const qint64 tenths = lostBytes_ * 10 / maxBytes_;
        if (tenths > lossWarnedTenths_ && onLoss) {
            lossWarnedTenths_ = tenths;
            onLoss(lostMessages_, lostBytes_);
        }
    }
    totalBytes_ -= oldest->second.bytes;
    if (readerSegment_ == first) {
        reader_.close();
        readerSegment_ = -1;
    }
    QFile::remove(oldest->second.path);
    segments_.erase(oldest);
    acked_ = std::max(acked_, last);
    readSeq_ = std::max(readSeq_, acked_ + 1);
    writeState();
}

void Spool::seekReader(qint64 seq)
{
    reader_.close();
    auto it = segments_.upper_bound(seq);
    if (it != segments_.begin())
        --it;
    if (it == segments_.end()) {
        readerSegment_ = -1;
        return;
    }
    readerSegment_ = it->first;
    reader_.setFileName(it->second.path);
    if (!reader_.open(QIODevice::ReadOnly))
        fail(QStringLiteral("read"), reader_);
}

QList<Spool::Record> Spool::next(int max)
{
    QList<Record> records;
    if (!reader_.isOpen())
        seekReader(readSeq_);
    while (reader_.isOpen() && records.size() < max) {
        const qint64 at = reader_.pos();
        const QByteArray line = reader_.readLine();
        Record r;
        r.seq = parseLine(line, &r.payload);
        if (line.isEmpty() || (!line.endsWith('\n') && at + line.size() >= reader_.size())) {
            // The end of this segment: on to the next one, if it exists.
            reader_.seek(at);
            const auto later = segments_.upper_bound(readerSegment_);
            if (later == segments_.end())
                break;
            seekReader(later->first);
            continue;
        }
        if (r.seq >= readSeq_) {
            readSeq_ = r.seq + 1;
            records << r;
        }
    }
    return records;
}

void Spool::rewind()
{
    readSeq_ = acked_ + 1;
    reader_.close();
    readerSegment_ = -1;
}

void Spool::ack(qint64 seq)
{
    acked_ = std::max(acked_, std::min(seq, nextSeq_ - 1));
    // A segment goes once its last message is acknowledged; the newest stays for writing.
    while (segments_.size() > 1 && std::next(segments_.begin())->first - 1 <= acked_) {
        const auto oldest = segments_.begin();
        if (readerSegment_ == oldest->first) {
            reader_.close();
            readerSegment_ = -1;
        }
        totalBytes_ -= oldest->second.bytes;
        QFile::remove(oldest->second.path);
        segments_.erase(oldest);
    }
    writeState();
}

void Spool::flush()
{
    writeState();
    if (writer_.isOpen())
        ::fsync(writer_.handle());
    ::fsync(state_.handle());
}

} // namespace OrviaGonioManager::Stream
