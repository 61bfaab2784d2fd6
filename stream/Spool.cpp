#include "stream/Spool.h"

#include "mrl/utils/Exception.h"

#include <QDir>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace OrviaGonioManager::Stream {

namespace {

// Small segments: acknowledged messages never hold more than one of them, and a full spool loses
// at most a twentieth of its bound at a time.
constexpr qint64 kMinSegmentBytes = 4 * 1024;
constexpr qint64 kMaxSegmentBytes = 256 * 1024;

std::function<int()>& writeFailure()
{
    static std::function<int()> failure;
    return failure;
}

QString reason(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

QString segmentName(qint64 firstSeq)
{
    return QStringLiteral("%1.spool").arg(firstSeq, 16, 10, QLatin1Char('0'));
}

// All of data, at offset or appended when offset < 0; 0 or the errno of the failure.
int writeAll(int fd, const QByteArray& data, qint64 offset)
{
    if (writeFailure())
        if (const int error = writeFailure()())
            return error;
    for (qint64 done = 0; done < data.size();) {
        const char* from = data.constData() + done;
        const size_t size = size_t(data.size() - done);
        const ssize_t n = offset < 0 ? ::write(fd, from, size) : ::pwrite(fd, from, size, offset + done);
        if (n > 0)
            done += n;
        else if (n == 0 || errno != EINTR)
            return n == 0 ? EIO : errno;
    }
    return 0;
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

} // namespace

void Spool::setWriteFailureForTest(std::function<int()> failure)
{
    writeFailure() = std::move(failure);
}

void Spool::makeDirectory(const QString& dir)
{
    // One mkdir(2) a level, so that a failure carries the system's own reason.
    const QByteArray path = QFile::encodeName(QDir::cleanPath(QDir(dir).absolutePath()));
    for (qsizetype i = 1; i <= path.size(); ++i) {
        if (i < path.size() && path[i] != '/')
            continue;
        const QByteArray part = path.left(i);
        if (::mkdir(part.constData(), 0777) == 0)
            continue;
        int error = errno;
        struct stat st;
        if (error == EEXIST) {
            if (::stat(part.constData(), &st) == 0 && S_ISDIR(st.st_mode))
                continue;
            error = ENOTDIR;
        }
        throw MRL::Utils::Exception(QStringLiteral("cannot make the spool %1: %2").arg(dir, reason(error)),
                                    2);
    }
}

Spool::Spool(const QString& dir, qint64 maxBytes)
    : dir_(dir), maxBytes_(std::max<qint64>(maxBytes, 2 * kMinSegmentBytes)),
      segmentBytes_(std::clamp(maxBytes_ / 20, kMinSegmentBytes, kMaxSegmentBytes))
{
    makeDirectory(dir_);
    load();
}

Spool::~Spool()
{
    flush();
    closeWriter();
    ::close(state_);
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
    qint64 lastOnDisk = 0;
    if (!segments_.empty()) {
        const auto& [first, newest] = *segments_.rbegin();
        lastOnDisk = std::max(first - 1, lastSeqIn(newest.path));
    }
    nextSeq_ = std::max(nextSeq_, lastOnDisk + 1);
    acked_ = std::min(acked_, nextSeq_ - 1);
    // Numbers after the last line on disk were lost to a refusing disk: they wait no more.
    if (nextSeq_ - 1 > std::max(lastOnDisk, acked_))
        lost_[std::max(lastOnDisk, acked_) + 1] = nextSeq_ - 1;
    absorbLost();
    trim(); // drops segments a crash left behind after their acknowledgement
    readSeq_ = acked_ + 1;
}

void Spool::loadState()
{
    const QByteArray dir = QFile::encodeName(dir_);
    statePath_ = QDir(dir_).filePath(QStringLiteral("state"));
    if (::access(dir.constData(), W_OK | X_OK) == 0)
        state_ = ::open(QFile::encodeName(statePath_).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (state_ < 0) {
        const int error = errno;
        throw MRL::Utils::Exception(QStringLiteral("cannot use the spool %1: %2").arg(dir_, reason(error)),
                                    2);
    }
    char text[64];
    const QByteArray line(text, std::max<ssize_t>(0, ::pread(state_, text, sizeof text, 0)));
    // A state cut short (a full disk when it was first written) is none: the segments tell.
    const QList<QByteArray> fields = line.simplified().split(' ');
    if (!line.endsWith('\n') || fields.size() != 2)
        return;
    nextSeq_ = std::max<qint64>(1, fields[0].toLongLong());
    acked_ = std::max<qint64>(0, fields[1].toLongLong());
}

bool Spool::writeState()
{
    // Fixed width, rewritten in place: no new block is needed, so a full disk cannot cut it.
    const QByteArray text = QStringLiteral("%1 %2\n").arg(nextSeq_, 20).arg(acked_, 20).toLatin1();
    if (const int error = writeAll(state_, text, 0)) {
        setDiskError(error, statePath_);
        return false;
    }
    return true;
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

bool Spool::openWriter(qint64 firstSeq)
{
    closeWriter();
    auto last = segments_.empty() ? segments_.end() : std::prev(segments_.end());
    if (last == segments_.end() || last->second.bytes >= segmentBytes_)
        last = segments_.emplace(firstSeq, Segment{QDir(dir_).filePath(segmentName(firstSeq)), 0}).first;
    Segment& segment = last->second;
    writer_ =
        ::open(QFile::encodeName(segment.path).constData(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (writer_ < 0) {
        setDiskError(errno, segment.path);
        if (segment.bytes == 0)
            removeSegment(last);
        return false;
    }
    struct stat st;
    if (::fstat(writer_, &st) == 0 && st.st_size != segment.bytes) { // a write half done
        totalBytes_ += st.st_size - segment.bytes;
        segment.bytes = st.st_size;
    }
    // A line cut short (a crash, a full disk) is cut off, so that the next one stands on its own.
    char end = '\n';
    QFile file(segment.path);
    if (segment.bytes > 0 && ::pread(writer_, &end, 1, segment.bytes - 1) == 1 && end != '\n' &&
        file.open(QIODevice::ReadOnly)) {
        const qint64 whole = file.readAll().lastIndexOf('\n') + 1;
        if (::ftruncate(writer_, whole) == 0) {
            totalBytes_ -= segment.bytes - whole;
            segment.bytes = whole;
        }
    }
    return true;
}

void Spool::closeWriter()
{
    if (writer_ >= 0)
        ::close(writer_);
    writer_ = -1;
}

qint64 Spool::append(const std::function<QByteArray(qint64)>& payload)
{
    const qint64 seq = nextSeq_++;
    const QByteArray line = QByteArray::number(seq) + ' ' + payload(seq) + '\n';
    const auto lose = [&] {
        countLoss(markLost(seq, seq), line.size());
        absorbLost();
        trim(); // frees the newest segment too when nothing else waits
        return 0;
    };
    if ((writer_ < 0 || segments_.rbegin()->second.bytes >= segmentBytes_) && !openWriter(seq))
        return lose();
    Segment& segment = segments_.rbegin()->second;
    if (const int error = writeAll(writer_, line, -1)) {
        // What the disk took of the line goes, so that the segment still ends with a whole line.
        if (::ftruncate(writer_, segment.bytes) != 0)
            closeWriter(); // then cut off when opened again
        setDiskError(error, segment.path);
        return lose();
    }
    diskError_.clear();
    segment.bytes += line.size();
    totalBytes_ += line.size();
    while (totalBytes_ > maxBytes_ && segments_.size() > 1)
        dropSegment(segments_.begin());
    return seq;
}

qint64 Spool::waiting() const
{
    qint64 waiting = nextSeq_ - 1 - acked_;
    for (const auto& [first, last] : lost_)
        waiting -= last - first + 1;
    return waiting;
}

qint64 Spool::markLost(qint64 first, qint64 last)
{
    // Merged with the ranges it meets, so that no number is counted twice.
    const qint64 from = first, to = last;
    qint64 fresh = to - from + 1;
    auto it = lost_.upper_bound(first);
    if (it != lost_.begin() && std::prev(it)->second >= first - 1)
        --it;
    while (it != lost_.end() && it->first <= to + 1) {
        fresh -= std::max<qint64>(0, std::min(to, it->second) - std::max(from, it->first) + 1);
        first = std::min(first, it->first);
        last = std::max(last, it->second);
        it = lost_.erase(it);
    }
    lost_[first] = last;
    return fresh;
}

void Spool::absorbLost()
{
    // Lost numbers right after the acknowledged ones wait for nothing.
    while (!lost_.empty() && lost_.begin()->first <= acked_ + 1) {
        acked_ = std::max(acked_, lost_.begin()->second);
        lost_.erase(lost_.begin());
    }
    readSeq_ = std::max(readSeq_, acked_ + 1);
}

void Spool::countLoss(qint64 messages, qint64 bytes)
{
    if (messages <= 0)
        return;
    lostMessages_ += messages;
    lostBytes_ += bytes;
    const qint64 tenths = lostBytes_ * 10 / maxBytes_;
    if (tenths > lossWarnedTenths_ && onLoss) {
        lossWarnedTenths_ = tenths;
        onLoss(lostMessages_, lostBytes_);
    }
}

void Spool::setDiskError(int error, const QString& path)
{
    // The first failure since the last good append says most; what follows is its consequence.
    if (diskError_.isEmpty())
        diskError_ = QStringLiteral("cannot write the spool file %1: %2").arg(path, reason(error));
}

void Spool::dropSegment(Segments::iterator it)
{
    const auto later = std::next(it);
    const qint64 last = later == segments_.end() ? nextSeq_ - 1 : later->first - 1;
    const qint64 first = std::max(it->first, acked_ + 1);
    if (first <= last) {
        const qint64 unsent = markLost(first, last);
        countLoss(unsent, it->second.bytes * unsent / std::max<qint64>(1, last - it->first + 1));
    }
    removeSegment(it);
    absorbLost();
    trim();
}

void Spool::removeSegment(Segments::iterator it)
{
    if (readerSegment_ == it->first) {
        reader_.close();
        readerSegment_ = -1;
    }
    if (std::next(it) == segments_.end())
        closeWriter();
    totalBytes_ -= it->second.bytes;
    QFile::remove(it->second.path);
    segments_.erase(it);
}

void Spool::trim()
{
    // The state first: once the newest segment goes, only the state file keeps the next number.
    const bool stateKept = writeState();
    while (!segments_.empty()) {
        const auto oldest = segments_.begin();
        const auto later = std::next(oldest);
        const qint64 last = later == segments_.end() ? nextSeq_ - 1 : later->first - 1;
        if (last > acked_ || (later == segments_.end() && !stateKept))
            break;
        removeSegment(oldest);
    }
}

bool Spool::seekReader(qint64 seq)
{
    reader_.close();
    readerSegment_ = -1;
    while (!segments_.empty()) {
        auto it = segments_.upper_bound(seq);
        if (it != segments_.begin())
            --it;
        reader_.setFileName(it->second.path);
        if (reader_.open(QIODevice::ReadOnly)) {
            readerSegment_ = it->first;
            return true;
        }
        // Gone or unreadable: its messages cannot be sent, the others still can.
        if (diskError_.isEmpty())
            diskError_ = QStringLiteral("cannot read the spool file %1: %2")
                             .arg(it->second.path, reader_.errorString());
        dropSegment(it);
    }
    return false;
}

QList<Spool::Record> Spool::next(int max)
{
    QList<Record> records;
    if (!reader_.isOpen() && !seekReader(readSeq_))
        return records;
    while (records.size() < max) {
        const qint64 at = reader_.pos();
        const QByteArray line = reader_.readLine();
        Record r;
        r.seq = parseLine(line, &r.payload);
        if (!line.endsWith('\n')) {
            // The end of this segment: on to the next one, if it exists.
            reader_.seek(at);
            const auto later = segments_.upper_bound(readerSegment_);
            if (later == segments_.end() || !seekReader(later->first))
                break;
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
    absorbLost();
    trim();
}

void Spool::flush()
{
    writeState();
    if (writer_ >= 0)
        ::fsync(writer_);
    ::fsync(state_);
}

} // namespace OrviaGonioManager::Stream
