// The map's tiles from a real HTTP server (Python's http.server, started here on 127.0.0.1 and a
// free port over tiles made here): the server's bytes, the cache that serves them once the server
// is gone, the MBTiles file before both, 404s, faults, and "Save this area" whole, cancelled and
// resumed.
#include "TileFixtures.h"
#include "store/AreaSaver.h"
#include "store/MbTiles.h"
#include "store/TileServer.h"
#include "store/TileSource.h"

#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

using namespace OrviaGonioManager;
using Geo::TileId;
using Store::AreaSaver;
using Store::MbTiles;
using Store::TileSource;
using TestSupport::pngTile;

namespace {

QString path(const TileId& t)
{
    return QStringLiteral("/%1/%2/%3.png").arg(t.z).arg(t.x).arg(t.y);
}

// Answers by tile, as the map would keep them, for as long as this lives.
struct Answers
{
    explicit Answers(TileSource& source)
    {
        QObject::connect(&source, &TileSource::tileReady, &context,
                         [this](TileId id, const QByteArray& data) {
                             ready.insert(id, data);
                             order << id;
                         });
        QObject::connect(&source, &TileSource::tileMissing, &context, [this](TileId id) {
            missing << id;
            order << id;
        });
        QObject::connect(&source, &TileSource::sourceError, &context,
                         [this](const QString& text) { errors << text; });
    }
    QObject context;
    int count() const { return int(order.size()); }
    QHash<TileId, QByteArray> ready;
    QList<TileId> missing;
    QList<TileId> order;
    QStringList errors;
};

QString integrity(const QString& file)
{
    QString result;
    {
        QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", "test-check");
        db.setDatabaseName(file);
        db.setConnectOptions("QSQLITE_OPEN_READONLY");
        QSqlQuery q(db);
        if (db.open() && q.exec("PRAGMA integrity_check") && q.next())
            result = q.value(0).toString();
    }
    QSqlDatabase::removeDatabase("test-check");
    return result;
}

const QList<TileId> kSome{{0, 0, 0}, {1, 1, 0}, {2, 3, 1}, {3, 5, 2}, {3, 0, 7}};
// Not on the server: it answers 404.
const TileId kAbsent{3, 7, 7};

} // namespace

Q_DECLARE_METATYPE(AreaSaver::Area)

class TstTileSource : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void serverThenCache_data();
    void serverThenCache();
    void absentTileIsMissing();
    void fileBeforeServer();
    void askedTwiceAnsweredOnce();
    void cancelPending();
    void sourceErrors_data();
    void sourceErrors();
    void saveArea();
    void cancelSaveThenResume();
    void saveStopsWhenTheServerIsGone();
    void refusals_data();
    void refusals();
    void estimates();

private:
    QTemporaryDir dir_;
    QString tiles_;
};

void TstTileSource::initTestCase()
{
    QVERIFY(dir_.isValid());
    QStandardPaths::setTestModeEnabled(true);
    tiles_ = dir_.filePath("server");
    TestSupport::writeTiles(tiles_, 4, {kAbsent});
}

void TstTileSource::serverThenCache_data()
{
    QTest::addColumn<bool>("sameSource");
    QTest::newRow("the same source") << true;
    QTest::newRow("a new source after a restart") << false;
}

