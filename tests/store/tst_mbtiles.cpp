// MBTiles files made and read on disk: tiles back as they went in with rows in TMS order, batches
// whole or absent, every file refused with its name, and scripts/make-basemap.sh's world file.
#include "TileFixtures.h"
#include "store/MbTiles.h"

#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <sys/stat.h>

using namespace OrviaGonioManager;
using Geo::TileId;
using Store::MbTiles;
using TestSupport::kMetadata;
using TestSupport::mbtilesFile;
using TestSupport::pngTile;
using TestSupport::sql;

namespace {

QByteArray contents(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

} // namespace

class TstMbTiles : public QObject
{
    Q_OBJECT

private slots:
    void init() { QVERIFY(dir_.isValid()); }
    void tilesBack_data();
    void tilesBack();
    void refusals_data();
    void refusals();
    void existingFileKeepsItsTiles();
    void uncommittedBatch();
    void readOnly();
    void basemapScript();

private:
    QTemporaryDir dir_;
};

void TstMbTiles::tilesBack_data()
{
    QTest::addColumn<QList<TileId>>("tiles");
    QTest::addColumn<int>("minZoom");
    QTest::addColumn<int>("maxZoom");
    QTest::newRow("world") << QList<TileId>{{0, 0, 0}} << 0 << 0;
    QTest::newRow("zoom 1 corners") << QList<TileId>{{1, 0, 0}, {1, 1, 0}, {1, 0, 1}, {1, 1, 1}} << 1 << 1;
    QTest::newRow("deepest zoom, both ends")
        << QList<TileId>{{18, 131967, 95734}, {30, 0, 0}, {30, (1 << 30) - 1, (1 << 30) - 1}} << 18 << 30;
}

void TstMbTiles::tilesBack()
{
    QFETCH(QList<TileId>, tiles);
    QFETCH(int, minZoom);
    QFETCH(int, maxZoom);
    const QString path = dir_.filePath(QString("back-%1.mbtiles").arg(QTest::currentDataTag()));
    QVERIFY(mbtilesFile(path, tiles));
    QCOMPARE(QFileInfo(path).permissions() & QFile::ReadOther, QFile::ReadOther); // not a private temp file

    QString error;
    auto file = MbTiles::open(path, &error);
    QVERIFY2(file, qPrintable(error));
    QCOMPARE(file->metadata(), kMetadata);
    QCOMPARE(file->minZoom(), minZoom); // from the tiles, as the metadata has no zooms
    QCOMPARE(file->maxZoom(), maxZoom);
    QCOMPARE(file->tileCount(), qint64(tiles.size()));
    for (const TileId& t : tiles) {
        QCOMPARE(file->tile(t), std::optional<QByteArray>(pngTile(t)));
        // The row as any MBTiles reader takes it: TMS, counted from the south.
        QCOMPARE(sql(path, {QString("SELECT tile_row FROM tiles WHERE zoom_level = %1 AND tile_column = %2 "
                                    "AND tile_data = x'%3'")
                                .arg(t.z)
                                .arg(t.x)
                                .arg(QString::fromLatin1(pngTile(t).toHex()))})
                     .toLongLong(),
                 (qint64(1) << t.z) - 1 - t.y);
    }
    QVERIFY(!file->tile({1, 2, 0})); // not in the world
    QVERIFY(!file->tile({31, 0, 0}));
}

// Opened or created, what is not a regular MBTiles file is refused, named, and left as it was.
void TstMbTiles::refusals_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<bool>("create");
    QTest::addColumn<QString>("reason");
    QTest::newRow("open missing") << "none" << false << "no such file";
    QTest::newRow("open a folder") << "folder" << false << "not a regular file";
    QTest::newRow("open text") << "text" << false << "not an SQLite database";
    QTest::newRow("open, no tiles table") << "metadata" << false << "it has no tiles table";
    QTest::newRow("open, tiles lack columns") << "columns" << false << "lacks zoom_level";
    QTest::newRow("create over a fifo") << "fifo" << true << "not a regular file";
    QTest::newRow("create through a dangling link")
        << "dangling" << true << "a symbolic link to a missing file";
    QTest::newRow("create over text") << "text" << true << "not an SQLite database";
    QTest::newRow("create over another SQLite file") << "notes" << true << "not an MBTiles file";
    QTest::newRow("create in a missing folder") << "nofolder" << true << "cannot create";
}

void TstMbTiles::refusals()
{
    QFETCH(QString, kind);
    QFETCH(bool, create);
    QFETCH(QString, reason);
    const QString path = dir_.filePath(kind == "nofolder" ? "missing/out.mbtiles" : kind + ".mbtiles");
    QFile text(path);
    if (kind == "folder")
        QVERIFY(QDir().mkpath(path));
    else if (kind == "fifo")
        QCOMPARE(::mkfifo(QFile::encodeName(path).constData(), 0600), 0);
    else if (kind == "dangling")
        QVERIFY(QFile::link(dir_.filePath("nowhere.mbtiles"), path));
    else if (kind == "text")
        QVERIFY(text.open(QIODevice::WriteOnly) && text.write(QByteArray("name,value\n").repeated(200)));
    text.close();
    if (kind == "metadata" || kind == "columns" || kind == "notes")
        sql(path,
            {QString("CREATE TABLE %1 (name TEXT, value TEXT)").arg(kind == "notes" ? "notes" : "metadata"),
             kind == "columns" ? "CREATE TABLE tiles (z, x, y, png)" : "SELECT 1"});
    const QFileInfo before(path);
    const QByteArray data = before.isFile() ? contents(path) : QByteArray();
    QString error;
    QVERIFY(create ? !MbTiles::create(path, kMetadata, &error) : !MbTiles::open(path, &error));
    QVERIFY2(error.startsWith(path + ": ") && error.contains(reason), qPrintable(error));
    const QFileInfo after(path);
    QCOMPARE(after.isSymLink(), before.isSymLink());
    QCOMPARE(after.exists(), before.exists());
    QCOMPARE(after.isFile() ? contents(path) : QByteArray(), data);
    QVERIFY(!QFileInfo::exists(dir_.filePath("nowhere.mbtiles")));
    QCOMPARE(QDir(dir_.path()).entryList(QDir::Hidden | QDir::Files).filter(".part"), QStringList());
}

