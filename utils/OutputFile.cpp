#include "utils/OutputFile.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSaveFile>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace OrviaGonioManager::Utils {

namespace {

constexpr int kMaxLinks = 40; // the kernel's own limit

// The descriptor of this process that path names (/dev/fd/N, /proc/self/fd/N), or -1.
int ownDescriptor(const QString& path)
{
    static const QRegularExpression pattern(
        QStringLiteral("^/(?:dev/fd|proc/(self|thread-self|\\d+)/fd)/(\\d+)$"));
    const QRegularExpressionMatch match = pattern.match(QDir::cleanPath(path));
    if (!match.hasMatch())
        return -1;
    bool numeric = false;
    const qint64 pid = match.captured(1).toLongLong(&numeric);
    if (numeric && pid != qint64(::getpid()))
        return -1;
    bool ok = false;
    const int fd = match.captured(2).toInt(&ok);
    return ok ? fd : -1;
}

QString linkTarget(const QString& path)
{
    QByteArray buffer(PATH_MAX, Qt::Uninitialized);
    const ssize_t size = ::readlink(QFile::encodeName(path).constData(), buffer.data(), buffer.size());
    if (size <= 0 || size >= buffer.size())
        return QString();
    buffer.truncate(size);
    const QString target = QFile::decodeName(buffer);
    return QDir::isAbsolutePath(target) ? target : QFileInfo(path).path() + QLatin1Char('/') + target;
}

struct Target
{
    QString path;
    int fd = -1;
};

// Links are followed one at a time: a dangling one still gives the path to create, and a link
// through one of our descriptors (/dev/stdout) is seen before it turns into the name of the
// caller's file, which must not be replaced.
Target resolve(const QString& fileName)
{
    if (fileName == QLatin1String("-"))
        return {fileName, STDOUT_FILENO};
    QString path = QFileInfo(fileName).absoluteFilePath();
    for (int hop = 0; hop < kMaxLinks; ++hop) {
        if (const int fd = ownDescriptor(path); fd >= 0)
            return {path, fd};
        struct stat st;
        if (::lstat(QFile::encodeName(path).constData(), &st) != 0 || !S_ISLNK(st.st_mode))
            break;
        const QString target = linkTarget(path);
        if (target.isEmpty())
            break;
        path = target;
    }
    return {path, -1};
}

} // namespace

// Writes through to the file, all or nothing: a buffered QSaveFile keeps the part of a write that
// fitted without an error and commits it, and QTextStream does not see short writes.
class OutputFile::Device : public QIODevice
{
public:
    Device(std::unique_ptr<QFileDevice> file, QIODevice::OpenMode mode) : file_(std::move(file))
    {
        QIODevice::open(mode);
    }
    bool isSequential() const override { return true; }
    QFileDevice& file() { return *file_; }
    bool failed() const { return failed_; }

protected:
    qint64 readData(char*, qint64) override { return -1; }
    qint64 writeData(const char* data, qint64 size) override
    {
        for (qint64 done = 0; done < size;) {
            const qint64 written = failed_ ? -1 : file_->write(data + done, size - done);
            if (written <= 0) {
                if (!failed_)
                    setErrorString(file_->errorString());
                failed_ = true;
                return -1;
            }
            done += written;
        }
        return size;
    }

private:
    std::unique_ptr<QFileDevice> file_;
    bool failed_ = false;
};

OutputFile::OutputFile(const QString& fileName) : fileName_(fileName) {}

OutputFile::~OutputFile() = default;

void OutputFile::setFileName(const QString& fileName)
{
    cancel();
    fileName_ = fileName;
}

bool OutputFile::open(QIODevice::OpenMode mode)
{
    cancel();
    error_.clear();
    if (fileName_.isEmpty())
        return fail(ENOENT);
    const QIODevice::OpenMode outer = QIODevice::WriteOnly | (mode & QIODevice::Text);
    constexpr QIODevice::OpenMode inner = QIODevice::WriteOnly | QIODevice::Unbuffered;
    const Target target = resolve(fileName_);

    if (target.fd >= 0) {
        const int status = ::fcntl(target.fd, F_GETFL);
        if (status == -1)
            return fail(errno);
        if ((status & O_ACCMODE) == O_RDONLY)
            return fail(EBADF);
        // Whatever stdio holds for the same descriptor comes first.
        if (target.fd == STDOUT_FILENO)
            std::fflush(stdout);
        auto file = std::make_unique<QFile>();
        if (!file->open(target.fd, inner, QFileDevice::DontCloseHandle))
            return fail(file->errorString());
        device_ = std::make_unique<Device>(std::move(file), outer);
        atomic_ = false;
        return true;
    }

    const QByteArray path = QFile::encodeName(target.path);
    struct stat st;
    const bool exists = ::stat(path.constData(), &st) == 0;
    if (!exists && errno != ENOENT)
        return fail(errno);
    if (exists && S_ISDIR(st.st_mode))
        return fail(EISDIR);
    if (exists && !S_ISREG(st.st_mode)) {
        // A device or a FIFO cannot be replaced, and truncating one is meaningless: written in place.
        int fd;
        do
            fd = ::open(path.constData(), O_WRONLY | O_NOCTTY | O_CLOEXEC);
        while (fd < 0 && errno == EINTR);
        if (fd < 0)
            return fail(errno);
        auto file = std::make_unique<QFile>();
        if (!file->open(fd, inner, QFileDevice::AutoCloseHandle)) {
            ::close(fd);
            return fail(file->errorString());
        }
        device_ = std::make_unique<Device>(std::move(file), outer);
        atomic_ = false;
        return true;
    }

    // A file we may not write is not replaced either.
    if (exists && ::faccessat(AT_FDCWD, path.constData(), W_OK, AT_EACCESS) != 0)
        return fail(errno);
    auto file = std::make_unique<QSaveFile>(target.path);
    if (!file->open(inner))
        return fail(file->errorString());
    if (exists && file->handle() >= 0) {
        // The replacement keeps the old file's owner and mode; chown first, as it clears set-id bits.
        if (::fchown(file->handle(), st.st_uid, st.st_gid) != 0) {
            // Giving a file away takes privileges: it stays ours.
        }
        if (::fchmod(file->handle(), st.st_mode & 07777) != 0) {
            // Kept as created, readable by us only.
        }
    }
    device_ = std::make_unique<Device>(std::move(file), outer);
    atomic_ = true;
    return true;
}

bool OutputFile::isOpen() const
{
    return device_ != nullptr;
}

QIODevice* OutputFile::device() const
{
    return device_.get();
}

bool OutputFile::commit()
{
    if (!device_)
        return fail(EBADF);
    QFileDevice& file = device_->file();
    bool ok = !device_->failed();
    QString cause = device_->errorString();
    if (ok) {
        ok = atomic_ ? static_cast<QSaveFile&>(file).commit() : file.error() == QFileDevice::NoError;
        cause = file.errorString();
    }
    device_.reset(); // discards an uncommitted file, closes a device, leaves standard output open
    return ok || fail(cause);
}

QString OutputFile::errorString() const
{
    if (error_.isEmpty() && device_ && device_->failed())
        return device_->errorString();
    return error_;
}

void OutputFile::cancel()
{
    // An uncommitted QSaveFile removes its temporary file.
    device_.reset();
}

bool OutputFile::fail(const QString& cause)
{
    error_ = cause;
    return false;
}

bool OutputFile::fail(int errnum)
{
    return fail(QString::fromLocal8Bit(std::strerror(errnum)));
}

} // namespace OrviaGonioManager::Utils
