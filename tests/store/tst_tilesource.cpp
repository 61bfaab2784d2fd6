// The map's tiles from a real HTTP server (tile_server.py on 127.0.0.1 and a free port): the
// server's bytes, the cache once the server is gone, the MBTiles file before both, 404s, faults,
// and "Save this area" whole, refused, cancelled and resumed.
#include "TileFixtures.h"
#include "store/AreaSaver.h"
#include "store/MbTiles.h"
#include "store/TileServer.h"
#include "store/TileSource.h"

#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

using namespace OrviaGonioManager;
using Geo::TileId;
using Store::AreaSaver;
using Store::MbTiles;
using Store::TileServer;
using Store::TileSource;
using TestSupport::pngTile;

namespace {

// Answers by tile, for as long as this lives.
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
                         [this](const QString& e) { errors << e; });
    }
    QObject context;
    QHash<TileId, QByteArray> ready;
    QList<TileId> missing, order;
    QStringList errors;
};

const QList<TileId> kSome{{0, 0, 0}, {1, 1, 0}, {2, 3, 1}, {3, 5, 2}, {3, 0, 7}};
const TileId kAbsent{3, 7, 7}; // not on the server: it answers 404
const AreaSaver::Area kWorld{-85, -180, 85, 180, 0, 3};

} // namespace

Q_DECLARE_METATYPE(AreaSaver::Area)

class TstTileSource : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void serverThenCache();
    void fileBeforeServer();
    void cancelPending();
    void sourceErrors_data();
    void sourceErrors();
    void saveArea();
    void cancelSaveThenResume();
    void refusals_data();
    void refusals();

private:
    QTemporaryDir dir_;
    QString tiles_;
};

void TstTileSource::initTestCase()
{
    QVERIFY(dir_.isValid());
    QStandardPaths::setTestModeEnabled(true);
    tiles_ = dir_.filePath("server");
    TestSupport::writeTiles(tiles_, 4, kAbsent);
}

// The server's own bytes, asked with our User-Agent, two at a time at most; a 404 is a missing
// tile and no fault; a tile asked twice is fetched and answered once. With the server stopped, a new source
// has them from the cache.
void TstTileSource::serverThenCache()
{
    TestSupport::TileHttpServer server;
    QVERIFY(server.start(tiles_, 50));
    const QString cache = dir_.filePath("cache");
    auto source = std::make_unique<TileSource>();
    source->setServer(server.urlTemplate(), "Test tiles", cache);
    {
        Answers answers(*source);
        for (const TileId& t : kSome + kSome + QList<TileId>{kAbsent})
            source->request(t);
        QCOMPARE(source->pendingCount(), kSome.size() + 1); // asked twice, fetched once
        QTRY_COMPARE(answers.order.size(), kSome.size() + 1);
        for (const TileId& t : kSome)
            QCOMPARE(answers.ready.value(t), pngTile(t));
        QCOMPARE(answers.missing, QList<TileId>{kAbsent});
        QVERIFY2(answers.errors.isEmpty() && source->error().isEmpty(),
                 qPrintable(answers.errors.join('\n')));
        QTRY_COMPARE(server.requests().size(), kSome.size() + 1);
        QCOMPARE(answers.order.size(), kSome.size() + 1);
    }
    for (const auto& r : server.requests()) {
        QCOMPARE(r.status, r.path == "/3/7/7.png" ? 404 : 200);
        QCOMPARE(r.userAgent.toUtf8(), TileServer::userAgent());
        QVERIFY2(QRegularExpression(R"(^OrviaGonioManager/\d+\.\d+ \(\+https://\S+\)$)")
                     .match(r.userAgent)
                     .hasMatch(),
                 qPrintable(r.userAgent));
    }
    QVERIFY2(server.peakUnderWay() <= TileServer::kMaxConnections,
             qPrintable(QString::number(server.peakUnderWay())));

    server.stop();
    source = std::make_unique<TileSource>();
    source->setServer(server.urlTemplate(), "Test tiles", cache);
    Answers answers(*source);
    for (const TileId& t : kSome)
        source->request(t);
    source->request({4, 9, 9}); // never fetched
    QTRY_COMPARE(answers.order.size(), kSome.size() + 1);
    for (const TileId& t : kSome)
        QCOMPARE(answers.ready.value(t), pngTile(t));
    QCOMPARE(answers.missing, (QList<TileId>{TileId{4, 9, 9}}));
    QTRY_COMPARE(answers.errors.size(), 1);
    QVERIFY2(answers.errors[0].startsWith("Tile server 127.0.0.1: ") && answers.errors[0].contains("refused"),
             qPrintable(answers.errors[0]));
}