void TstTileSource::serverThenCache()
{
    QFETCH(bool, sameSource);
    TestSupport::TileHttpServer server;
    QVERIFY(server.start(tiles_));
    const QString cache = dir_.filePath(QString("cache-%1").arg(sameSource));
    auto source = std::make_unique<TileSource>();
    source->setServer(server.urlTemplate(), "Test tiles", cache);
    QCOMPARE(source->attribution(), QString("Test tiles"));
    {
        Answers answers(*source);
        for (const TileId& t : kSome)
            source->request(t);
        QTRY_COMPARE(answers.count(), kSome.size());
        for (const TileId& t : kSome)
            QCOMPARE(answers.ready.value(t), pngTile(t));
        QVERIFY2(answers.errors.isEmpty(), qPrintable(answers.errors.join('\n')));
    }
    QTRY_COMPARE(server.requests().size(), kSome.size());
    for (const auto& r : server.requests()) {
        QCOMPARE(r.status, 200);
        QCOMPARE(r.userAgent.toUtf8(), Store::TileServer::userAgent());
        QVERIFY2(QRegularExpression(R"(^OrviaGonioManager/\d+\.\d+ \(\+https://\S+\)$)")
                     .match(r.userAgent)
                     .hasMatch(),
                 qPrintable(r.userAgent));
    }
    QVERIFY(server.peakUnderWay() <= Store::TileServer::kMaxConnections);

    server.stop();
    if (!sameSource) {
        source = std::make_unique<TileSource>();
        source->setServer(server.urlTemplate(), "Test tiles", cache);
    }
    Answers answers(*source);
    for (const TileId& t : kSome)
        source->request(t);
    source->request({4, 9, 9}); // never fetched
    QTRY_COMPARE(answers.count(), kSome.size() + 1);
    for (const TileId& t : kSome)
        QCOMPARE(answers.ready.value(t), pngTile(t));
    QCOMPARE(answers.missing, (QList<TileId>{TileId{4, 9, 9}}));
    QTRY_COMPARE(answers.errors.size(), 1);
    QVERIFY2(answers.errors[0].startsWith("Tile server 127.0.0.1: ") && answers.errors[0].contains("refused"),
             qPrintable(answers.errors[0]));
    QCOMPARE(source->error(), answers.errors[0]);
}

void TstTileSource::absentTileIsMissing()
{
    TestSupport::TileHttpServer server;
    QVERIFY(server.start(tiles_));
    TileSource source;
    source.setServer(server.urlTemplate(), QString(), dir_.filePath("cache-absent"));
    Answers answers(source);
    source.request(kAbsent);
    source.request({3, 6, 7});
    QTRY_COMPARE(answers.count(), 2);
    QCOMPARE(answers.missing, QList<TileId>{kAbsent});
    QCOMPARE(answers.ready.value({3, 6, 7}), pngTile({3, 6, 7}));
    QTRY_COMPARE(server.requestsFor(path(kAbsent)), 1);
    QCOMPARE(server.requests().size(), 2);
    // A tile the server does not have is no fault of the source.
    QVERIFY(answers.errors.isEmpty());
    QVERIFY(source.error().isEmpty());
}

// The MBTiles file is looked in first: its tiles never reach the server.
void TstTileSource::fileBeforeServer()
{
    const QString file = dir_.filePath("area.mbtiles");
    QString error;
    {
        auto out = MbTiles::create(file, {{"name", "area"}, {"format", "png"}, {"attribution", "Area data"}},
                                   &error);
        QVERIFY2(out, qPrintable(error));
        QVERIFY(out->put({2, 3, 1}, pngTile({2, 3, 1}, 1)));
        QVERIFY(out->commit());
    }
    TestSupport::TileHttpServer server;
    QVERIFY(server.start(tiles_));
    TileSource source;
    QSignalSpy attribution(&source, &TileSource::attributionChanged);
    source.setMbTiles(file);
    source.setServer(server.urlTemplate(), "Server data", dir_.filePath("cache-file"));
    Answers answers(source);
    source.request({2, 3, 1});
    source.request({2, 0, 0});
    QTRY_COMPARE(answers.count(), 2);
    QCOMPARE(answers.ready.value({2, 3, 1}), pngTile({2, 3, 1}, 1));
    QCOMPARE(answers.ready.value({2, 0, 0}), pngTile({2, 0, 0}));
    QTRY_COMPARE(server.requests().size(), 1);
    QCOMPARE(server.requests()[0].path, path({2, 0, 0}));
    QTRY_COMPARE(source.attribution(), QString("Area data | Server data"));
    QCOMPARE(attribution.last().at(0).toString(), source.attribution());

    // Without a server, the file alone: what it lacks is missing.
    source.setServer(QString(), QString(), QString());
    source.request({2, 1, 1});
    source.request({2, 3, 1});
    QTRY_COMPARE(answers.count(), 4);
    QCOMPARE(answers.missing, (QList<TileId>{TileId{2, 1, 1}}));
    QCOMPARE(source.attribution(), QString("Area data"));
}

