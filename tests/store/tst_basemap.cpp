// scripts/make-basemap.sh on Debian's Blue Marble image: an MBTiles file that our reader and the
// map's source take, with the earth the right way up, and outputs it refuses.
#include "store/MbTiles.h"
#include "store/TileSource.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QImage>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace OrviaGonioManager;
using Geo::TileId;
using Store::MbTiles;

namespace {

struct Run
{
    int exitCode = -1;
    QString output; // standard output and error
};

Run makeBasemap(const QStringList& arguments)
{
    QProcess p;
    p.setProcessChannelMode(QProcess::MergedChannels);
    p.start(QStringLiteral(OGM_SOURCE_DIR "/scripts/make-basemap.sh"), arguments);
    if (!p.waitForFinished(120000))
        return {};
    return {p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1, QString::fromUtf8(p.readAll())};
}

QColor meanColour(const QImage& image)
{
    qint64 r = 0, g = 0, b = 0;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x) {
            const QRgb c = image.pixel(x, y);
            r += qRed(c);
            g += qGreen(c);
            b += qBlue(c);
        }
    const qint64 n = qint64(image.width()) * image.height();
    return QColor(int(r / n), int(g / n), int(b / n));
}

} // namespace

class TstBasemap : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void worldTiles();
    void throughTheMapSource();
    void outputs_data();
    void outputs();

private:
    QTemporaryDir dir_;
    QString basemap_;
};

void TstBasemap::initTestCase()
{
    QVERIFY(dir_.isValid());
    basemap_ = dir_.filePath("world.mbtiles");
    QElapsedTimer timer;
    timer.start();
    const Run run = makeBasemap({basemap_, "3"});
    QVERIFY2(run.exitCode == 0, qPrintable(run.output));
    QVERIFY2(timer.elapsed() < 30000, qPrintable(QString::number(timer.elapsed())));
}

void TstBasemap::worldTiles()
{
    QString error;
    auto file = MbTiles::open(basemap_, &error);
    QVERIFY2(file, qPrintable(error));
    QCOMPARE(file->minZoom(), 0);
    QCOMPARE(file->maxZoom(), 3);
    QCOMPARE(file->tileCount(), qint64(1 + 4 + 16 + 64));
    const auto meta = file->metadata();
    QCOMPARE(meta.value("format"), QString("jpg"));
    QVERIFY(meta.value("attribution").contains("NASA"));
    QVERIFY(meta.value("attribution").contains("public domain"));
    for (int z = 0; z <= 3; ++z)
        for (int x = 0; x < (1 << z); ++x)
            for (int y = 0; y < (1 << z); ++y) {
                const QImage image = QImage::fromData(file->tile({z, x, y}).value_or(QByteArray()), "JPG");
                QCOMPARE(image.size(), QSize(256, 256));
            }
    // North up and east right: the tile of the Sahara (zoom 3, 0 to 45°E and 0 to 41°N) is sand,
    // the one below it (the Gulf of Guinea, the Congo) sea and forest, and the Pacific west of
    // Hawaii (180 to 135°W) deep blue sea.
    const QColor sahara = meanColour(QImage::fromData(*file->tile({3, 4, 3})));
    const QColor southOfSahara = meanColour(QImage::fromData(*file->tile({3, 4, 4})));
    const QColor pacific = meanColour(QImage::fromData(*file->tile({3, 0, 3})));
    QVERIFY2(sahara.red() > sahara.blue() + 15, qPrintable(sahara.name()));
    QVERIFY2(sahara.red() > southOfSahara.red() + 40, qPrintable(southOfSahara.name()));
    QVERIFY2(southOfSahara.blue() > southOfSahara.red(), qPrintable(southOfSahara.name()));
    QVERIFY2(pacific.blue() > pacific.red() + 15, qPrintable(pacific.name()));
}

void TstBasemap::throughTheMapSource()
{
    Store::TileSource source;
    QSignalSpy ready(&source, &Store::TileSource::tileReady);
    QSignalSpy attribution(&source, &Store::TileSource::attributionChanged);
    source.setMbTiles(basemap_);
    source.request({0, 0, 0});
    QVERIFY(ready.wait());
    QCOMPARE(ready[0][0].value<TileId>(), (TileId{0, 0, 0}));
    QVERIFY(!QImage::fromData(ready[0][1].toByteArray()).isNull());
    QTRY_VERIFY(source.attribution().contains("NASA"));
    QVERIFY(source.error().isEmpty());
}

void TstBasemap::outputs_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("message");
    const QString out = dir_.filePath("out.mbtiles");
    QTest::newRow("over a regular file")
        << "file" << QStringList{out, "0"} << 0 << "make-basemap: " + out + ": zoom 0 to 0";
    QTest::newRow("through a link") << "link" << QStringList{out, "0"} << 0 << "";
    QTest::newRow("a folder") << "folder" << QStringList{out, "0"} << 1
                              << "make-basemap: " + out + " is not a regular file; nothing was written";
    QTest::newRow("a missing folder") << "" << QStringList{dir_.filePath("none/out.mbtiles"), "0"} << 1
                                      << "make-basemap: " + dir_.filePath("none") + ": no such folder";
    QTest::newRow("zoom 5") << "" << QStringList{out, "5"} << 1 << "make-basemap: MAXZOOM 5: give 0 to 4";
    QTest::newRow("no output") << "" << QStringList{} << 1 << "make-basemap: usage:";
}

void TstBasemap::outputs()
{
    QFETCH(QString, kind);
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);
    QFETCH(QString, message);
    const QString out = dir_.filePath("out.mbtiles");
    const QString target = dir_.filePath("target.mbtiles");
    QFile::remove(out);
    QFile::remove(target);
    QDir(out).removeRecursively();
    if (kind == "file" || kind == "link") {
        QFile f(kind == "file" ? out : target);
        QVERIFY(f.open(QIODevice::WriteOnly) && f.write("an old map\n"));
    }
    if (kind == "link")
        QVERIFY(QFile::link(target, out));
    if (kind == "folder")
        QVERIFY(QDir().mkpath(out));

    const Run run = makeBasemap(arguments);
    QCOMPARE(run.exitCode, exitCode);
    QVERIFY2(run.output.startsWith(message), qPrintable(run.output));
    if (kind == "folder")
        QVERIFY(QFileInfo(out).isDir());
    if (kind == "link")
        QVERIFY(QFileInfo(out).isSymLink());
    if (exitCode == 0) {
        QString error;
        auto file = MbTiles::open(out, &error);
        QVERIFY2(file, qPrintable(error));
        QCOMPARE(file->tileCount(), qint64(1));
    }
    // No part-made file is left beside it.
    QCOMPARE(QDir(dir_.path()).entryList(QDir::Hidden | QDir::Files).filter(QRegularExpression("^\\.")),
             QStringList());
}

QTEST_MAIN(TstBasemap)
#include "tst_basemap.moc"
