#pragma once

#include <QIODevice>
#include <QString>

#include <memory>

namespace OrviaGonioManager::Utils {

// A file the user named for output, written the way its kind of file wants:
// - "-" is standard output, written in place and left open;
// - a name for one of this process's descriptors (/dev/stdout, /dev/fd/N, /proc/self/fd/N) writes
//   to that descriptor, so that the caller's redirection (append, pipe, position) holds;
// - an existing device, FIFO or socket is opened and written in place, never truncated;
// - a regular file, or a missing one, is replaced whole by commit() or not at all, keeping its
//   mode and, where allowed, its owner; symbolic links are followed and stay links, also a
//   dangling one, whose target is created.
class OutputFile
{
public:
    explicit OutputFile(const QString& fileName = QString());
    // Without commit() a regular file keeps its old content and no temporary file is left.
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void setFileName(const QString& fileName);
    QString fileName() const { return fileName_; }

    // Writing is implied; of mode only Text counts.
    bool open(QIODevice::OpenMode mode = QIODevice::WriteOnly);
    bool isOpen() const;
    // Where to write, once open() succeeded; null before. Unbuffered, writes go straight through:
    // a failed or short write fails the whole file.
    QIODevice* device() const;
    // True when everything written reached the file; the device is then closed.
    bool commit();
    // Drops what was written to a regular file.
    void cancel();

    // The cause of the last failure, also of a write to device(), in words and without the file
    // name ("Permission denied").
    QString errorString() const;

private:
    bool fail(const QString& cause);
    bool fail(int errnum);

    class Device;

    QString fileName_;
    QString error_;
    std::unique_ptr<Device> device_;
    bool atomic_ = false;
};

} // namespace OrviaGonioManager::Utils