void TstTileSource::askedTwiceAnsweredOnce()
{
    TestSupport::TileHttpServer server;
    QVERIFY(server.start(tiles_, 50));
    TileSource source;
    source.setServer(server.urlTemplate(), QString(), dir_.filePath("cache-twice"));
    Answers answers(source);
    for (int i = 0; i < 3; ++i)
        source.request({4, 2, 2});
    QCOMPARE(source.pendingCount(), 1);
    source.request({4, 3, 3}); // asked after: its answer shows that no more are coming for the first
    QTRY_COMPARE(answers.ready.size(), 2);
    QCOMPARE(answers.count(), 2);
    QCOMPARE(source.pendingCount(), 0);
    QTRY_COMPARE(server.requests().size(), 2);
}

// Nothing comes for what was cancelled, neither what the file had answered already nor what was
// on its way from the server: the answer to a tile asked afterwards is the only one.
void TstTileSource::cancelPending()
{
    const QString file = dir_.filePath("cancel.mbtiles");
    QString error;
    {
        auto out = MbTiles::create(file, {{"name", "cancel"}, {"format", "png"}}, &error);
        QVERIFY2(out, qPrintable(error));
        for (int x = 0; x < 8; ++x)
            QVERIFY(out->put({4, x, 5}, pngTile({4, x, 5})));
        QVERIFY(out->commit());
    }
    TestSupport::TileHttpServer server;
    QVERIFY(server.start(tiles_, 300));
    TileSource source;
    source.setMbTiles(file);
    source.setServer(server.urlTemplate(), QString(), dir_.filePath("cache-cancel"));
    Answers answers(source);
    for (int x = 0; x < 16; ++x)
        source.request({4, x, 5});
    source.cancelPending();
    QCOMPARE(source.pendingCount(), 0);
    source.request({4, 0, 0});
    QTRY_COMPARE(answers.count(), 1);
    QCOMPARE(answers.order, (QList<TileId>{TileId{4, 0, 0}}));
    // Had the rest not been dropped, they would have gone to the server before it.
    QTRY_COMPARE(server.requestsFor(path({4, 0, 0})), 1);
    QVERIFY2(server.requests().size() <= 3, qPrintable(QString::number(server.requests().size())));
    QVERIFY(server.peakUnderWay() <= Store::TileServer::kMaxConnections);
}

void TstTileSource::sourceErrors_data()
{
    QTest::addColumn<QString>("mbtiles");
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("cache");
    QTest::addColumn<QString>("message");
    QTest::addColumn<bool>("served");
    const QString text = dir_.filePath("text.mbtiles");
    QFile f(text);
    QVERIFY(f.open(QIODevice::WriteOnly) && f.write(QByteArray(4096, 'x')));
    const QString good = "http://127.0.0.1:%1/{z}/{x}/{y}.png";
    QTest::newRow("missing file") << dir_.filePath("none.mbtiles") << ""
                                  << ""
                                  << "Map tiles: " + dir_.filePath("none.mbtiles") + ": no such file"
                                  << false;
    QTest::newRow("not an SQLite file") << text << ""
                                        << ""
                                        << "Map tiles: " + text + ": not an SQLite database" << false;
    QTest::newRow("URL without {y}") << ""
                                     << "http://127.0.0.1/{z}/{x}.png"
                                     << ""
                                     << "Tile server \"http://127.0.0.1/{z}/{x}.png\": the URL lacks {y}"
                                     << false;
    QTest::newRow("not http") << ""
                              << "ftp://127.0.0.1/{z}/{x}/{y}.png"
                              << ""
                              << "Tile server \"ftp://127.0.0.1/{z}/{x}/{y}.png\": not an http or https URL"
                              << false;
    // The server still serves, without a cache.
    QTest::newRow("cache folder is a file")
        << "" << good << text << "Tile cache " + text + ": cannot create the folder" << true;
}

