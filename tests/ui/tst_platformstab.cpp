// The "Favorite platforms" and "GPS Format Info" tabs against the emulator over a pseudo-terminal:
// what the table shows, what reaches the receiver, the platform files and the GPS formats file.
#include "common/WindowFixture.h"
#include "ui/JobPanel.h"
#include "utils/JobProgress.h"

namespace {

QStringList rowsOf(const QTableWidget* table)
{
    QStringList rows;
    for (int r = 0; r < table->rowCount(); ++r) {
        QStringList cells;
        for (int c = 0; c < table->columnCount(); ++c)
            cells << table->item(r, c)->text();
        rows << cells.join('|');
    }
    return rows;
}

QStringList itemsOf(const QComboBox* combo)
{
    QStringList items;
    for (int i = 0; i < combo->count(); ++i)
        items << combo->itemText(i);
    return items;
}

// A GPS formats file line: name, three texts, then 27 numbers.
QByteArray formatLine(const QString& name)
{
    QStringList fields{name, "T", "M", "D"};
    for (int i = 0; i < 27; ++i)
        fields << (i == 24 ? "8" : "1"); // dataLen in range
    return fields.join(',').toUtf8() + "#\n";
}

} // namespace

class TestPlatformsTab : public QObject, private WindowFixture
{
    Q_OBJECT

private:
    // The table the receiver's slots should give: index, identifier, label, format name.
    QStringList deviceRows() const
    {
        QStringList rows;
        for (int i = 0; i < window_->gnxLink()->maxPlatformsNumber(); ++i) {
            const QStringList p = sim_->platformSlot(i);
            if (!p.isEmpty())
                rows << QStringList{QString::number(i), p[3], p[4], p[5] == "1" ? p[6] : ""}.join('|');
        }
        return rows;
    }

private slots:
    void initTestCase() { QVERIFY(setUpWorkDir()); }

    void init()
    {
        QVERIFY(!writeFile("Data/format.vtl", "0\n").isEmpty());
        resetDialogs();
    }

    void cleanup() { tearDown(); }

    void platforms_data() { bothModels(); }

    void platforms()
    {
        QFETCH(QString, model);
        const bool gnx134 = model == "gnx134";
        QVERIFY(startAndConnect(simOptions(model, 5)));
        QTableWidget* table = ui()->tableWidgetPlatforms;
        QCOMPARE(rowsOf(table), deviceRows());
        // The slots' formats were taken over from the receiver.
        QVERIFY(rowsOf(ui()->tableWidgetGpsFormats)
                    .contains(table->item(0, 3)->text() + "|From Gonio favorite plaform"));

        // An edit is one write of the whole slot, then a read of it.
        const QString read = "IP,1" + QString(",").repeated(gnx134 ? 35 : 38);
        const QStringList before = sim_->platformSlot(1);
        table->selectRow(1);
        ui()->lineEditPlatformsLabel->setText("Edited");
        ui()->spinBoxPlatformsRepetitionPeriod->setValue(123);
        sim_->clearReceived();
        ui()->pushButtonPlatformsSave->click();
        QCOMPARE(dialogs_->criticals, QStringList());
        QStringList expected = before;
        expected[4] = "Edited";
        expected[28] = "123";
        QCOMPARE(sim_->platformSlot(1), expected);
        QCOMPARE(sim_->receivedLines(), QStringList({"IP," + expected.join(','), read}));
        QCOMPARE(rowsOf(table), deviceRows());

        // A new identifier re-creates the slot, once the user agreed.
        dialogs_->answers << QMessageBox::Yes;
        ui()->lineEditPlatformsOrviaId->setText("ABCDE");
        sim_->clearReceived();
        ui()->pushButtonPlatformsSave->click();
        QCOMPARE(
            dialogs_->questions,
            QStringList("Delete associated flash memory?|This modification will need a delete and create "
                        "operation on this platform.\n\nAll recorded message in flash memory associated "
                        "to this platform will be lost.\n\nAre you sure you want to continue?"));
        const QStringList wire = sim_->receivedLines();
        QCOMPARE(wire.size(), 3);
        QCOMPARE(wire[0], "IP,1,0" + QString(",").repeated(gnx134 ? 34 : 37));
        QVERIFY2(wire[1].startsWith("IP,1,1,1,ABCDE,Edited,"), qPrintable(wire[1]));
        QCOMPARE(table->item(1, 1)->text(), QString("ABCDE"));

        // Export, then import on the same generation: the same slots on the receiver.
        const QString file = workDir_.filePath("platforms.csv");
        const QStringList rows = rowsOf(table);
        QStringList slotsBefore;
        for (int i = 0; i < 5; ++i)
            slotsBefore << sim_->platformSlot(i).join(',');

        dialogs_->files << file;
        ui()->pushButtonPlatformsExport->click();
        const QList<QByteArray> lines = readAll(file).split('\n');
        QCOMPARE(lines.size(), 7); // header, five platforms, final ""
        QCOMPARE(lines[0], gnx134 ? QByteArray("#,Orvia ID,Label,GPS Format Name,Repetition period,Mean "
                                               "Direction Values")
                                  : QByteArray("#,Orvia ID,Label,GPS Format Name,Repetition period,Orvia "
                                               "Band,Modulation,Frequency Mode,Narrow Mode Frequency"));
        QCOMPARE(
            dialogs_->fileCaptions,
            QStringList("Select platforms file (CSV format)|Platforms Files (*.csv *.txt);;All files (*)"));

        dialogs_->answers << QMessageBox::Yes;
        dialogs_->files << file;
        ui()->pushButtonPlatformsImport->click();
        QCOMPARE(dialogs_->criticals, QStringList());
        QCOMPARE(
            dialogs_->questions.last(),
            QString("Delete all platforms?|Are you sure you want to delete all favorite platform entries?"));
        QCOMPARE(rowsOf(table), rows);
        for (int i = 0; i < 5; ++i)
            QCOMPARE(sim_->platformSlot(i).join(','), slotsBefore[i]);

        { // Cancelled after two platforms: the table shows the two the receiver holds.
            QObject cancelAtTwo;
            connect(window_->jobProgress(), &OrviaGonioManager::Utils::JobProgress::sigProgress, &cancelAtTwo,
                    [&](qint64 done) {
                        if (done == 2)
                            window_->jobPanel()->cancelButton()->click();
                    });
            dialogs_->answers << QMessageBox::Yes;
            dialogs_->files << file;
            ui()->pushButtonPlatformsImport->click();
            QCOMPARE(table->rowCount(), 2);
            QCOMPARE(rowsOf(table), deviceRows());
        }

        // A file of the other generation stops at its first line; so does a line of spaces, which
        // is not an empty line.
        const QByteArray otherGeneration =
            gnx134 ? "# header\n12345,Buoy,,10,0,0,1,0\n" : "12345,Buoy,,10,3\n";
        for (const QByteArray& content : {otherGeneration, "\n  \n" + lines[1] + '\n'}) {
            const QString other = writeFile("other.csv", content);
            QVERIFY(!other.isEmpty());
            dialogs_->criticals.clear();
            dialogs_->answers << QMessageBox::Yes;
            dialogs_->files << other;
            ui()->pushButtonPlatformsImport->click();
            QCOMPARE(dialogs_->criticals,
                     QStringList("Unable to read platforms file " + other +
                                 ", wrong number of columns. Columns shoud be " + (gnx134 ? "5." : "8.")));
            QCOMPARE(table->rowCount(), 0);
            QVERIFY(sim_->platformSlot(0).isEmpty());
        }
    }

