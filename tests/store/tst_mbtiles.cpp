// MBTiles files made and read on disk: tiles back as they went in, rows in TMS order as GDAL
// reads them, batches that are whole or absent, and every file refused with its name.
#include "TileFixtures.h"
#include "store/MbTiles.h"

#include <QFileInfo>
#include <QProcess>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <sys/stat.h>

using namespace OrviaGonioManager;
using Geo::TileId;
using Store::MbTiles;

namespace {

const QMap<QString, QString> kMetadata{{"name", "Test tiles"},
                                       {"format", "png"},
                                       {"type", "baselayer"},
                                       {"version", "1"},
                                       {"bounds", "-180,-85.0511,180,85.0511"},
                                       {"minzoom", "0"},
                                       {"maxzoom", "1"},
                                       {"attribution", "Test data"}};

// The file as SQLite sees it, through a connection of the test's own.
QVariant scalar(const QString& path, const QString& sql)
{
    QVariant value;
    {
        QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", "test-peek");
        db.setDatabaseName(path);
        db.setConnectOptions("QSQLITE_OPEN_READONLY");
        if (db.open()) {
            QSqlQuery q(db);
            if (q.exec(sql) && q.next())
                value = q.value(0);
        }
    }
    QSqlDatabase::removeDatabase("test-peek");
    return value;
}

void writeFile(const QString& path, const QByteArray& data)
{
    QFile f(path);
    QVERIFY(f.open(QIODevice::WriteOnly));
    f.write(data);
}

// A SQLite file with only the tables given.
void sqliteFile(const QString& path, const QStringList& statements)
{
    {
        QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", "test-make");
        db.setDatabaseName(path);
        QVERIFY(db.open());
        QSqlQuery q(db);
        for (const QString& s : statements)
            QVERIFY(q.exec(s));
    }
    QSqlDatabase::removeDatabase("test-make");
}

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
    void gdalReadsTheRowsTurned();
    void openRefusals_data();
    void openRefusals();
    void createRefusals_data();
    void createRefusals();
    void existingFileKeepsItsTiles();
    void batches();
    void readOnly();

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
    QTest::newRow("Toulouse z18 and z22")
        << QList<TileId>{{18, 131967, 95734}, {22, 2111482, 1531749}} << 18 << 22;
    QTest::newRow("deepest zoom, both ends")
        << QList<TileId>{{30, 0, 0}, {30, (1 << 30) - 1, (1 << 30) - 1}} << 30 << 30;
}

void TstMbTiles::tilesBack()
{
    QFETCH(QList<TileId>, tiles);
    QFETCH(int, minZoom);
    QFETCH(int, maxZoom);
    const QString path = dir_.filePath(QString("back-%1.mbtiles").arg(QTest::currentDataTag()));
    QMap<QString, QString> meta = kMetadata;
    meta.remove("minzoom");
    meta.remove("maxzoom");
    QString error;
    {
        auto file = MbTiles::create(path, meta, &error);
        QVERIFY2(file, qPrintable(error));
        for (const TileId& t : tiles)
            QVERIFY2(file->put(t, TestSupport::pngTile(t)), qPrintable(file->errorString()));
        QVERIFY(file->commit());
    }
    QCOMPARE(QFileInfo(path).permissions() & QFile::ReadOther, QFile::ReadOther); // not a private temp file
    QCOMPARE(QDir(dir_.path()).entryList(QDir::Hidden | QDir::Files).filter(".part"), QStringList());

    auto file = MbTiles::open(path, &error);
    QVERIFY2(file, qPrintable(error));
    QCOMPARE(file->metadata(), meta);
    // Without minzoom and maxzoom in the metadata, from the tiles.
    QCOMPARE(file->minZoom(), minZoom);
    QCOMPARE(file->maxZoom(), maxZoom);
    QCOMPARE(file->tileCount(), qint64(tiles.size()));
    for (const TileId& t : tiles) {
        QCOMPARE(file->tile(t), std::optional<QByteArray>(TestSupport::pngTile(t)));
        QVERIFY(file->contains(t));
        // Stored with y from the south.
        QCOMPARE(scalar(path, QString("SELECT tile_row FROM tiles WHERE zoom_level = %1 AND tile_column = %2 "
                                      "AND tile_data = x'%3'")
                                  .arg(t.z)
                                  .arg(t.x)
                                  .arg(QString::fromLatin1(TestSupport::pngTile(t).toHex())))
                     .toLongLong(),
                 (qint64(1) << t.z) - 1 - t.y);
    }
    QCOMPARE(file->tile({maxZoom, 1, 1}).has_value(), tiles.contains(TileId{maxZoom, 1, 1}));
    QVERIFY(!file->tile({1, 2, 0})); // no such tile in the world
    QVERIFY(!file->tile({31, 0, 0}));
    QVERIFY(file->errorString().isEmpty());
}