void TstTileSource::sourceErrors()
{
    QFETCH(QString, mbtiles);
    QFETCH(QString, url);
    QFETCH(QString, cache);
    QFETCH(QString, message);
    QFETCH(bool, served);
    TestSupport::TileHttpServer server;
    QVERIFY(server.start(tiles_));
    TileSource source;
    Answers answers(source);
    source.setMbTiles(mbtiles);
    source.setServer(QString(url).replace("%1", QString::number(server.port())), QString(), cache);
    QTRY_COMPARE(answers.errors.size(), 1);
    QVERIFY2(answers.errors[0].startsWith(message), qPrintable(answers.errors[0]));
    QCOMPARE(source.error(), answers.errors[0]);
    source.request({1, 0, 0});
    QTRY_COMPARE(answers.count(), 1);
    QCOMPARE(answers.ready.contains({1, 0, 0}), served);
}

void TstTileSource::saveArea()
{
    TestSupport::TileHttpServer server;
    QVERIFY(server.start(tiles_, 5));
    const QString out = dir_.filePath("saved.mbtiles");
    const AreaSaver::Area world{-85, -180, 85, 180, 0, 3};
    AreaSaver saver;
    QSignalSpy progress(&saver, &AreaSaver::progress);
    QSignalSpy finished(&saver, &AreaSaver::finished);
    QVERIFY2(saver.start(world, server.urlTemplate(), "Test tiles", out), qPrintable(saver.error()));
    QVERIFY(saver.isRunning());
    QVERIFY(finished.wait(60000));
    QVERIFY(!saver.isRunning());
    QCOMPARE(finished[0][0].toBool(), true);
    const QString message = finished[0][1].toString();
    QVERIFY2(QRegularExpression("^Saved 84 tiles \\(\\d+\\.\\d MB\\) to " + QRegularExpression::escape(out) +
                                "; the server has no tile for 1 more\\.$")
                 .match(message)
                 .hasMatch(),
             qPrintable(message));
    // done grows one by one to the total.
    QCOMPARE(progress.first(), (QList<QVariant>{qint64(0), qint64(85)}));
    for (int i = 1; i < progress.size(); ++i)
        QCOMPARE(progress[i][0].toLongLong(), progress[i - 1][0].toLongLong() + 1);
    QCOMPARE(progress.last(), (QList<QVariant>{qint64(85), qint64(85)}));

    QString error;
    auto file = MbTiles::open(out, &error);
    QVERIFY2(file, qPrintable(error));
    QCOMPARE(file->tileCount(), qint64(84));
    for (int z = 0; z <= 3; ++z)
        for (const TileId& t : Geo::TileMath::tilesCovering(-85, -180, 85, 180, z))
            QCOMPARE(file->tile(t), t == kAbsent ? std::nullopt : std::optional<QByteArray>(pngTile(t)));
    const auto meta = file->metadata();
    QCOMPARE(meta.value("format"), QString("png"));
    QCOMPARE(meta.value("attribution"), QString("Test tiles"));
    QCOMPARE(meta.value("name"), QString("saved"));
    QCOMPARE(file->minZoom(), 0);
    QCOMPARE(file->maxZoom(), 3);
    QTRY_COMPARE(server.requests().size(), 85);
    QVERIFY(server.peakUnderWay() <= Store::TileServer::kMaxConnections);
    for (const auto& r : server.requests())
        QCOMPARE(r.userAgent.toUtf8(), Store::TileServer::userAgent());

    // Again: only the tile the file lacks is asked for.
    server.clearRequests();
    QVERIFY(saver.start(world, server.urlTemplate(), "Test tiles", out));
    QVERIFY(finished.wait(60000));
    QVERIFY2(
        finished[1][1].toString().startsWith("Saved 0 tiles (0.0 MB) to " + out + "; 84 were there already"),
        qPrintable(finished[1][1].toString()));
    QTRY_COMPARE(server.requests().size(), 1);
    QCOMPARE(server.requests()[0].path, path(kAbsent));
}

