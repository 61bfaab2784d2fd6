// Takes the README's screenshots: the window connected to an in-process emulator.
// Usage: ogm_screenshot <output.png> [gnx134|gnx234] [tab index | flash-read | bearings [MBTILES]]
// "flash-read" shows a flash read at the receiver's line rate, caught part-way; "bearings" the
// Bearings window on the emulator's cruise past three buoys (sim/scenarios/gulf.json), read from
// its flash memory, homing on one of them. Its map takes the tiles the user's Bearings
// preferences name (map/mbtiles, map/tileUrl, map/tileAttribution, map/cache), or MBTILES.
#include "app/Settings.h"
#include "mrl/utils/DateTime.h"
#include "mrl/utils/ToplevelApplication.h"
#include "sim/PtySimulator.h"
#include "sim/Scenario.h"
#include "store/StoreWriter.h"
#include "store/TileSource.h"
#include "ui/BearingMapWidget.h"
#include "ui/BearingsWindow.h"
#include "ui/HistoryWindow.h"
#include "ui/JobPanel.h"
#include "ui/MainWindow.h"
#include "ui/MapSource.h"
#include "ui_MainWindow.h"
#include "utils/JobProgress.h"

#include <QAction>
#include <QComboBox>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QPushButton>
#include <QSpinBox>
#include <QTemporaryDir>
#include <QTimer>

namespace OgmUi = OrviaGonioManager::Ui;

