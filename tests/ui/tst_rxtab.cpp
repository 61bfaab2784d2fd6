// The "RX" tab against the emulator over a pseudo-terminal: live reports, the ID filter, the CSV
// export, reading and erasing the flash memory.
#include "common/WindowFixture.h"
#include "utils/GpsFormat.h"

#include <QHeaderView>
#include <QProcess>

class TestRxTab : public QObject, private WindowFixture
{
    Q_OBJECT

private:
    QList<int> usedSlots_;

    OrviaGonioManager::Utils::RxTableModel* rx() const { return window_->rxModel(); }
    QString cell(int row, int column) const { return rx()->cellText(row, column); }

    // The favourites table is the one the connection loaded; rows a case adds go at its end.
    bool connectModel(const QString& model, int flashRecords = 0)
    {
        if (!startAndConnect(simOptions(model, 3, flashRecords)))
            return false;
        ui()->tableWidgetPlatforms->setSortingEnabled(false);
        usedSlots_.clear();
        for (int i = 0; i < window_->gnxLink()->maxPlatformsNumber(); ++i)
            if (!sim_->platformSlot(i).isEmpty())
                usedSlots_ << i;
        return usedSlots_.size() == ui()->tableWidgetPlatforms->rowCount();
    }

    void addPlatformRow(const QStringList& cells)
    {
        QTableWidget* platforms = ui()->tableWidgetPlatforms;
        platforms->insertRow(platforms->rowCount());
        for (int c = 0; c < cells.size(); ++c)
            platforms->setItem(platforms->rowCount() - 1, c, new QTableWidgetItem(cells[c]));
    }

    void emitFrom(int slot, bool favourite)
    {
        const int before = rx()->allRowCount();
        QVERIFY(sim_->emitNpr(slot, favourite));
        QTRY_COMPARE_WITH_TIMEOUT(rx()->allRowCount(), before + 1, 10000);
    }

    QStringList exportTo(const QString& name)
    {
        const QString path = workDir_.filePath(name);
        dialogs_->files.enqueue(path);
        ui()->pushButtonRxExport->click();
        return QString::fromLatin1(readAll(path)).split('\n', Qt::SkipEmptyParts);
    }

private slots:
    void initTestCase() { QVERIFY(setUpWorkDir()); }
    void init() { resetDialogs(); }
    void cleanup() { tearDown(); }

    void liveReports_data()
    {
        QTest::addColumn<QString>("model");
        QTest::addColumn<bool>("favourite");
        for (const QString model : {"gnx134", "gnx234"})
            for (const bool favourite : {true, false})
                QTest::addRow("%s %s", qPrintable(model), favourite ? "NPRF" : "NPR") << model << favourite;
    }

    // Each report enters at the top with the favourite's index, label and payload position.
    void liveReports()
    {
        QFETCH(QString, model);
        QFETCH(bool, favourite);
        const bool gnx134 = model == "gnx134";
        QVERIFY(connectModel(model));
        ui()->checkBoxRxLogToFile->setChecked(true);
        for (int slot : usedSlots_) {
            emitFrom(slot, favourite);
            const QStringList stored = sim_->platformSlot(slot);
            QCOMPARE(cell(0, 0), QString("Live"));
            QCOMPARE(cell(0, 1), QString::number(slot));
            QCOMPARE(cell(0, 2), stored[4]);
            QCOMPARE(cell(0, 4), stored[3]);
            QCOMPARE(cell(0, 6).contains(" (avg "), gnx134 && favourite);
            QVERIFY(gnx134 ? cell(0, 7) == "B1" : cell(0, 7).startsWith('B'));
            QVERIFY(cell(0, 11) != "Invalid"); // the emulator's position is valid
            const bool hasFormat = stored[5] == "1";
            QCOMPARE(!cell(0, 14).isEmpty(), hasFormat);
            const QByteArray log = readAll(window_->sessionLogPath());
            const QByteArray expected = " Received : $" + QByteArray(favourite ? "NPRF," : "NPR,");
            QVERIFY2(log.split('\n').value(log.count('\n') - 1).contains(expected), log.constData());
        }
    }

    void rawReports_data()
    {
        QTest::addColumn<QString>("line");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<QString>("minutes"); // the receiver's position once "xx°xx.xx'" is chosen
        // The position sits 8 bits in: behind a junk byte for a 20-bit identifier, behind the
        // identifier's last byte (dropped on reception) for a 28-bit one. Flag bit 0 clear: the
        // receiver's own position is not valid.
        QTest::newRow("20-bit")
            << "NPR,26,11,22,3,4,5,ABCDE,401650000,6,10,-120,60000,120000,7,2,2,56,115265C0E4E1C0"
            << "Live|5|Raw A|2026-11-22T03:04:05|ABCDE|401650000|10|B3||-120|0|Invalid|Invalid|7|"
               "90|-110|115265C0E4E1C0"
            << QString::fromUtf8("Invalid|Invalid");
        QTest::newRow("28-bit")
            << "NPR,26,11,22,3,4,6,ABCDEF0,401650000,7,10,-120,60000,120000,7,2,0,56,F027E8B1E4E1C0"
            << "Live|6|Raw B|2026-11-22T03:04:06|ABCDEF0|401650000|10|B3||-120|0|1.00000|2.00000|7|"
               "43.5912|-110|27E8B1E4E1C0"
            << QString::fromUtf8("1°00.00'|2°00.00'");
    }