// Cancelled after its first tile, a save leaves a whole, smaller file; saving again fetches only
// what that file lacks.
void TstTileSource::cancelSaveThenResume()
{
    TestSupport::TileHttpServer server;
    QVERIFY(server.start(tiles_, 10));
    const QString out = dir_.filePath("cancelled.mbtiles");
    const AreaSaver::Area world{-85, -180, 85, 180, 0, 4};
    const qint64 total = AreaSaver::estimateTiles(world);
    QCOMPARE(total, qint64(341));
    AreaSaver saver;
    QSignalSpy finished(&saver, &AreaSaver::finished);
    connect(&saver, &AreaSaver::progress, &saver, [&saver](qint64 done) {
        if (done > 0)
            saver.cancel();
    });
    QVERIFY(saver.start(world, server.urlTemplate(), "Test tiles", out));
    QVERIFY(finished.wait(60000));
    QCOMPARE(finished[0][0].toBool(), false);
    const QString message = finished[0][1].toString();
    QVERIFY2(message.startsWith("Cancelled. ") && message.contains(" of the area's 341 tiles are in " + out),
             qPrintable(message));

    QCOMPARE(integrity(out), QString("ok"));
    QString error;
    qint64 kept = 0;
    {
        auto file = MbTiles::open(out, &error);
        QVERIFY2(file, qPrintable(error));
        kept = file->tileCount();
        QVERIFY2(kept >= 1 && kept < total - 1, qPrintable(QString::number(kept)));
        QVERIFY(message.contains(QString("%1 of the area's").arg(kept)));
        for (int z = 0; z <= 4; ++z)
            for (const TileId& t : Geo::TileMath::tilesCovering(-85, -180, 85, 180, z))
                if (const auto data = file->tile(t))
                    QCOMPARE(*data, pngTile(t));
    }

    // A server of its own, so that the first one's aborted requests are not counted.
    server.stop();
    TestSupport::TileHttpServer again;
    QVERIFY(again.start(tiles_));
    disconnect(&saver, &AreaSaver::progress, &saver, nullptr);
    QVERIFY(saver.start(world, again.urlTemplate(), "Test tiles", out));
    QVERIFY(finished.wait(60000));
    QVERIFY2(finished[1][0].toBool(), qPrintable(finished[1][1].toString()));
    QTRY_COMPARE(again.requests().size(), int(total - kept));
    auto file = MbTiles::open(out, &error);
    QVERIFY(file);
    QCOMPARE(file->tileCount(), total - 1);
}

void TstTileSource::saveStopsWhenTheServerIsGone()
{
    TestSupport::TileHttpServer server;
    QVERIFY(server.start(tiles_));
    const QString url = server.urlTemplate();
    server.stop();
    const QString out = dir_.filePath("unreachable.mbtiles");
    AreaSaver saver;
    QSignalSpy finished(&saver, &AreaSaver::finished);
    QVERIFY(saver.start({-85, -180, 85, 180, 0, 2}, url, QString(), out));
    QVERIFY(finished.wait(60000));
    QCOMPARE(finished[0][0].toBool(), false);
    const QString message = finished[0][1].toString();
    QVERIFY2(message.startsWith("Stopped: no answer from the tile server 127.0.0.1 for tile ") &&
                 message.contains("Connection refused") &&
                 message.contains("0 of the area's 21 tiles are in " + out),
             qPrintable(message));
    QString error;
    auto file = MbTiles::open(out, &error);
    QVERIFY2(file, qPrintable(error));
    QCOMPARE(file->tileCount(), qint64(0));
}