// GDAL's own MBTiles reader puts our zoom 1 tiles where they belong on the earth.
void TstMbTiles::gdalReadsTheRowsTurned()
{
    const QString path = dir_.filePath("quadrants.mbtiles");
    QString error;
    {
        auto file = MbTiles::create(path, kMetadata, &error);
        QVERIFY2(file, qPrintable(error));
        for (int x = 0; x < 2; ++x)
            for (int y = 0; y < 2; ++y)
                QVERIFY(file->put({1, x, y}, TestSupport::pngTile({1, x, y})));
        QVERIFY(file->commit());
    }
    // Red, green and blue, one a line.
    const auto colourAt = [&](double lon, double lat) {
        QProcess p;
        p.start("gdallocationinfo", {"-valonly", "-wgs84", path, QString::number(lon), QString::number(lat)});
        p.waitForFinished();
        return QString::fromLatin1(p.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts).mid(0, 3);
    };
    for (const auto& [lon, lat, x, y] :
         {std::tuple{-90.0, 45.0, 0, 0}, {90.0, 45.0, 1, 0}, {-90.0, -45.0, 0, 1}, {90.0, -45.0, 1, 1}}) {
        const QRgb c = QImage::fromData(TestSupport::pngTile({1, x, y})).pixel(128, 128);
        QCOMPARE(colourAt(lon, lat), (QStringList{QString::number(qRed(c)), QString::number(qGreen(c)),
                                                  QString::number(qBlue(c))}));
    }
}

void TstMbTiles::openRefusals_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("reason");
    QTest::newRow("missing") << "none.mbtiles"
                             << ""
                             << "no such file";
    QTest::newRow("folder") << "folder.mbtiles"
                            << "folder"
                            << "not a regular file";
    QTest::newRow("text") << "text.mbtiles"
                          << "text"
                          << "not an SQLite database";
    QTest::newRow("empty file") << "empty.mbtiles"
                                << "empty"
                                << "it has no tiles table";
    QTest::newRow("no tiles table") << "notiles.mbtiles"
                                    << "metadata"
                                    << "it has no tiles table";
    QTest::newRow("no metadata table") << "nometa.mbtiles"
                                       << "tiles"
                                       << "it has no metadata table";
    QTest::newRow("tiles without their columns") << "columns.mbtiles"
                                                 << "columns"
                                                 << "lacks zoom_level";
}

void TstMbTiles::openRefusals()
{
    QFETCH(QString, name);
    QFETCH(QString, kind);
    QFETCH(QString, reason);
    const QString path = dir_.filePath(name);
    if (kind == "folder")
        QVERIFY(QDir().mkpath(path));
    else if (kind == "text")
        writeFile(path, QByteArray("name,value\nnot,a database\n").repeated(200));
    else if (kind == "empty")
        writeFile(path, {});
    else if (kind == "metadata")
        sqliteFile(path, {"CREATE TABLE metadata (name TEXT, value TEXT)"});
    else if (kind == "tiles")
        sqliteFile(path, {"CREATE TABLE tiles (zoom_level INTEGER, tile_column INTEGER, tile_row INTEGER, "
                          "tile_data BLOB)"});
    else if (kind == "columns")
        sqliteFile(path,
                   {"CREATE TABLE metadata (name TEXT, value TEXT)", "CREATE TABLE tiles (z, x, y, png)"});
    const QByteArray before = contents(path);
    QString error;
    QVERIFY(!MbTiles::open(path, &error));
    QVERIFY2(error.startsWith(path + ": "), qPrintable(error));
    QVERIFY2(error.contains(reason), qPrintable(error));
    QCOMPARE(contents(path), before);
}

void TstMbTiles::createRefusals_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("reason");
    QTest::newRow("folder") << "folder"
                            << "not a regular file";
    QTest::newRow("fifo") << "fifo"
                          << "not a regular file";
    QTest::newRow("dangling link") << "dangling"
                                   << "a symbolic link to a missing file";
    QTest::newRow("a text file") << "text"
                                 << "not an SQLite database";
    QTest::newRow("an SQLite file of something else") << "sqlite"
                                                      << "not an MBTiles file";
    QTest::newRow("in a missing folder") << "nofolder"
                                         << "cannot create";
}

void TstMbTiles::createRefusals()
{
    QFETCH(QString, kind);
    QFETCH(QString, reason);
    const QString path = dir_.filePath(kind == "nofolder" ? "missing/out.mbtiles" : kind + ".mbtiles");
    if (kind == "folder")
        QVERIFY(QDir().mkpath(path));
    else if (kind == "fifo")
        QCOMPARE(::mkfifo(QFile::encodeName(path).constData(), 0600), 0);
    else if (kind == "dangling")
        QVERIFY(QFile::link(dir_.filePath("nowhere.mbtiles"), path));
    else if (kind == "text")
        writeFile(path, "a file the user keeps\n");
    else if (kind == "sqlite")
        sqliteFile(path, {"CREATE TABLE notes (text TEXT)", "INSERT INTO notes VALUES ('kept')"});
    const QFileInfo before(path);
    const QByteArray data = before.isFile() ? contents(path) : QByteArray();
    QString error;
    QVERIFY(!MbTiles::create(path, kMetadata, &error));
    QVERIFY2(error.startsWith(path + ": "), qPrintable(error));
    QVERIFY2(error.contains(reason), qPrintable(error));
    const QFileInfo after(path);
    QCOMPARE(after.isSymLink(), before.isSymLink());
    QCOMPARE(after.isDir(), before.isDir());
    QCOMPARE(after.exists(), before.exists());
    if (before.isFile())
        QCOMPARE(contents(path), data);
    QVERIFY(!QFileInfo::exists(dir_.filePath("nowhere.mbtiles")));
    QCOMPARE(QDir(dir_.path()).entryList(QDir::Hidden | QDir::Files).filter(".part"), QStringList());
}