    void rawReports()
    {
        QFETCH(QString, line);
        QFETCH(QString, expected);
        QVERIFY(connectModel("gnx234"));
        OrviaGonioManager::Utils::GpsFormat_t format;
        format.name = "RAW";
        format.latitude = {0, 0, 8, 24, 1, 1, 0, 1, 0};
        format.longitude = {0, 0, 32, 24, 1, 1, 0, 1, 1}; // folds back to negative
        QVERIFY(OrviaGonioManager::Utils::GpsFormat::instance()->importGpsFormat(format));
        addPlatformRow({"5", "ABCDE", "Raw A", "RAW"});
        addPlatformRow({"6", "ABCDEF0", "Raw B", "RAW"});
        sim_->sendRawLine(line);
        QTRY_COMPARE_WITH_TIMEOUT(rx()->allRowCount(), 1, 10000);
        QStringList cells;
        for (int c = 0; c < rx()->COLUMN_COUNT; ++c)
            cells << cell(0, c);
        QCOMPARE(cells.join('|'), expected);

        // The receiver's position follows the coordinate type the device accepted; the payload's
        // stays in degrees with six significant digits, on screen and in the export.
        QFETCH(QString, minutes);
        for (int type : {1, 2}) {
            ui()->comboBoxSetupSoftwareCoordType->setCurrentIndex(type);
            QCOMPARE(sim_->softwareSetup().value(4), QString::number(type));
            if (type == 1)
                QCOMPARE(cell(0, 11) + '|' + cell(0, 12), minutes);
            QCOMPARE(exportTo("raw.csv").value(1).split(',').mid(14, 2), expected.split('|').mid(14, 2));
        }
    }

    // Export of the visible rows, or of the selected ones; commas inside cells are not escaped.
    void exportAndFilter()
    {
        QVERIFY(connectModel("gnx234"));
        ui()->tableWidgetPlatforms->item(0, 2)->setText("North, buoy");
        for (int slot : usedSlots_)
            emitFrom(slot, true);

        // Cancelled: nothing to check but the dialog's caption and filter.
        ui()->pushButtonRxExport->click();
        QCOMPARE(dialogs_->fileCaptions.value(0),
                 QString("Select RX file (CSV format)|RX Files (*.csv *.txt);;All files (*)"));

        const QStringList all = exportTo("all.csv");
        QCOMPARE(all.value(0),
                 QString::fromLatin1(
                     "Origin,Index,Label,Time,Id,Frequency (Hz),Direction (\xB0),Band,"
                     "Modulation,Level (dBm),Period (s),Latitude GNX (\xB0),Longitude GNX (\xB0),"
                     "Direction GNX (\xB0),Latitude payload (\xB0),Longitude payload (\xB0),Payload"));
        QCOMPARE(all.size(), rx()->allRowCount() + 1);
        QVERIFY2(all.last().contains(",North, buoy,"), qPrintable(all.last()));

        ui()->tableViewRx->selectRow(1);
        const QStringList selected = exportTo("selected.csv");
        QCOMPARE(selected.size(), 2);
        QStringList cells;
        for (int c = 0; c < rx()->COLUMN_COUNT; ++c)
            cells << cell(1, c);
        QCOMPARE(selected[1], cells.join(','));

        // The filter hides what does not match, also a row that arrives while it is set; the
        // selected row stays selected, live rows entering or not, and keeps its number.
        ui()->lineEditRxIdFilter->setText(cell(1, 4));
        QCOMPARE(rx()->headerData(0, Qt::Vertical), QVariant(2));
        emitFrom(usedSlots_[0], true);
        emitFrom(usedSlots_[1], true);
        QCOMPARE(exportTo("selected-filtered.csv"), selected);
        ui()->pushButtonRxClearSelection->click();
        QCOMPARE(exportTo("filtered.csv").mid(2), all.mid(2, 1));
        ui()->lineEditRxIdFilter->clear();
        for (int row = 0; row < rx()->allRowCount(); ++row)
            QVERIFY(!rx()->isHidden(row));
    }

    void columnsFitTheirText_data()
    {
        QTest::addColumn<bool>("flash");
        QTest::newRow("live report") << false;
        QTest::newRow("read from flash") << true;
    }

