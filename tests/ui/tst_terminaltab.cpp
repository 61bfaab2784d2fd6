// The "Terminal" tab against the emulator over a pseudo-terminal: typed commands, scripts played
// back line by line, and the configuration saved as a script and replayed on a second receiver.
#include "common/WindowFixture.h"
#include "sim/Frame.h"

namespace {

const QString dialogCaption = "Select GNX Script|GNX Script Files (*.gnx *.txt);;All files (*)";

// The software setup without its clock fields, which a setup write leaves empty.
QStringList withoutClock(QStringList setup)
{
    for (int i = 7; i <= 11 && i < setup.size(); ++i)
        setup[i].clear();
    return setup;
}

} // namespace

class TestTerminalTab : public QObject, private WindowFixture
{
    Q_OBJECT

private:
    // Connected, with the emulator's command log emptied of what connecting sent.
    bool showAndConnect(const QString& model = "gnx234", int platforms = 0)
    {
        if (!startAndConnect(simOptions(model, platforms)))
            return false;
        sim_->clearReceived();
        return true;
    }

    void play(const QString& path)
    {
        dialogs_->files << path;
        ui()->pushButtonTerminalScript->click();
        QCOMPARE(dialogs_->fileCaptions.last(), dialogCaption);
    }

private slots:
    void initTestCase() { QVERIFY(setUpWorkDir()); }
    void init() { resetDialogs(); }
    void cleanup() { tearDown(); }

    void sendPassesTheLine()
    {
        QVERIFY(showAndConnect());
        // A known command waits for its reply: the values are there as soon as the click returns.
        const QStringList reply{"GNX234", "77", "88", "B", "APP", "1.0", "2.0", "3.0"};
        sim_->overrideNextReply("TEST", reply);
        ui()->lineEditTerminalCommand->setText("TEST");
        ui()->pushButtonTerminalSend->click();
        QCOMPARE(sim_->receivedLines(), QStringList{"TEST"});
        QCOMPARE(window_->gnxLink()->replyValues(), reply);
        // Any other text goes out as typed.
        ui()->lineEditTerminalCommand->setText("HELLO,1,2");
        ui()->pushButtonTerminalSend->click();
        QTRY_COMPARE(sim_->receivedLines(), (QStringList{"TEST", "HELLO,1,2"}));
        QCOMPARE(dialogs_->criticals, QStringList());
    }

    void scriptSendsDollarLines_data()
    {
        QTest::addColumn<QByteArray>("script");
        QTest::addColumn<QStringList>("sent");
        QTest::addColumn<int>("errors");
        QTest::newRow("empty") << QByteArray() << QStringList() << 0;
        QTest::newRow("no dollar lines") << QByteArray("GSN\n# $TEST\n\n  $TEST\n") << QStringList() << 0;
        QTest::newRow("comments and blanks")
            << QByteArray("# copy\n\n$GSN\nTEST\n$TEST\n \n$LIG") << QStringList{"GSN", "TEST", "LIG"} << 0;
        QTest::newRow("crlf") << QByteArray("$GSN\r\n$TEST\r\n") << QStringList{"GSN", "TEST"} << 0;
        QTest::newRow("rejected line, playback goes on") << QByteArray("$SETUPHW,9,9,9,9,9,9,9\n$GSN\n")
                                                         << QStringList{"SETUPHW,9,9,9,9,9,9,9", "GSN"} << 1;
    }

    void scriptSendsDollarLines()
    {
        QFETCH(QByteArray, script);
        QFETCH(QStringList, sent);
        QFETCH(int, errors);
        QVERIFY(showAndConnect());
        const QString path = writeFile("script.gnx", script);
        play(path);
        // An awaited marker: whatever the script sent has reached the device before it.
        window_->gnxLink()->sendBlockingRequest(OrviaGonioManager::Com::GnxLink::CMD_GSN);
        QCOMPARE(sim_->receivedLines(), sent + QStringList{"GSN"});
        QCOMPARE(dialogs_->criticals.size(), errors);
        if (errors)
            QVERIFY(dialogs_->criticals.first().contains(path + ", line 1: "));
    }

