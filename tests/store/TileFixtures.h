#pragma once
// PNG tiles made here, and tile_server.py (Python's http.server) started on a free port over them.
#include "common/FreePort.h"
#include "geo/TileMath.h"
#include "store/MbTiles.h"

#include <QBuffer>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QProcess>
#include <QSignalSpy>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTest>

namespace TestSupport {

using OrviaGonioManager::Geo::TileId;

// 256 x 256 pixels whose colour and first two rows (x and y in bits) tell the tile and variant apart.
inline QByteArray pngTile(const TileId& id, int variant = 0)
{
    QImage image(256, 256, QImage::Format_RGB32);
    image.fill(qRgb(int((quint64(id.x) * 53 + quint64(variant) * 101) % 256), int(quint64(id.y) * 97 % 256),
                    int((quint64(id.z) * 31 + 40) % 256)));
    for (int bit = 0; bit < 31; ++bit) {
        image.setPixel(bit, 0, (id.x >> bit) & 1 ? qRgb(255, 255, 255) : qRgb(0, 0, 0));
        image.setPixel(bit, 1, (id.y >> bit) & 1 ? qRgb(255, 255, 255) : qRgb(0, 0, 0));
    }
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return png;
}

const QMap<QString, QString> kMetadata{
    {"name", "Test tiles"}, {"format", "png"}, {"attribution", "Test data"}};

// An MBTiles file of the tiles given as pngTile(t, variant), committed; null if it could not be made.
inline std::unique_ptr<OrviaGonioManager::Store::MbTiles>
mbtilesFile(const QString& path, const QList<TileId>& tiles, int variant = 0,
            const QMap<QString, QString>& metadata = kMetadata)
{
    QString error;
    auto file = OrviaGonioManager::Store::MbTiles::create(path, metadata, &error);
    for (const TileId& t : tiles)
        if (!file || !file->put(t, pngTile(t, variant)))
            return {};
    if (!file || !file->commit())
        return {};
    return file;
}

// Runs the statements on the file through a connection of the test's own; the first column of the
// last one's first row.
inline QVariant sql(const QString& path, const QStringList& statements)
{
    QVariant value;
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), QStringLiteral("test-sql"));
        db.setDatabaseName(path);
        QSqlQuery q(db);
        if (db.open())
            for (const QString& s : statements)
                value = q.exec(s) && q.next() ? q.value(0) : QVariant();
    }
    QSqlDatabase::removeDatabase(QStringLiteral("test-sql"));
    return value;
}

// Every tile of the world from zoom 0 to maxZoom as DIR/z/x/y.png, but the one left out.
inline void writeTiles(const QString& dir, int maxZoom, const TileId& leftOut)
{
    for (int z = 0; z <= maxZoom; ++z)
        for (int x = 0; x < (1 << z); ++x)
            for (int y = 0; y < (1 << z); ++y) {
                if (TileId{z, x, y} == leftOut)
                    continue;
                QDir().mkpath(QStringLiteral("%1/%2/%3").arg(dir).arg(z).arg(x));
                QFile f(QStringLiteral("%1/%2/%3/%4.png").arg(dir).arg(z).arg(x).arg(y));
                QVERIFY(f.open(QIODevice::WriteOnly) && f.write(pngTile({z, x, y})) > 0);
            }
}

class TileHttpServer
{
public:
    struct Request
    {
        QString path;
        int status = 0;
        int underWay = 0;
        QString userAgent;
    };

    ~TileHttpServer() { stop(); }

    // delayMs holds each answer back, so that requests sent together overlap on the server.
    bool start(const QString& dir, int delayMs = 0)
    {
        port_ = freePort();
        process_.start(QStringLiteral("python3"), {QStringLiteral(OGM_TILE_SERVER_PY), QString::number(port_),
                                                   dir, QString::number(delayMs)});
        QObject::connect(&process_, &QProcess::readyReadStandardOutput, [this] { readLines(); });
        QSignalSpy output(&process_, &QProcess::readyReadStandardOutput);
        while (!ready_ && process_.waitForStarted() && process_.state() == QProcess::Running)
            output.wait(10000);
        if (!ready_)
            qWarning("tile server: %s", process_.readAllStandardError().constData());
        return ready_;
    }

    void stop()
    {
        process_.kill();
        process_.waitForFinished();
    }

    QString urlTemplate() const { return QStringLiteral("http://127.0.0.1:%1/{z}/{x}/{y}.png").arg(port_); }
    const QList<Request>& requests() const { return requests_; }
    int peakUnderWay() const
    {
        int peak = 0;
        for (const Request& r : requests_)
            peak = std::max(peak, r.underWay);
        return peak;
    }

private:
    void readLines()
    {
        while (process_.canReadLine()) {
            const QString line = QString::fromUtf8(process_.readLine()).trimmed();
            const QStringList f = line.split(QLatin1Char(' '));
            if (line == QLatin1String("ready"))
                ready_ = true;
            else if (f.size() >= 4 && f[0] == QLatin1String("GET"))
                requests_.append({f[1], f[2].toInt(), f[3].toInt(), f.mid(4).join(QLatin1Char(' '))});
        }
    }

    QProcess process_;
    int port_ = 0;
    bool ready_ = false;
    QList<Request> requests_;
};

} // namespace TestSupport