// The MBTiles file is looked in first: its tiles never reach the server.
void TstTileSource::fileBeforeServer()
{
    const QString file = dir_.filePath("area.mbtiles");
    QVERIFY(TestSupport::mbtilesFile(file, {{2, 3, 1}}, 1));
    TestSupport::TileHttpServer server;
    QVERIFY(server.start(tiles_));
    TileSource source;
    source.setMbTiles(file);
    source.setServer(server.urlTemplate(), "Server data", dir_.filePath("cache-file"));
    Answers answers(source);
    source.request({2, 3, 1});
    source.request({2, 0, 0});
    QTRY_COMPARE(answers.ready.size(), 2);
    QCOMPARE(answers.ready.value({2, 3, 1}), pngTile({2, 3, 1}, 1));
    QCOMPARE(answers.ready.value({2, 0, 0}), pngTile({2, 0, 0}));
    QTRY_COMPARE(server.requests().size(), 1);
    QCOMPARE(server.requests()[0].path, QString("/2/0/0.png"));
    QTRY_COMPARE(source.attribution(), QString("Test data | Server data"));
}

// Nothing comes for what was cancelled, neither from the file nor from the server.
void TstTileSource::cancelPending()
{
    QList<TileId> row;
    for (int x = 0; x < 16; ++x)
        row << TileId{4, x, 5};
    const QString file = dir_.filePath("cancel.mbtiles");
    QVERIFY(TestSupport::mbtilesFile(file, row.mid(0, 8)));
    TestSupport::TileHttpServer server;
    QVERIFY(server.start(tiles_, 300));
    TileSource source;
    source.setMbTiles(file);
    source.setServer(server.urlTemplate(), QString(), dir_.filePath("cache-cancel"));
    Answers answers(source);
    for (const TileId& t : row)
        source.request(t);
    source.cancelPending();
    QCOMPARE(source.pendingCount(), 0);
    source.request({4, 0, 0});
    QTRY_COMPARE(answers.order.size(), 1);
    QCOMPARE(answers.order, (QList<TileId>{TileId{4, 0, 0}}));
    // Had the rest not been dropped, they would have gone to the server before it.
    const auto asked = [&] {
        return std::any_of(server.requests().begin(), server.requests().end(),
                           [](const auto& r) { return r.path == "/4/0/0.png"; });
    };
    QTRY_VERIFY(asked());
    QVERIFY(server.requests().size() <= 3);
}

void TstTileSource::sourceErrors_data()
{
    QTest::addColumn<QString>("mbtiles");
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("cache");
    QTest::addColumn<QString>("message");
    const QString none = dir_.filePath("none.mbtiles"), text = dir_.filePath("text");
    QFile f(text);
    QVERIFY(f.open(QIODevice::WriteOnly) && f.write(QByteArray(4096, 'x')));
    QTest::newRow("missing file") << none << QString() << QString()
                                  << "Map tiles: " + none + ": no such file";
    QTest::newRow("URL without {y}") << QString() << "http://127.0.0.1/{z}/{x}.png" << QString()
                                     << "Tile server \"http://127.0.0.1/{z}/{x}.png\": the URL lacks {y}";
    // The server still serves, without a cache.
    QTest::newRow("cache folder is a file")
        << QString() << "SERVER" << text << "Tile cache " + text + ": cannot create the folder";
}

void TstTileSource::sourceErrors()
{
    QFETCH(QString, mbtiles);
    QFETCH(QString, url);
    QFETCH(QString, cache);
    QFETCH(QString, message);
    TestSupport::TileHttpServer server;
    QVERIFY(server.start(tiles_));
    TileSource source;
    Answers answers(source);
    source.setMbTiles(mbtiles);
    source.setServer(url == "SERVER" ? server.urlTemplate() : url, QString(), cache);
    QTRY_COMPARE(answers.errors.size(), 1);
    QVERIFY2(answers.errors[0].startsWith(message), qPrintable(answers.errors[0]));
    QCOMPARE(source.error(), answers.errors[0]);
    source.request({1, 0, 0});
    QTRY_COMPARE(answers.order.size(), 1);
    QCOMPARE(answers.ready.contains({1, 0, 0}), url == "SERVER");
}