void TstTileSource::refusals_data()
{
    QTest::addColumn<AreaSaver::Area>("area");
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("output");
    QTest::addColumn<bool>("started");
    QTest::addColumn<QString>("message");
    const QString url = "http://127.0.0.1:9/{z}/{x}/{y}.png";
    const QString out = dir_.filePath("refused.mbtiles");
    QTest::newRow("too many tiles")
        << AreaSaver::Area{-85, -180, 85, 180, 0, 8} << url << out << false
        << "This area needs 87,381 tiles at zoom 0 to 8, about 1,789 MB. At most 10,000 "
           "tiles can be saved at once: the usage policies of public tile servers "
           "forbid bulk downloads. Choose a smaller area or fewer zoom levels.";
    QTest::newRow("zooms the wrong way")
        << AreaSaver::Area{43, 1, 44, 2, 12, 10} << url << out << false
        << "The zoom levels must run from the lowest to the highest within 0 to 30.";
    QTest::newRow("south above north")
        << AreaSaver::Area{44, 1, 43, 2, 10, 12} << url << out << false
        << "The area's latitudes must run from south to north within -90 to 90 degrees.";
    QTest::newRow("longitude 200") << AreaSaver::Area{43, 1, 44, 200, 10, 12} << url << out << false
                                   << "The area's longitudes must be within -180 to 180 degrees.";
    QTest::newRow("no output") << AreaSaver::Area{43, 1, 44, 2, 10, 10} << url << "" << false
                               << "No file was named to save the area to.";
    QTest::newRow("not a tile URL") << AreaSaver::Area{43, 1, 44, 2, 10, 10} << "http://127.0.0.1/tiles"
                                    << out << false
                                    << "Tile server \"http://127.0.0.1/tiles\": the URL lacks {z}, {x}, {y}";
    QTest::newRow("output is a folder") << AreaSaver::Area{43, 1, 44, 2, 10, 10} << url << dir_.path() << true
                                        << "Cannot save the area: " + dir_.path() +
                                               ": not a regular file; nothing "
                                               "was written";
}

void TstTileSource::refusals()
{
    QFETCH(AreaSaver::Area, area);
    QFETCH(QString, url);
    QFETCH(QString, output);
    QFETCH(bool, started);
    QFETCH(QString, message);
    AreaSaver saver;
    QSignalSpy finished(&saver, &AreaSaver::finished);
    QCOMPARE(saver.start(area, url, QString(), output), started);
    if (!started) {
        QCOMPARE(saver.error(), message);
        QCOMPARE(AreaSaver::refusal(area).isEmpty(),
                 !message.startsWith("The") && !message.startsWith("This"));
        QVERIFY(!saver.isRunning());
        QVERIFY(!QFileInfo::exists(output) || output.isEmpty());
        return;
    }
    QVERIFY(finished.wait(10000));
    QCOMPARE(finished[0], (QList<QVariant>{false, message}));
    QVERIFY(QFileInfo(output).isDir());
}

void TstTileSource::estimates()
{
    const AreaSaver::Area toulouse{43.5, 1.3, 43.7, 1.6, 10, 14};
    QCOMPARE(AreaSaver::estimateTiles(toulouse), qint64(282));
    QCOMPARE(AreaSaver::estimateBytes(toulouse), qint64(282) * 20 * 1024);
    QVERIFY(AreaSaver::refusal(toulouse).isEmpty());
    // The world at zoom 6 passes; with zoom 7 (20,480 tiles) it does not.
    const AreaSaver::Area world6{-85, -180, 85, 180, 6, 6};
    QCOMPARE(AreaSaver::estimateTiles(world6), qint64(4096));
    QVERIFY(AreaSaver::refusal(world6).isEmpty());
    QVERIFY(AreaSaver::refusal({-85, -180, 85, 180, 6, 7}).contains("20,480 tiles"));
    // Across the antimeridian: Fiji, columns 253 to 255 and 0.
    QCOMPARE(AreaSaver::estimateTiles({-19, 177, -16, -179, 8, 8}), qint64(4 * 3));
}

QTEST_MAIN(TstTileSource)
#include "tst_tilesource.moc"
