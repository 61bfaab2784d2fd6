// The "Terminal" tab against the emulator over a pseudo-terminal: typed commands, scripts played
// back line by line, and the configuration saved as a script and replayed on a second receiver.
#include "app/Settings.h"
#include "common/RecordingDialogs.h"
#include "sim/Frame.h"
#include "sim/PtySimulator.h"
#include "ui/MainWindow.h"
#include "ui_MainWindow.h"

#include <QAction>
#include <QDir>
#include <QTemporaryDir>
#include <QTest>

using OrviaGonioManager::Ui::MainWindow;

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

class TestTerminalTab : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir workDir_;
    std::unique_ptr<gnxsim::PtySimulator> sim_;
    std::unique_ptr<gnxsim::PtySimulator> sim2_;
    std::unique_ptr<MainWindow> window_;
    std::unique_ptr<RecordingDialogs> dialogs_;

    ::Ui::MainWindow* ui() const { return window_->form(); }

    static std::unique_ptr<gnxsim::PtySimulator> startSim(gnxsim::Model model, int platforms, quint32 seed)
    {
        gnxsim::Options options;
        options.model = model;
        options.platforms = platforms;
        options.seed = seed;
        auto sim = std::make_unique<gnxsim::PtySimulator>(options);
        return sim->start() ? std::move(sim) : nullptr;
    }

    void connectTo(const QString& port)
    {
        QTRY_VERIFY_WITH_TIMEOUT(window_->portAction(port), 10000);
        window_->portAction(port)->trigger();
        QCOMPARE(window_->connectedPort(), port);
    }

    void showAndConnect(gnxsim::Model model = gnxsim::Model::Gnx234, int platforms = 0)
    {
        sim_ = startSim(model, platforms, 1);
        QVERIFY(sim_);
        qputenv("GNX_EXTRA_PORTS", sim_->slavePath().toLocal8Bit());
        window_ = std::make_unique<MainWindow>();
        window_->show();
        connectTo(sim_->slavePath());
        sim_->clearReceived();
    }

    QString writeFile(const QString& name, const QByteArray& content)
    {
        const QString path = workDir_.filePath(name);
        QFile f(path);
        return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(content) == content.size()
                   ? path
                   : QString();
    }

    void play(const QString& path)
    {
        dialogs_->files << path;
        ui()->pushButtonTerminalScript->click();
        QCOMPARE(dialogs_->fileCaptions.last(), dialogCaption);
    }

private slots:
    void initTestCase()
    {
        QDir(workDir_.path()).mkpath("run");
        QDir(workDir_.path()).mkpath("Data");
        QVERIFY(!writeFile("Data/format.vtl", "0\n").isEmpty());
        QVERIFY(QDir::setCurrent(workDir_.filePath("run")));
        auto& settings = OrviaGonioManager::Utils::Settings::instance();
        settings.keepAlivePeriodMs = 0; // the emulator's command log holds only what the window sends
        settings.gnxCommandTimeoutMs = 5000;
    }

    void init() { dialogs_ = std::make_unique<RecordingDialogs>(); }

    void cleanup()
    {
        window_.reset();
        sim_.reset();
        sim2_.reset();
        dialogs_.reset();
    }

    void sendPassesTheLine()
    {
        showAndConnect();
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
        showAndConnect();
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
        showAndConnect();
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

    void saveAndPlayBack_data()
    {
        QTest::addColumn<QString>("model");
        QTest::newRow("gnx134") << "gnx134";
        QTest::newRow("gnx234") << "gnx234";
    }

    void saveAndPlayBack()
    {
        QFETCH(QString, model);
        const auto generation = model == "gnx134" ? gnxsim::Model::Gnx134 : gnxsim::Model::Gnx234;
        const QList<int> used{0, 2, 5};
        showAndConnect(generation, 6);
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
        sim2_ = startSim(generation, 0, 7);
        QVERIFY(sim2_);
        qputenv("GNX_EXTRA_PORTS", (sim_->slavePath() + ":" + sim2_->slavePath()).toLocal8Bit());
        connectTo(sim2_->slavePath());
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
