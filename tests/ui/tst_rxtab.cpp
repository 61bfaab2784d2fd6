// The "RX" tab against the emulator over a pseudo-terminal: live reports, the ID filter, the CSV
// export, reading and erasing the flash memory.
#include "app/Settings.h"
#include "common/RecordingDialogs.h"
#include "sim/PtySimulator.h"
#include "ui/MainWindow.h"
#include "ui_MainWindow.h"
#include "utils/GpsFormat.h"

#include <QAction>
#include <QDir>
#include <QTemporaryDir>
#include <QTest>

using OrviaGonioManager::Ui::MainWindow;

namespace {

QString cell(QTableWidget* table, int row, int column)
{
    const QTableWidgetItem* item = table->item(row, column);
    return item ? item->text() : QString();
}

QByteArray readAll(const QString& path)
{
    QFile f(path);
    f.open(QIODevice::ReadOnly);
    return f.readAll();
}

} // namespace

class TestRxTab : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir workDir_;
    std::unique_ptr<gnxsim::PtySimulator> sim_;
    std::unique_ptr<MainWindow> window_;
    std::unique_ptr<RecordingDialogs> dialogs_;
    QList<int> usedSlots_;

    ::Ui::MainWindow* ui() const { return window_->form(); }
    QTableWidget* rx() const { return ui()->tableWidgetRx; }

    void connectTo(const QString& model, int flashRecords = 0)
    {
        gnxsim::Options options;
        options.model = model == "gnx134" ? gnxsim::Model::Gnx134 : gnxsim::Model::Gnx234;
        options.platforms = 3;
        options.flashRecords = flashRecords;
        sim_ = std::make_unique<gnxsim::PtySimulator>(options);
        QVERIFY2(sim_->start(), qPrintable(sim_->errorString()));
        const QString port = sim_->slavePath();
        qputenv("GNX_EXTRA_PORTS", port.toLocal8Bit());
        window_ = std::make_unique<MainWindow>();
        window_->show();
        QTRY_VERIFY_WITH_TIMEOUT(window_->portAction(port), 10000);
        window_->portAction(port)->trigger();
        QCOMPARE(window_->connectedPort(), port);
        fillPlatforms();
    }

    // The favourites table as the platforms tab shows it (Index, Id, Label, GPS Format); reading
    // each slot also brings its GPS format in.
    void fillPlatforms()
    {
        QTableWidget* platforms = ui()->tableWidgetPlatforms;
        platforms->setSortingEnabled(false);
        platforms->setRowCount(0);
        usedSlots_.clear();
        for (int i = 0; i < window_->gnxLink()->maxPlatformsNumber(); ++i) {
            if (sim_->platformSlot(i).isEmpty())
                continue;
            const auto info = window_->gnxLink()->getPlatformInfo(i);
            const int row = platforms->rowCount();
            platforms->insertRow(row);
            const QStringList cells{QString::number(i), info.id, info.label,
                                    info.gpsFormat ? info.gpsFormat->name : QString()};
            for (int c = 0; c < cells.size(); ++c)
                platforms->setItem(row, c, new QTableWidgetItem(cells[c]));
            usedSlots_ << i;
        }
        QVERIFY(!usedSlots_.isEmpty());
    }

    void emitFrom(int slot, bool favourite)
    {
        const int before = rx()->rowCount();
        QVERIFY(sim_->emitNpr(slot, favourite));
        QTRY_COMPARE_WITH_TIMEOUT(rx()->rowCount(), before + 1, 10000);
    }

    QStringList exportTo(const QString& name)
    {
        const QString path = workDir_.filePath(name);
        dialogs_->files.enqueue(path);
        ui()->pushButtonRxExport->click();
        return QString::fromLatin1(readAll(path)).split('\n', Qt::SkipEmptyParts);
    }

