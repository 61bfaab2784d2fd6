#pragma once
// Tiles made here as PNG files, and the test tile server (tile_server.py, Python's http.server)
// started for real on 127.0.0.1 and a free port over a folder of them.
#include "common/FreePort.h"
#include "geo/TileMath.h"

#include <QBuffer>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QProcess>
#include <QSignalSpy>
#include <QTest>

namespace TestSupport {

// A PNG of 256 x 256 pixels whose colour and corner pixels tell the tile (and a variant) apart.
inline QByteArray pngTile(const OrviaGonioManager::Geo::TileId& id, int variant = 0)
{
    QImage image(256, 256, QImage::Format_RGB32);
    image.fill(qRgb((id.x * 53 + variant * 101) % 256, (id.y * 97) % 256, (id.z * 31 + 40) % 256));
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

// Every tile of the world from zoom 0 to maxZoom as DIR/z/x/y.png, but those left out.
inline void writeTiles(const QString& dir, int maxZoom,
                       const QList<OrviaGonioManager::Geo::TileId>& leftOut = {})
{
    for (int z = 0; z <= maxZoom; ++z)
        for (int x = 0; x < (1 << z); ++x)
            for (int y = 0; y < (1 << z); ++y) {
                if (leftOut.contains(OrviaGonioManager::Geo::TileId{z, x, y}))
                    continue;
                const QString folder = QStringLiteral("%1/%2/%3").arg(dir).arg(z).arg(x);
                QDir().mkpath(folder);
                QFile f(QStringLiteral("%1/%2.png").arg(folder).arg(y));
                QVERIFY(f.open(QIODevice::WriteOnly));
                QVERIFY(f.write(pngTile({z, x, y})) > 0);
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
        process_.setProgram(QStringLiteral("python3"));
        process_.setArguments(
            {QStringLiteral(OGM_TILE_SERVER_PY), QString::number(port_), dir, QString::number(delayMs)});
        process_.setProcessChannelMode(QProcess::SeparateChannels);
        QObject::connect(&process_, &QProcess::readyReadStandardOutput, [this] { readLines(); });
        process_.start();
        if (!process_.waitForStarted())
            return false;
        QSignalSpy ready(&process_, &QProcess::readyReadStandardOutput);
        while (!ready_ && process_.state() == QProcess::Running)
            ready.wait(10000);
        if (!ready_)
            qWarning("tile server: %s", process_.readAllStandardError().constData());
        return ready_;
    }

    void stop()
    {
        if (process_.state() == QProcess::NotRunning)
            return;
        process_.kill();
        process_.waitForFinished();
    }

    int port() const { return port_; }
    QString urlTemplate() const { return QStringLiteral("http://127.0.0.1:%1/{z}/{x}/{y}.png").arg(port_); }
    const QList<Request>& requests() const { return requests_; }
    void clearRequests() { requests_.clear(); }
    int peakUnderWay() const
    {
        int peak = 0;
        for (const Request& r : requests_)
            peak = std::max(peak, r.underWay);
        return peak;
    }
    int requestsFor(const QString& path) const
    {
        return int(std::count_if(requests_.begin(), requests_.end(),
                                 [&](const Request& r) { return r.path == path; }));
    }

private:
    void readLines()
    {
        while (process_.canReadLine()) {
            const QString line = QString::fromUtf8(process_.readLine()).trimmed();
            if (line == QLatin1String("ready")) {
                ready_ = true;
                continue;
            }
            const QStringList f = line.split(QLatin1Char(' '));
            if (f.size() >= 4 && f[0] == QLatin1String("GET"))
                requests_.append({f[1], f[2].toInt(), f[3].toInt(), f.mid(4).join(QLatin1Char(' '))});
        }
    }

    QProcess process_;
    int port_ = 0;
    bool ready_ = false;
    QList<Request> requests_;
};

} // namespace TestSupport