// The User-Agent and the connection limit are the fetcher's, which serverThenCache() checks.
void TstTileSource::saveArea()
{
    TestSupport::TileHttpServer server;
    QVERIFY(server.start(tiles_));
    const QString out = dir_.filePath("saved.mbtiles");
    AreaSaver saver;
    QSignalSpy progress(&saver, &AreaSaver::progress);
    QSignalSpy finished(&saver, &AreaSaver::finished);
    QVERIFY2(saver.start(kWorld, server.urlTemplate(), "Test tiles", out), qPrintable(saver.error()));
    QVERIFY(finished.wait(60000));
    QCOMPARE(finished[0][0].toBool(), true);
    const QString message = finished[0][1].toString();
    QVERIFY2(QRegularExpression("^Saved 84 tiles \\(\\d+\\.\\d MB\\) to " + QRegularExpression::escape(out) +
                                "; the server has no tile for 1 more\\.$")
                 .match(message)
                 .hasMatch(),
             qPrintable(message));
    QCOMPARE(progress.first(), (QList<QVariant>{qint64(0), qint64(85)}));
    QCOMPARE(progress.last(), (QList<QVariant>{qint64(85), qint64(85)}));

    QString error;
    auto file = MbTiles::open(out, &error);
    QVERIFY2(file, qPrintable(error));
    QCOMPARE(file->tileCount(), qint64(84));
    for (int z = 0; z <= 3; ++z)
        for (const TileId& t : Geo::TileMath::tilesCovering(-85, -180, 85, 180, z))
            QCOMPARE(file->tile(t), t == kAbsent ? std::nullopt : std::optional<QByteArray>(pngTile(t)));
    QCOMPARE(file->metadata().value("attribution"), QString("Test tiles"));
    QTRY_COMPARE(server.requests().size(), 85);
}

// Cancelled after its first tile, a save leaves a whole, smaller file; saving again fetches only
// what that file lacks.
void TstTileSource::cancelSaveThenResume()
{
    TestSupport::TileHttpServer server;
    QVERIFY(server.start(tiles_, 10));
    const QString out = dir_.filePath("cancelled.mbtiles");
    const AreaSaver::Area world{-85, -180, 85, 180, 0, 4};
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
    QCOMPARE(TestSupport::sql(out, {"PRAGMA integrity_check"}).toString(), QString("ok"));
    QString error;
    qint64 kept = 0;
    {
        auto file = MbTiles::open(out, &error);
        QVERIFY2(file, qPrintable(error));
        kept = file->tileCount();
        QVERIFY2(kept >= 1 && kept < 340, qPrintable(QString::number(kept)));
        QVERIFY(message.contains(QString("%1 of the area's").arg(kept)));
    }

    // A server of its own, so that the first one's aborted requests are not counted.
    server.stop();
    TestSupport::TileHttpServer again;
    QVERIFY(again.start(tiles_));
    disconnect(&saver, &AreaSaver::progress, &saver, nullptr);
    QVERIFY(saver.start(world, again.urlTemplate(), "Test tiles", out));
    QVERIFY(finished.wait(60000));
    QVERIFY2(finished[1][0].toBool(), qPrintable(finished[1][1].toString()));
    QTRY_COMPARE(again.requests().size(), int(341 - kept));
    auto file = MbTiles::open(out, &error);
    QVERIFY(file);
    QCOMPARE(file->tileCount(), qint64(340));
}

void TstTileSource::refusals_data()
{
    QTest::addColumn<AreaSaver::Area>("area");
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("output");
    QTest::addColumn<QString>("message");
    const QString url = "http://127.0.0.1:9/{z}/{x}/{y}.png";
    const QString out = dir_.filePath("refused.mbtiles");
    const AreaSaver::Area toulouse{43, 1, 44, 2, 10, 10};
    QTest::newRow("too many tiles")
        << AreaSaver::Area{-85, -180, 85, 180, 0, 8} << url << out
        << "This area needs 87,381 tiles at zoom 0 to 8, about 1,789 MB. At most 10,000 "
           "tiles can be saved at once: the usage policies of public tile servers "
           "forbid bulk downloads. Choose a smaller area or fewer zoom levels.";
    QTest::newRow("zooms the wrong way")
        << AreaSaver::Area{43, 1, 44, 2, 12, 10} << url << out
        << "The zoom levels must run from the lowest to the highest within 0 to 30.";
    QTest::newRow("not a tile URL") << toulouse << "http://127.0.0.1/tiles" << out
                                    << "Tile server \"http://127.0.0.1/tiles\": the URL lacks {z}, {x}, {y}";
    // Found out once started: the saver ends at once.
    QTest::newRow("output is a folder")
        << toulouse << url << dir_.path()
        << "Cannot save the area: " + dir_.path() + ": not a regular file; nothing was written";
}

void TstTileSource::refusals()
{
    QFETCH(AreaSaver::Area, area);
    QFETCH(QString, url);
    QFETCH(QString, output);
    QFETCH(QString, message);
    AreaSaver saver;
    QSignalSpy finished(&saver, &AreaSaver::finished);
    if (!saver.start(area, url, QString(), output)) {
        QCOMPARE(saver.error(), message);
        QVERIFY(!QFileInfo::exists(output));
        return;
    }
    QVERIFY(finished.wait(10000));
    QCOMPARE(finished[0], (QList<QVariant>{false, message}));
    QVERIFY(QFileInfo(output).isDir());
}

QTEST_MAIN(TstTileSource)
#include "tst_tilesource.moc"
