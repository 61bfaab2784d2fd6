// The Bearings map on tiles from an MBTiles file made here, one colour a tile: the right tile at
// the right place on screen, coarser tiles enlarged where a zoom is missing, the antimeridian,
// the grid when there are no tiles, the pointer's position, and the window's preference keys.
#include "geo/TileMath.h"
#include "store/MbTiles.h"
#include "store/TileFixtures.h"
#include "store/TileSource.h"
#include "ui/BearingMapWidget.h"
#include "ui/BearingsWindow.h"
#include "ui/MapSource.h"
#include "ui/SaveAreaDialog.h"
#include "utils/RxTableModel.h"

#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalSpy>
#include <QSpinBox>
#include <QTemporaryDir>
#include <QTest>

using namespace OrviaGonioManager;
using Geo::GeoPoint;
using Geo::TileId;
using Ui::BearingMapWidget;

class TestBearingMap : public QObject
{
    Q_OBJECT

    QTemporaryDir dir_;
    QString file_;

private slots:
    void initTestCase()
    {
        QVERIFY(dir_.isValid());
        qputenv("XDG_CONFIG_HOME", dir_.filePath("config").toLocal8Bit());
        qputenv("XDG_CACHE_HOME", dir_.filePath("cache").toLocal8Bit());
        file_ = dir_.filePath("colours.mbtiles");
        QList<TileId> world;
        for (int z = 0; z <= 3; ++z)
            for (int x = 0; x < (1 << z); ++x)
                for (int y = 0; y < (1 << z); ++y)
                    world << TileId{z, x, y};
        QVERIFY(TestSupport::mbtilesFile(file_, world, 0, {{"name", "colours"}, {"format", "png"}}));
    }

    // Each probe: the middle of the screen tile that holds the point, at the view's whole zoom.
    void tiles_data()
    {
        QTest::addColumn<double>("latitude"); // of the view's centre
        QTest::addColumn<double>("longitude");
        QTest::addColumn<double>("zoom");
        QTest::addColumn<GeoPoint>("probe");
        QTest::addColumn<TileId>("expected"); // the file's tile seen there
        QTest::newRow("Toulouse, zoom 3") << 43.6 << 1.44 << 3.0 << GeoPoint{43.6, 1.44} << TileId{3, 4, 2};
        QTest::newRow("its neighbour east") << 43.6 << 1.44 << 3.0 << GeoPoint{43.6, 50.0} << TileId{3, 5, 2};
        QTest::newRow("zoom 5, enlarged from zoom 3")
            << 43.6 << 1.44 << 5.0 << GeoPoint{43.6, 1.44} << TileId{3, 4, 2};
        QTest::newRow("antimeridian, east of it")
            << 0.5 << 179.9 << 3.0 << GeoPoint{10.0, -170.0} << TileId{3, 0, 3};
        QTest::newRow("antimeridian, west of it")
            << 0.5 << 179.9 << 3.0 << GeoPoint{10.0, 170.0} << TileId{3, 7, 3};
        QTest::newRow("80° north") << 80.0 << 10.0 << 3.0 << GeoPoint{80.0, 10.0} << TileId{3, 4, 0};
    }
    void tiles()
    {
        QFETCH(double, latitude);
        QFETCH(double, longitude);
        QFETCH(double, zoom);
        QFETCH(GeoPoint, probe);
        QFETCH(TileId, expected);
        Store::TileSource source;
        source.setMbTiles(file_);
        BearingMapWidget map;
        map.resize(768, 512);
        map.setTileSource(&source);
        map.setView({latitude, longitude}, zoom);
        map.show();
        QVERIFY(QTest::qWaitForWindowExposed(&map));
        // The middle of the tile at the view's zoom that holds the probe.
        const TileId at = Geo::TileMath::tileAt(probe, int(zoom));
        const GeoPoint nw = Geo::TileMath::tileNorthWest(at);
        const GeoPoint se = Geo::TileMath::tileNorthWest({at.z, at.x + 1, at.y + 1});
        const QPointF corner = map.toScreen(nw);
        const double side = map.toScreen({se.latitude, probe.longitude}).y() - corner.y();
        const QPoint middle = (corner + QPointF(side / 2, side / 2)).toPoint();
        QVERIFY2(map.rect().contains(middle), qPrintable(QString("%1, %2").arg(middle.x()).arg(middle.y())));
        // The colour pngTile gives the tile, away from its corner marks.
        QTRY_COMPARE(map.grab().toImage().pixel(middle),
                     QImage::fromData(TestSupport::pngTile(expected)).pixel(128, 128));
        QVERIFY(map.tilesDrawn() > 0);
    }