    // The time is read whole however its row came; the empty modulation takes its header's room;
    // the other columns are the user's to size, and a flash read fits them to their rows.
    void columnsFitTheirText()
    {
        using Model = OrviaGonioManager::Utils::RxTableModel;
        QFETCH(bool, flash);
        QVERIFY(connectModel("gnx234", flash ? 4 : 0));
        ui()->tabWidget->setCurrentWidget(ui()->tabRx);
        QTableView* view = ui()->tableViewRx;
        const QAbstractItemView* cells = view; // where the cells' size hint is public
        const QHeaderView* header = view->horizontalHeader();
        if (flash)
            ui()->pushButtonRxFlashRead->click();
        else
            emitFrom(usedSlots_[0], true);
        const QString time = cell(0, Model::COL_TIME);
        QVERIFY(QDateTime::fromString(time, "yyyy-MM-ddThh:mm:ss").isValid());
        QTRY_VERIFY(view->columnWidth(Model::COL_TIME) >= cells->sizeHintForColumn(Model::COL_TIME));
        QVERIFY(view->columnWidth(Model::COL_TIME) > view->fontMetrics().horizontalAdvance(time));
        QCOMPARE(cell(0, Model::COL_MODULATION), QString());
        QTRY_COMPARE(view->columnWidth(Model::COL_MODULATION),
                     header->sectionSizeHint(Model::COL_MODULATION));
        for (int c = 0; c < Model::COLUMN_COUNT; ++c) {
            if (c == Model::COL_TIME || c == Model::COL_MODULATION)
                continue;
            QCOMPARE(header->sectionResizeMode(c), QHeaderView::Interactive);
            const int fitted = qMax(cells->sizeHintForColumn(c), header->sectionSizeHint(c));
            QCOMPARE(view->columnWidth(c), flash ? fitted : header->defaultSectionSize());
        }
    }

    void readFlash_data() { bothModels(); }

    // Every stored record becomes a row, newest first. A record names its favourite only by an equal
    // identifier: a GNX234 record carries every identifier on 28 bits, 7 characters.
    void readFlash()
    {
        QFETCH(QString, model);
        QVERIFY(connectModel(model, 12));
        QMap<QString, QString> livePositions; // time and identifier -> payload position
        QMap<QString, QString> favourites;    // identifier -> index
        for (int slot : usedSlots_) {
            emitFrom(slot, true);
            livePositions.insert(cell(0, 3) + cell(0, 4), cell(0, 14) + cell(0, 15));
            favourites.insert(cell(0, 4), cell(0, 1));
        }
        ui()->pushButtonRxClearTable->click();
        ui()->pushButtonRxFlashRead->click();
        QVERIFY2(dialogs_->criticals.isEmpty(), qPrintable(dialogs_->criticals.join('|')));
        QCOMPARE(rx()->allRowCount(), sim_->flashRecordCount());
        int seenLive = 0;
        for (int row = 0; row < rx()->allRowCount(); ++row) {
            QCOMPARE(cell(row, 0), QString("Flash"));
            if (row > 0)
                QVERIFY(cell(row - 1, 3) >= cell(row, 3));
            const QString id = cell(row, 4);
            QCOMPARE(cell(row, 1), favourites.value(id));
            const QString key = cell(row, 3) + id;
            if (livePositions.contains(key)) {
                QCOMPARE(cell(row, 14) + cell(row, 15), livePositions.value(key));
                ++seenLive;
            }
        }
        int expected = 0;
        for (const QString& id : favourites.keys())
            expected += model == "gnx134" || id.size() == 7;
        QCOMPARE(seenLive, expected);

        // The command line writes the same bytes as the window's export, for the same receiver.
        exportTo("window.csv");
        window_->portAction(sim_->slavePath())->trigger(); // the window lets the port go
        QProcess gnxctl;
        gnxctl.start(GNXCTL_PATH, {"--port", sim_->slavePath(), "flash", "read", "--format", "csv"});
        QVERIFY(gnxctl.waitForFinished(30000));
        QCOMPARE(gnxctl.exitCode(), 0);
        QCOMPARE(gnxctl.readAllStandardOutput(), readAll(workDir_.filePath("window.csv")));
    }

    void eraseFlash_data() { readFlash_data(); }

    void eraseFlash()
    {
        QFETCH(QString, model);
        QVERIFY(connectModel(model, 4));
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
        QStringList perSlot; // a GNX134 erases slot by slot
        for (int slot : usedSlots_)
            perSlot << "DFP," + QString::number(slot);
        QCOMPARE(sim_->receivedLines(), model == "gnx134" ? perSlot : QStringList{"DFP"});
        QCOMPARE(sim_->flashRecordCount(), 0);
    }
};

QTEST_MAIN(TestRxTab)
#include "tst_rxtab.moc"