int main(int argc, char** argv)
{
    MRL::Utils::DateTime::registerMetaType();
    MRL::Utils::ToplevelApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("OrviaGonioManager"));
    const QStringList args = app.arguments();
    if (args.size() < 2) {
        qCritical("usage: ogm_screenshot <output.png> [gnx134|gnx234]");
        return 2;
    }
    const QString output = QFileInfo(args.at(1)).absoluteFilePath();

    gnxsim::Options options;
    options.model = args.value(2) == QLatin1String("gnx134") ? gnxsim::Model::Gnx134 : gnxsim::Model::Gnx234;
    options.platforms = 6;
    options.flashRecords = 50;
    const bool flashRead = args.value(3) == QLatin1String("flash-read");
    if (flashRead) {
        options.baud = 115200;
        options.flashRecords = 3000;
    }
    const bool bearings = args.value(3) == QLatin1String("bearings");
    const bool history = args.value(3) == QLatin1String("history");
    if (bearings || history) {
        QString error;
        options.scenario =
            gnxsim::Scenario::load(QStringLiteral(OGM_SOURCE_DIR "/sim/scenarios/gulf.json"), &error);
        if (!options.scenario) {
            qCritical("%s", qPrintable(error));
            return 1;
        }
        options.flashRecords = 150;
    }
    gnxsim::PtySimulator sim(options);
    if (!sim.start()) {
        qCritical("cannot start the emulator: %s", qPrintable(sim.errorString()));
        return 1;
    }

    // The user's choice of map tiles, taken before the settings move to the scratch directory.
    QMap<QString, QVariant> map;
    for (const char* key : {OgmUi::MapSource::kMbTilesKey, OgmUi::MapSource::kTileUrlKey,
                            OgmUi::MapSource::kAttributionKey, OgmUi::MapSource::kCacheKey})
        map.insert(QLatin1String(key), OgmUi::BearingsWindow::preferences().value(QLatin1String(key)));
    if (!args.value(4).isEmpty())
        map.insert(QLatin1String(OgmUi::MapSource::kMbTilesKey), QFileInfo(args.value(4)).absoluteFilePath());

    // Settings and logs stay in a scratch directory.
    QTemporaryDir work;
    QDir(work.path()).mkpath(QStringLiteral("run"));
    QDir(work.path()).mkpath(QStringLiteral("Data"));
    QFile::copy(QStringLiteral(OGM_SOURCE_DIR "/Data/format.vtl"),
                work.filePath(QStringLiteral("Data/format.vtl")));
    QDir::setCurrent(work.filePath(QStringLiteral("run")));
    qputenv(
        "XDG_CONFIG_HOME",
        work.filePath(QStringLiteral("config")).toLocal8Bit()); // the user's own preferences stay as they are
    qputenv("XDG_DATA_HOME", work.filePath(QStringLiteral("data")).toLocal8Bit()); // and the messages kept
    OrviaGonioManager::Utils::Settings::instance().keepAlivePeriodMs = 0;
    for (auto it = map.cbegin(); it != map.cend(); ++it)
        if (!it.value().isNull())
            OgmUi::BearingsWindow::preferences().setValue(it.key(), it.value());

    qputenv("GNX_EXTRA_PORTS", sim.slavePath().toLocal8Bit());
    OrviaGonioManager::Ui::MainWindow window;
    window.resize(1280, 800);
    window.show();

    const QDeadlineTimer deadline(20000);
    while (!window.portAction(sim.slavePath()) && !deadline.hasExpired())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 100);
    QAction* action = window.portAction(sim.slavePath());
    if (!action) {
        qCritical("the emulator's port was not detected");
        return 1;
    }
    action->trigger();
    int status = 1;
    if (flashRead) {
        window.form()->tabWidget->setCurrentIndex(2);
        QObject::connect(window.jobProgress(), &OrviaGonioManager::Utils::JobProgress::sigProgress, &app,
                         [&](qint64 done, qint64 total) {
                             if (status == 0 || done * 10 < total * 4)
                                 return;
                             status = window.grab().save(output) ? 0 : 1;
                             window.jobPanel()->cancelButton()->click();
                         });
        window.form()->pushButtonRxFlashRead->click();
        return status;
    }
    if (bearings) {
        window.form()->tabWidget->setCurrentIndex(2);
        window.form()->pushButtonRxFlashRead->click();
        OgmUi::BearingsWindow* w = window.bearingsWindow();
        w->resize(1200, 860);
        w->findChild<QSpinBox*>(QStringLiteral("spinBoxBearingsRange"))->setValue(150);
        w->show();
        // Once the fixes are in, home on a buoy and wait for the tiles the view needs.
        const QDeadlineTimer ready(20000);
        while (!(w->fixesReady() && w->fixes().size() == 3) && !ready.hasExpired())
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
        auto* platform = w->findChild<QComboBox*>(QStringLiteral("comboBoxBearingsPlatform"));
        platform->setCurrentIndex(platform->findData(QStringLiteral("2A1B3")));
        w->map()->fit();
        const QDeadlineTimer tiles(10000);
        do {
            w->map()->grab();
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
        } while ((w->map()->tileSource()->pendingCount() > 0) && !tiles.hasExpired());
        QCoreApplication::processEvents();
        return w->grab().save(output) ? 0 : 1;
    }
    if (history) {
        // The messages the window kept from a flash read, found again in the History window.
        QEventLoop kept;
        QObject::connect(window.storeWriter(), &OrviaGonioManager::Store::StoreWriter::stored, &kept,
                         [&](int added, int) {
                             if (added > 0)
                                 kept.quit();
                         });
        QTimer::singleShot(30000, &kept, &QEventLoop::quit);
        window.form()->tabWidget->setCurrentIndex(2);
        window.form()->pushButtonRxFlashRead->click();
        kept.exec();
        OgmUi::HistoryWindow* w = window.historyWindow();
        w->resize(1280, 640);
        w->show();
        QEventLoop found;
        QObject::connect(w, &OgmUi::HistoryWindow::sigQueryDone, &found, &QEventLoop::quit);
        QTimer::singleShot(20000, &found, &QEventLoop::quit);
        w->search();
        found.exec();
        QCoreApplication::processEvents();
        return w->model() && w->model()->rowCount() > 0 && w->grab().save(output) ? 0 : 1;
    }
    const int tab = args.value(3).toInt();
    if (tab > 0) {
        window.form()->tabWidget->setCurrentIndex(tab);
        if (tab == 2) // RX: show what the flash memory holds
            window.form()->pushButtonRxFlashRead->click();
    }
    QTimer::singleShot(500, &app, [&] {
        status = window.grab().save(output) ? 0 : 1;
        app.quit();
    });
    app.exec();
    return status;
}