    // No tiles: a grid, and the pointer's position as the map has it.
    void grid()
    {
        BearingMapWidget map;
        map.resize(600, 400);
        map.setView({43.6, 1.44}, 9.0);
        map.show();
        QVERIFY(QTest::qWaitForWindowExposed(&map));
        map.grab();
        QCOMPARE(map.tilesDrawn(), 0);
        QSignalSpy moved(&map, &BearingMapWidget::cursorMoved);
        QTest::mouseMove(&map, QPoint(300, 200));
        QTRY_VERIFY(!moved.isEmpty());
        const auto at = moved.last().at(0).value<GeoPoint>();
        QVERIFY(std::abs(at.latitude - 43.6) < 0.01 && std::abs(at.longitude - 1.44) < 0.01);
        const auto box = map.visibleBox();
        QVERIFY(box[0] < 43.6 && 43.6 < box[2] && box[1] < 1.44 && 1.44 < box[3]);
    }

    // "Save this area for offline use" through its dialog, against a real tile server: the count
    // before it starts, then the file with every tile of the area.
    void saveArea()
    {
        const QString folder = dir_.filePath("served");
        TestSupport::writeTiles(folder, 2, {9, 0, 0});
        TestSupport::TileHttpServer server;
        QVERIFY(server.start(folder));
        Ui::SaveAreaDialog dialog({-80, -180, 80, 179.9, 0, 2}, server.urlTemplate(), "Test tiles");
        QVERIFY(dialog.findChild<QLabel*>("labelSaveAreaEstimate")->text().startsWith("21 tiles, about"));
        auto* start = dialog.findChild<QPushButton*>("pushButtonSaveAreaStart");
        QVERIFY(!start->isEnabled()); // no file yet
        const QString file = dir_.filePath("saved.mbtiles");
        dialog.findChild<QLineEdit*>("lineEditSaveAreaFile")->setText(file);
        start->click();
        QTRY_COMPARE_WITH_TIMEOUT(dialog.result(), int(QDialog::Accepted), 30000);
        QCOMPARE(dialog.output(), file);
        QString error;
        const auto saved = Store::MbTiles::open(file, &error);
        QVERIFY2(saved, qPrintable(error));
        QCOMPARE(saved->tileCount(), 21);
    }

    // An installation or a test presets the file under "map/mbtiles": the window draws it.
    void preferenceKeys()
    {
        Ui::BearingsWindow::preferences().setValue(Ui::MapSource::kMbTilesKey, file_);
        Utils::RxTableModel model;
        QSpinBox offset;
        QComboBox unit;
        Ui::BearingsWindow window(&model, &offset, &unit);
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        auto* map = window.findChild<BearingMapWidget*>("mapBearings");
        map->setView({43.6, 1.44}, 2.0);
        QTRY_VERIFY((map->grab(), map->tilesDrawn() > 0));
        QCOMPARE(window.mapSource()->source()->error(), QString());
        Ui::BearingsWindow::preferences().remove(Ui::MapSource::kMbTilesKey);
    }
};

QTEST_MAIN(TestBearingMap)
#include "tst_bearingmap.moc"