// Saving again into a file: its tiles stay, its metadata takes what is given.
void TstMbTiles::existingFileKeepsItsTiles()
{
    const QString path = dir_.filePath("again.mbtiles");
    QVERIFY(mbtilesFile(path, {{1, 0, 0}}));
    QString error;
    {
        auto file = MbTiles::create(path, {{"name", "Renamed"}, {"maxzoom", "2"}}, &error);
        QVERIFY2(file, qPrintable(error));
        QVERIFY(file->put({2, 3, 3}, "second"));
        QVERIFY(file->commit());
    }
    auto file = MbTiles::open(path, &error);
    QVERIFY(file);
    QCOMPARE(file->tileCount(), qint64(2));
    QCOMPARE(file->tile({1, 0, 0}), std::optional<QByteArray>(pngTile({1, 0, 0})));
    QCOMPARE(file->metadata().value("name"), QString("Renamed"));
    QCOMPARE(file->metadata().value("attribution"), QString("Test data"));
    QCOMPARE(file->maxZoom(), 2);
}

// What was committed is in the file for every reader; what was not is nowhere once the writer is
// gone, and the file is whole.
void TstMbTiles::uncommittedBatch()
{
    const QString path = dir_.filePath("batches.mbtiles");
    auto writer = mbtilesFile(path, {{1, 0, 0}, {1, 1, 0}});
    QVERIFY(writer);
    QVERIFY(writer->put({1, 0, 1}, "c"));
    QCOMPARE(writer->uncommitted(), 1);
    QString error;
    auto reader = MbTiles::open(path, &error);
    QVERIFY2(reader, qPrintable(error));
    QVERIFY(!reader->tile({1, 0, 1}));
    writer.reset();
    QCOMPARE(reader->tileCount(), qint64(2));
    QCOMPARE(reader->tile({1, 1, 0}), std::optional<QByteArray>(pngTile({1, 1, 0})));
    QCOMPARE(sql(path, {"PRAGMA integrity_check"}).toString(), QString("ok"));
    QVERIFY(!QFileInfo::exists(path + "-journal"));
}

// Opened to read, a file is never written; from another thread it is refused, not broken.
void TstMbTiles::readOnly()
{
    const QString path = dir_.filePath("readonly.mbtiles");
    QVERIFY(mbtilesFile(path, {{0, 0, 0}}));
    const QByteArray before = contents(path);
    QVERIFY(QFile::setPermissions(path, QFile::ReadOwner | QFile::ReadGroup | QFile::ReadOther));
    QString error;
    auto file = MbTiles::open(path, &error);
    QVERIFY2(file, qPrintable(error));
    QVERIFY(!file->put({1, 0, 0}, "no"));
    QCOMPARE(file->errorString(), path + ": opened to read only");
    std::optional<QByteArray> elsewhere = QByteArray("unset");
    std::unique_ptr<QThread> thread(QThread::create([&] { elsewhere = file->tile({0, 0, 0}); }));
    thread->start();
    QVERIFY(thread->wait(10000));
    QVERIFY(!elsewhere);
    QCOMPARE(file->errorString(), path + ": used from a thread other than the one that opened it");
    QCOMPARE(file->tile({0, 0, 0}), std::optional<QByteArray>(pngTile({0, 0, 0})));
    file.reset();
    QCOMPARE(contents(path), before);
}

// scripts/make-basemap.sh on Debian's Blue Marble image: a valid file, credited, north up.
void TstMbTiles::basemapScript()
{
    const QString path = dir_.filePath("world.mbtiles");
    QProcess script;
    script.setProcessChannelMode(QProcess::MergedChannels);
    script.start(QStringLiteral(OGM_SOURCE_DIR "/scripts/make-basemap.sh"), {path, "3"});
    QVERIFY(script.waitForFinished(120000));
    QVERIFY2(script.exitStatus() == QProcess::NormalExit && script.exitCode() == 0,
             script.readAll().constData());
    QString error;
    auto file = MbTiles::open(path, &error);
    QVERIFY2(file, qPrintable(error));
    QCOMPARE(file->tileCount(), qint64(1 + 4 + 16 + 64));
    QCOMPARE(file->maxZoom(), 3);
    QCOMPARE(file->metadata().value("format"), QString("jpg"));
    QCOMPARE(file->metadata().value("attribution"),
             QString("Blue Marble: NASA Earth Observatory (public domain)"));
    // The Sahara's tile (zoom 3, 0 to 45°E, 0 to 41°N) is sand; the one below it, sea and forest.
    const auto mean = [&](const TileId& t) {
        return QImage::fromData(*file->tile(t))
            .scaled(1, 1, Qt::IgnoreAspectRatio, Qt::SmoothTransformation)
            .pixel(0, 0);
    };
    const QRgb sahara = mean({3, 4, 3}), south = mean({3, 4, 4});
    QVERIFY2(qRed(sahara) > qBlue(sahara) + 15 && qRed(sahara) > qRed(south) + 40 &&
                 qBlue(south) > qRed(south),
             qPrintable(QString::number(sahara, 16) + ' ' + QString::number(south, 16)));
}

QTEST_MAIN(TstMbTiles)
#include "tst_mbtiles.moc"