// Saving again into a file: its tiles stay, its metadata takes what is given.
void TstMbTiles::existingFileKeepsItsTiles()
{
    const QString path = dir_.filePath("again.mbtiles");
    QString error;
    {
        auto file = MbTiles::create(path, kMetadata, &error);
        QVERIFY(file);
        QVERIFY(file->put({1, 0, 0}, "first"));
        QVERIFY(file->commit());
    }
    {
        auto file = MbTiles::create(path, {{"name", "Renamed"}, {"maxzoom", "2"}}, &error);
        QVERIFY2(file, qPrintable(error));
        QCOMPARE(file->tile({1, 0, 0}), std::optional<QByteArray>("first"));
        QVERIFY(file->put({2, 3, 3}, "second"));
        QVERIFY(file->put({1, 0, 0}, "replaced"));
        QVERIFY(file->commit());
    }
    auto file = MbTiles::open(path, &error);
    QVERIFY(file);
    QCOMPARE(file->tileCount(), qint64(2));
    QCOMPARE(file->tile({1, 0, 0}), std::optional<QByteArray>("replaced"));
    QCOMPARE(file->tile({2, 3, 3}), std::optional<QByteArray>("second"));
    QMap<QString, QString> expected = kMetadata;
    expected.insert("name", "Renamed");
    expected.insert("maxzoom", "2");
    QCOMPARE(file->metadata(), expected);
    QCOMPARE(file->maxZoom(), 2);
}

// What was committed is in the file for every reader; what was not is nowhere, also after the
// writer is gone.
void TstMbTiles::batches()
{
    const QString path = dir_.filePath("batches.mbtiles");
    QString error;
    auto writer = MbTiles::create(path, kMetadata, &error);
    QVERIFY(writer);
    QVERIFY(writer->put({1, 0, 0}, "a"));
    QVERIFY(writer->put({1, 1, 0}, "b"));
    QCOMPARE(writer->uncommitted(), 2);
    QVERIFY(writer->commit());
    QCOMPARE(writer->uncommitted(), 0);
    QVERIFY(writer->put({1, 0, 1}, "c"));
    QCOMPARE(writer->tile({1, 0, 1}), std::optional<QByteArray>("c")); // its own batch

    auto reader = MbTiles::open(path, &error);
    QVERIFY2(reader, qPrintable(error));
    QCOMPARE(reader->tileCount(), qint64(2));
    QVERIFY(!reader->tile({1, 0, 1}));
    QCOMPARE(reader->tile({1, 1, 0}), std::optional<QByteArray>("b"));

    writer.reset(); // without a commit: "c" was never saved
    QCOMPARE(reader->tileCount(), qint64(2));
    QCOMPARE(scalar(path, "PRAGMA integrity_check").toString(), QString("ok"));
    QVERIFY(!QFileInfo::exists(path + "-journal"));
}

// Opened to read, a file is never written, not even by a put.
void TstMbTiles::readOnly()
{
    const QString path = dir_.filePath("readonly.mbtiles");
    QString error;
    {
        auto file = MbTiles::create(path, kMetadata, &error);
        QVERIFY(file);
        QVERIFY(file->put({0, 0, 0}, "tile"));
        QVERIFY(file->commit());
    }
    const QByteArray before = contents(path);
    QVERIFY(QFile::setPermissions(path, QFile::ReadOwner | QFile::ReadGroup | QFile::ReadOther));
    auto file = MbTiles::open(path, &error);
    QVERIFY2(file, qPrintable(error));
    QCOMPARE(file->minZoom(), 0);
    QCOMPARE(file->maxZoom(), 1); // as the metadata says
    QCOMPARE(file->tile({0, 0, 0}), std::optional<QByteArray>("tile"));
    QVERIFY(!file->put({1, 0, 0}, "no"));
    QVERIFY2(file->errorString() == path + ": opened to read only", qPrintable(file->errorString()));
    QVERIFY(!file->setMetadata({{"name", "no"}}));
    // Its connection is this thread's: another thread is told so, not given a broken read.
    std::optional<QByteArray> elsewhere = QByteArray("unset");
    std::unique_ptr<QThread> thread(QThread::create([&] { elsewhere = file->tile({0, 0, 0}); }));
    thread->start();
    QVERIFY(thread->wait(10000));
    QVERIFY(!elsewhere);
    QCOMPARE(file->errorString(), path + ": used from a thread other than the one that opened it");
    QCOMPARE(file->tile({0, 0, 0}), std::optional<QByteArray>("tile"));
    file.reset();
    QCOMPARE(contents(path), before);
}

QTEST_MAIN(TstMbTiles)
#include "tst_mbtiles.moc"