    void gpsFormats()
    {
        QVERIFY(!writeFile("Data/format.vtl", "2\n" + formatLine("Alpha") + formatLine("Beta")).isEmpty());
        QVERIFY(startAndConnect(simOptions("gnx234")));
        QTableWidget* table = ui()->tableWidgetGpsFormats;
        QCOMPARE(rowsOf(table), QStringList({"Alpha|From VTL file", "Beta|From VTL file"}));
        QCOMPARE(itemsOf(ui()->comboBoxPlatformsGpsFormats), QStringList({"No GPS Format", "Alpha", "Beta"}));

        // Create, edit and save: the row keeps its place under the new name.
        ui()->pushButtonGpsFormatsCreate->click();
        QCOMPARE(rowsOf(table).last(), QString("New GPS Format|From Orvia Gonio Manager"));
        ui()->lineEditGpsFormatsName->setText("Gamma");
        ui()->lineEditGpsFormatsEncryptionPolynom->setText("1021");
        ui()->lineEditGpsFormatsEncryptionDataLen->setText("16");
        ui()->pushButtonGpsFormatsSave->click();
        QCOMPARE(dialogs_->criticals, QStringList());
        QCOMPARE(rowsOf(table).last(), QString("Gamma|From GNX GUI"));
        QCOMPARE(itemsOf(ui()->comboBoxPlatformsGpsFormats),
                 QStringList({"No GPS Format", "Alpha", "Beta", "Gamma"}));

        // Delete "Alpha" after the question.
        table->selectRow(0);
        dialogs_->answers << QMessageBox::Yes;
        ui()->pushButtonGpsFormatsDelete->click();
        QCOMPARE(dialogs_->questions,
                 QStringList("Delete GPS format?|Are you sure you want to delete this GPS format?"));
        QCOMPARE(rowsOf(table), QStringList({"Beta|From VTL file", "Gamma|From GNX GUI"}));
        QCOMPARE(itemsOf(ui()->comboBoxPlatformsGpsFormats), QStringList({"No GPS Format", "Beta", "Gamma"}));

        // Save to file, which is then read back.
        ui()->pushButtonGpsFormatsSaveFile->click();
        QCOMPARE(readAll(workDir_.filePath("Data/format.vtl")),
                 "2\n" + formatLine("Beta") + "Gamma,,,Created by Orvia Gonio Manager," +
                     QByteArray("0,").repeated(19) + "0,1021,0,0,0,16,0,0#\n");
        QCOMPARE(rowsOf(table), QStringList({"Beta|From VTL file", "Gamma|From VTL file"}));
        QCOMPARE(dialogs_->criticals, QStringList());
    }
};

QTEST_MAIN(TestPlatformsTab)
#include "tst_platformstab.moc"
