#pragma once
// The input as a file of the given name, for readers that take a path. In memory where the system
// has it: a run is a file written and read back.
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <cstddef>
#include <cstdint>

inline QString fuzzFile(const QString& name, const uint8_t* data, size_t size)
{
    static QTemporaryDir dir(QDir(QStringLiteral("/dev/shm")).exists()
                                 ? QStringLiteral("/dev/shm/ogm-fuzz-XXXXXX")
                                 : QDir::tempPath() + QStringLiteral("/ogm-fuzz-XXXXXX"));
    const QString path = dir.filePath(name);
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return {};
    file.write(reinterpret_cast<const char*>(data), qint64(size));
    return path;
}