    void fileErrors()
    {
        QVERIFY(showAndConnect());
        const QString dir = workDir_.filePath("missing-dir");
        dialogs_->files << dir + "/config.gnx";
        ui()->pushButtonTerminalSaveScript->click();
        QCOMPARE(dialogs_->fileCaptions.last(), dialogCaption);
        play(dir + "/script.gnx");
        QCOMPARE(dialogs_->criticals, (QStringList{"Unable to open GNX script file " + dir + "/config.gnx",
                                                   "Unable to GNX script file " + dir + "/script.gnx"}));
        QVERIFY(!window_->gnxLink()->isRecording());
        QCOMPARE(sim_->receivedLines(), QStringList());
    }

    void saveAndPlayBack_data() { bothModels(); }

    void saveAndPlayBack()
    {
        QFETCH(QString, model);
        const QList<int> used{0, 2, 5};
        QVERIFY(showAndConnect(model, 6));
        for (int i : {1, 3, 4}) // gaps between the used slots
            window_->gnxLink()->deletePlatformInfo(i);
        window_->slotGetPlatformsInfo();
        QCOMPARE(ui()->tableWidgetPlatforms->rowCount(), used.size());
        // Settings that the second device does not have.
        ui()->spinBoxHardwareCableLength->setValue(77);
        ui()->checkBoxSetupSoftwareAudio->toggle();
        ui()->spinBoxSetupSoftwareDirectionOffset->setValue(123);

        // Saving sends nothing and writes the setups, then the used slots in index order.
        sim_->clearReceived();
        const QString path = workDir_.filePath("config.gnx");
        dialogs_->files << path;
        ui()->pushButtonTerminalSaveScript->click();
        QCOMPARE(dialogs_->criticals, QStringList());
        QCOMPARE(dialogs_->questions, QStringList());
        QCOMPARE(sim_->receivedLines(), QStringList());
        QVERIFY(!window_->gnxLink()->isRecording());
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly | QIODevice::Text));
        const QStringList frames = QString::fromLatin1(file.readAll()).split('\n', Qt::SkipEmptyParts);
        QCOMPARE(frames.size(), 2 + used.size());
        QStringList payloads;
        QList<QStringList> params;
        for (const QString& frame : frames) {
            const gnxsim::Frame::Parsed parsed = gnxsim::Frame::parseLine(frame.toLatin1());
            QVERIFY2(parsed.framed && parsed.checksumOk, qPrintable(frame));
            payloads << QString::fromLatin1(parsed.payload);
            params << (QStringList{parsed.mnemonic} + parsed.params);
        }
        QCOMPARE(params[0], QStringList{"SETUPSW"} + withoutClock(sim_->softwareSetup()));
        QCOMPARE(params[1], QStringList{"SETUPHW"} + sim_->hardwareSetup());
        for (int k = 2; k < params.size(); ++k) {
            QCOMPARE(params[k].value(0), QString("IP"));
            QCOMPARE(params[k].value(1), QString::number(used[k - 2]));
            QCOMPARE(params[k].value(2), QString("1")); // re-created on playback
        }

        // Played on a second receiver, the script reproduces the setups and the slots.
        gnxsim::Options options = simOptions(model);
        options.seed = 7;
        QVERIFY(startSim(sim2_, options));
        qputenv("GNX_EXTRA_PORTS", (sim_->slavePath() + ":" + sim2_->slavePath()).toLocal8Bit());
        QVERIFY(connectTo(sim2_->slavePath()));
        QVERIFY(sim2_->hardwareSetup() != sim_->hardwareSetup());
        sim2_->clearReceived();
        play(path);
        QCOMPARE(dialogs_->criticals, QStringList());
        QCOMPARE(sim2_->receivedLines(), payloads);
        QCOMPARE(withoutClock(sim2_->softwareSetup()), withoutClock(sim_->softwareSetup()));
        QCOMPARE(sim2_->hardwareSetup(), sim_->hardwareSetup());
        for (int i = 0; i < 6; ++i)
            QCOMPARE(sim2_->platformSlot(i), sim_->platformSlot(i));
        QVERIFY(!sim2_->platformSlot(5).isEmpty());
    }
};

QTEST_MAIN(TestTerminalTab)
#include "tst_terminaltab.moc"