private slots:
    void initTestCase()
    {
        QDir(workDir_.path()).mkpath("run");
        QDir(workDir_.path()).mkpath("Data");
        QFile formats(workDir_.filePath("Data/format.vtl"));
        QVERIFY(formats.open(QIODevice::WriteOnly));
        formats.write("0\n");
        formats.close();
        QVERIFY(QDir::setCurrent(workDir_.filePath("run")));
        auto& settings = OrviaGonioManager::Utils::Settings::instance();
        settings.keepAlivePeriodMs = 0;
        settings.gnxCommandTimeoutMs = 5000;
    }

    void init() { dialogs_ = std::make_unique<RecordingDialogs>(); }

    void cleanup()
    {
        window_.reset();
        sim_.reset();
        dialogs_.reset();
    }

    void liveReports_data()
    {
        QTest::addColumn<QString>("model");
        QTest::addColumn<bool>("favourite");
        QTest::newRow("gnx134 NPRF") << "gnx134" << true;
        QTest::newRow("gnx134 NPR") << "gnx134" << false;
        QTest::newRow("gnx234 NPRF") << "gnx234" << true;
        QTest::newRow("gnx234 NPR") << "gnx234" << false;
    }

    // Each report enters at the top with the favourite's index, label and payload position.
    void liveReports()
    {
        QFETCH(QString, model);
        QFETCH(bool, favourite);
        const bool gnx134 = model == "gnx134";
        connectTo(model);
        ui()->checkBoxRxLogToFile->setChecked(true);
        for (int slot : usedSlots_) {
            emitFrom(slot, favourite);
            const QStringList stored = sim_->platformSlot(slot);
            QCOMPARE(cell(rx(), 0, 0), QString("Live"));
            QCOMPARE(cell(rx(), 0, 1), QString::number(slot));
            QCOMPARE(cell(rx(), 0, 2), stored[4]);
            QCOMPARE(cell(rx(), 0, 4), stored[3]);
            QVERIFY(QDateTime::fromString(cell(rx(), 0, 3), "yyyy-MM-ddThh:mm:ss").isValid());
            QCOMPARE(cell(rx(), 0, 6).contains(" (avg "), gnx134 && favourite);
            QCOMPARE(cell(rx(), 0, 7).startsWith('B'), !gnx134);
            QVERIFY(cell(rx(), 0, 11) != "Invalid"); // the emulator's position is valid
            const bool hasFormat = stored[5] == "1";
            QCOMPARE(!cell(rx(), 0, 14).isEmpty(), hasFormat);
            if (hasFormat) {
                bool latOk = false, lonOk = false;
                const double lat = cell(rx(), 0, 14).toDouble(&latOk);
                const double lon = cell(rx(), 0, 15).toDouble(&lonOk);
                QVERIFY2(latOk && lonOk && qAbs(lat) <= 90 && qAbs(lon) <= 180,
                         qPrintable(cell(rx(), 0, 14) + " " + cell(rx(), 0, 15)));
            }
            const QByteArray log = readAll(window_->sessionLogPath());
            const QByteArray expected = " Received : $" + QByteArray(favourite ? "NPRF," : "NPR,");
            QVERIFY2(log.split('\n').value(log.count('\n') - 1).contains(expected), log.constData());
        }
    }

    // The filter hides what does not match, also a row that arrives while it is set.
    void idFilter()
    {
        connectTo("gnx234");
        emitFrom(usedSlots_[0], true);
        const QString id = cell(rx(), 0, 4);
        emitFrom(usedSlots_[1], true);
        ui()->lineEditRxIdFilter->setText(id);
        QVERIFY(rx()->isRowHidden(0));
        QVERIFY(!rx()->isRowHidden(1));
        emitFrom(usedSlots_[2], true);
        QVERIFY(rx()->isRowHidden(0));
        QCOMPARE(exportTo("filtered.csv").size(), 2);
        ui()->lineEditRxIdFilter->clear();
        for (int row = 0; row < rx()->rowCount(); ++row)
            QVERIFY(!rx()->isRowHidden(row));
    }

    void exportCsv()
    {
        connectTo("gnx234");
        ui()->tableWidgetPlatforms->item(0, 2)->setText("North, buoy");
        for (int slot : usedSlots_)
            emitFrom(slot, true);

        // Nothing written when the dialog is cancelled.
        ui()->pushButtonRxExport->click();
        QCOMPARE(dialogs_->fileCaptions.value(0),
                 QString("Select RX file (CSV format)|RX Files (*.csv *.txt);;All files (*)"));

        const QStringList all = exportTo("all.csv");
        QCOMPARE(all.value(0),
                 QString::fromLatin1(
                     "Origin,Index,Label,Time,Id,Frequency (Hz),Direction (\xB0),Band,"
                     "Modulation,Level (dBm),Period (s),Latitude GNX (\xB0),Longitude GNX (\xB0),"
                     "Direction GNX (\xB0),Latitude payload (\xB0),Longitude payload (\xB0),Payload"));
        QVERIFY(readAll(workDir_.filePath("all.csv")).contains("Direction (\xB0)"));
        QCOMPARE(all.size(), rx()->rowCount() + 1);
        const int last = rx()->rowCount() - 1; // the first report, of slot 0
        QVERIFY2(all.last().contains(",North, buoy,"), qPrintable(all.last()));
        QCOMPARE(all.last().split(',').size(), 18);

        rx()->selectRow(1);
        const QStringList selected = exportTo("selected.csv");
        QCOMPARE(selected.size(), 2);
        QStringList cells;
        for (int c = 0; c < rx()->columnCount(); ++c)
            cells << cell(rx(), 1, c);
        QCOMPARE(selected[1], cells.join(','));
        QCOMPARE(cell(rx(), last, 2), QString("North, buoy"));

        ui()->pushButtonRxClearSelection->click();
        QCOMPARE(exportTo("again.csv").size(), rx()->rowCount() + 1);
        ui()->pushButtonRxClearTable->click();
        QCOMPARE(rx()->rowCount(), 0);
    }

    void readFlash_data()
    {
        QTest::addColumn<QString>("model");
        QTest::newRow("gnx134") << "gnx134";
        QTest::newRow("gnx234") << "gnx234";
    }

    // Every stored record becomes a row, newest first; favourites keep their index and payload
    // position even when the record carries the identifier on 28 bits.
    void readFlash()
    {
        QFETCH(QString, model);
        connectTo(model, 12);
        QMap<QString, QString> livePositions; // time and index -> payload position
        for (int slot : usedSlots_) {
            emitFrom(slot, true);
            livePositions.insert(cell(rx(), 0, 3) + cell(rx(), 0, 1), cell(rx(), 0, 14) + cell(rx(), 0, 15));
        }
        ui()->pushButtonRxClearTable->click();
        ui()->pushButtonRxFlashRead->click();
        QVERIFY2(dialogs_->criticals.isEmpty(), qPrintable(dialogs_->criticals.join('|')));
        QCOMPARE(rx()->rowCount(), sim_->flashRecordCount());
        int seenLive = 0;
        for (int row = 0; row < rx()->rowCount(); ++row) {
            QCOMPARE(cell(rx(), row, 0), QString("Flash"));
            if (row > 0)
                QVERIFY(cell(rx(), row - 1, 3) >= cell(rx(), row, 3));
            const QString key = cell(rx(), row, 3) + cell(rx(), row, 1);
            if (livePositions.contains(key)) {
                QCOMPARE(cell(rx(), row, 14) + cell(rx(), row, 15), livePositions.value(key));
                ++seenLive;
            }
        }
        QCOMPARE(seenLive, usedSlots_.size());
    }

    void eraseFlash_data() { readFlash_data(); }

    void eraseFlash()
    {
        QFETCH(QString, model);
        const bool gnx134 = model == "gnx134";
        connectTo(model, 4);
        const QString question = "Delete RX messages in flash memory?|"
                                 "Are you sure you want to delete RX messages in flash memory?";
        sim_->clearReceived();
        dialogs_->answers.enqueue(QMessageBox::No);
        ui()->pushButtonRxFlashErase->click();
        QCOMPARE(dialogs_->questions, QStringList{question});
        QVERIFY(sim_->receivedLines().isEmpty());

        dialogs_->answers.enqueue(QMessageBox::Yes);
        ui()->pushButtonRxFlashErase->click();
        QCOMPARE(dialogs_->questions.size(), 2);
        const QStringList lines = sim_->receivedLines();
        QCOMPARE(lines.size(), gnx134 ? usedSlots_.size() : 1);
        for (const QString& line : lines)
            QVERIFY2(line.startsWith("DFP"), qPrintable(line));
        QCOMPARE(sim_->flashRecordCount(), 0);
    }
};

QTEST_MAIN(TestRxTab)
#include "tst_rxtab.moc"
