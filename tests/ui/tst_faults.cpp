// Faults in the middle of every long job, end to end against the emulator over a pseudo-terminal:
// the job ends with its failure's message, once, within the engine's time-out and without
// spinning; what was taken is kept; the window then connects to a healthy receiver again.
#include "com/GnxFrame.h"
#include "common/WindowFixture.h"
#include "mrl/utils/Exception.h"
#include "sim/Firmware.h"
#include "ui/JobPanel.h"
#include "utils/FlashDecoder.h"
#include "utils/JobProgress.h"

#include <QElapsedTimer>
#include <QKeyEvent>
#include <QLabel>
#include <QPushButton>

#include <sys/resource.h>

using OrviaGonioManager::Utils::FlashDecoder;
using OrviaGonioManager::Utils::JobProgress;
namespace GnxFrame = OrviaGonioManager::Com::GnxFrame;

namespace {

constexpr int kTimeoutMs = 1000; // the link's; the engine waits twice as long

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

qint64 cpuMs()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return qint64(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000 +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1000;
}

} // namespace

class TestFaults : public QObject, private WindowFixture
{
    Q_OBJECT

private:
    QString port_;

    // Turns the fault on, from inside the job.
    void inject(const QString& fault)
    {
        gnxsim::Faults faults;
        faults.dropReply = fault == "drop" ? 1.0 : 0.0;
        faults.corruptChecksum = fault == "corrupt" ? 1.0 : 0.0;
        faults.noise = fault == "noise" ? 1.0 : 0.0; // one burst: see faultsDuringJobs()
        faults.splitBytes = fault == "split" ? 1 : 0;
        faults.splitGapMs = 0;
        sim_->setFaults(faults);
        if (fault == "stall" || fault == "cancel")
            sim_->setStalled(true);
        else if (fault == "unplug")
            sim_->unplug();
        else if (fault == "bad NPR")
            sim_->sendRawLine("NPR,12345,B1,0,0,0,0,0,1,ABCDEF", false);
        if (fault != "cancel")
            return;
        // The user's, together with a receiver that stops answering: Escape is queued and taken
        // while the request waits, the button is clicked at once and the panel says so before the
        // request under way ends.
        if (sim_->options().model == gnxsim::Model::Gnx134) {
            QCoreApplication::postEvent(window_.get(), new QKeyEvent(QEvent::KeyPress, Qt::Key_Escape, {}));
            return;
        }
        window_->jobPanel()->cancelButton()->click();
        if (window_->jobProgress()->isRunning() && window_->jobProgress()->isCancellable())
            QCOMPARE(window_->jobPanel()->findChild<QLabel*>()->text(), QString("Cancelling…"));
    }

    // What a job leaves on the receiver and in the window once it ended; empty when all is well.
    QString checkKept(const QString& moment, const QString& fault, bool completed, int doneAtFault,
                      int doneAtEnd)
    {
        if (moment == "flash read") { // the records of the slots or blocks read
            int records = 0;
            const auto count = [&](const auto&) { ++records; };
            try {
                if (completed)
                    records = sim_->flashRecordCount();
                else if (sim_->options().model == gnxsim::Model::Gnx134) {
                    for (int slot = 0, read = 0; read < doneAtEnd; ++slot)
                        if (!sim_->platformSlot(slot).isEmpty() && ++read)
                            FlashDecoder::decodePlatformDump(0, "X", sim_->platformFlashBytes(slot), count);
                } else
                    FlashDecoder::decodeDump(sim_->flashBytes().left(doneAtEnd), count);
            } catch (const MRL::Utils::Exception&) {
            }
            if (window_->rxModel()->allRowCount() != records)
                return QString("%1 rows for %2 records").arg(window_->rxModel()->allRowCount()).arg(records);
        } else if (moment == "import") {
            // What was written stays written, in file order.
            const int written = completed ? 6 : doneAtFault;
            for (int i = 0; i < written; ++i)
                if (sim_->platformSlot(i).isEmpty())
                    return QString("slot %1 of the import is empty").arg(i);
        } else if (moment == "script") {
            // Playback goes on past a line answered wrongly, and stops when the link fails.
            const qsizetype sent = sim_->receivedLines().count("TEST");
            if (completed || fault == "noise" ? sent != 10 : sent < doneAtFault || sent > doneAtFault + 1)
                return QString("%1 lines sent, %2 done at the fault").arg(sent).arg(doneAtFault);
        } else if (moment == "upload") {
            if (!completed && sim_->mode() != gnxsim::Mode::Bl)
                return "the receiver left the bootloader";
        }
        return {};
    }

    bool reconnectToHealthyReceiver()
    {
        if (!window_->connectedPort().isEmpty())
            window_->portAction(port_)->trigger(); // the user disconnects
        // The receiver restarted: nothing left of an answer it was sending when the link went.
        sim_->setFaults({});
        sim_->setStalled(false);
        if (sim_->isPlugged())
            sim_->unplug();
        sim_->replug();
        dialogs_->criticals.clear();
        return connectTo(port_) && dialogs_->criticals.isEmpty() &&
               window_->gnxLink()->readDeviceInfo().version == window_->gnxLink()->version();
    }

private slots:
    void initTestCase() { QVERIFY(setUpWorkDir()); }
    void init() { resetDialogs(); }
    void cleanup()
    {
        OrviaGonioManager::Utils::Settings::instance().gnxCommandTimeoutMs = 5000;
        tearDown();
    }

    void faultsDuringJobs_data()
    {
        QTest::addColumn<QString>("model");
        QTest::addColumn<QString>("moment");
        QTest::addColumn<QString>("fault");
        QTest::addColumn<QString>("outcome"); // in the one dialog; "" when the job completes
        const QList<QPair<QString, QString>> faults{
            {"drop", "Uart link timeout"},
            {"corrupt", "Bad checksum in GNX reply"},
            // Garbage while a reply is awaited ends the wait; the reply then comes unasked for.
            {"noise", "Unknown GNX message type in"},
            {"split", ""},
            {"stall", "Uart link timeout"},
            {"unplug", "Disconnection of %1 (GNX disconnected)."},
            {"bad NPR", "Bad checksum in GNX reply \"$NPR,12345"},
            {"cancel", "cancelled"},
        };
        for (const QString model : {"gnx134", "gnx234"})
            for (const QString moment : {"connection", "flash read", "upload", "script", "import"})
                for (const auto& [fault, outcome] : faults) {
                    // A GNX134 does not tell its bootloader: the upload is the GNX234's alone.
                    if (model == "gnx134" && moment == "upload")
                        continue;
                    QString expected = outcome;
                    // An upload or a connection's load cannot be cancelled: the receiver's failure
                    // is what the user sees.
                    if (fault == "cancel" && (moment == "upload" || moment == "connection"))
                        expected = "Uart link timeout";
                    // The GNX234's flash comes as a binary stream: no text line left to spoil.
                    if (model == "gnx234" && moment == "flash read" &&
                        (fault == "noise" || fault == "corrupt"))
                        expected.clear();
                    QTest::addRow("%s %s %s", qPrintable(model), qPrintable(moment), qPrintable(fault))
                        << model << moment << fault << expected;
                }
    }

    void faultsDuringJobs()
    {
        QFETCH(QString, model);
        QFETCH(QString, moment);
        QFETCH(QString, fault);
        QFETCH(QString, outcome);
        const bool gnx134 = model == "gnx134";
        gnxsim::Options options = simOptions(model, 6, moment == "flash read" ? (gnx134 ? 60 : 1000) : 0);
        if (moment == "upload")
            options.mode = gnxsim::Mode::Bl;
        // Through a link of its own: a pseudo-terminal's number may be taken again at once by a
        // test running beside this one.
        options.linkPath = workDir_.filePath("gnx-faults");
        port_ = options.linkPath;
        QVERIFY(startSim(sim_, options));
        QVERIFY(showWindow({port_}));

        QString file;
        if (moment != "connection")
            QVERIFY(connectTo(port_));
        if (moment == "script") {
            const QByteArray line =
                '$' +
                GnxFrame::seal(GnxFrame::commandLine(OrviaGonioManager::Com::GnxLink::CMD_TEST)).toLatin1();
            file = writeFile("faults.gnx", (line + "\n").repeated(10));
        } else if (moment == "import") {
            file = workDir_.filePath("faults.csv");
            dialogs_->files << file;
            ui()->pushButtonPlatformsExport->click();
            dialogs_->answers << QMessageBox::Yes;
        } else if (moment == "upload") {
            file = writeFile("faults.van", gnxsim::Firmware::vanFile(options.model, "7.7.7", 40));
            dialogs_->answers << QMessageBox::Yes;
        }
        if (!file.isEmpty())
            dialogs_->files << file;
        sim_->clearReceived();
        OrviaGonioManager::Utils::Settings::instance().gnxCommandTimeoutMs = kTimeoutMs;

        // The fault comes once the job has taken its first step.
        QElapsedTimer wall;
        qint64 cpuAtFault = 0;
        int doneAtFault = -1;
        int doneAtEnd = 0;
        const auto strike = [&](qint64 done) {
            doneAtEnd = qMax(doneAtEnd, int(done));
            if (done <= 0 || doneAtFault >= 0)
                return;
            doneAtFault = int(done);
            wall.start();
            cpuAtFault = cpuMs();
            inject(fault);
        };
        QObject ctx;
        connect(window_->jobProgress(), &JobProgress::sigProgress, &ctx, strike);
        connect(window_->gnxLink(), &OrviaGonioManager::Com::GnxLink::sigFirmwareProgress, &ctx,
                [&](int sent) { strike(sent); });
        LogCapture logs;
        // Noise comes in one burst: off once the link has thrown away its first garbage line.
        // The first error is when the failure is known.
        qint64 failedAtMs = -1;
        qint64 cpuUntilFailureMs = 0;
        connect(MRL::Ui::LogHub::instance(), &MRL::Ui::LogHub::sigMessage, &ctx,
                [&](QDateTime, int type, QString text) {
                    if (text.startsWith("Unable to decode GNX message"))
                        sim_->setFaults({});
                    if (type == QtCriticalMsg && doneAtFault >= 0 && failedAtMs < 0) {
                        failedAtMs = wall.elapsed();
                        cpuUntilFailureMs = cpuMs() - cpuAtFault;
                    }
                });

        if (moment == "connection")
            window_->portAction(port_)->trigger();
        else if (moment == "flash read")
            ui()->pushButtonRxFlashRead->click();
        else if (moment == "upload")
            ui()->pushButtonUpdateFirmware->click();
        else if (moment == "script")
            ui()->pushButtonTerminalScript->click();
        else
            ui()->pushButtonPlatformsImport->click();
        QVERIFY2(doneAtFault > 0, "the job took no step");
        if (fault == "unplug")
            QTRY_VERIFY_WITH_TIMEOUT(window_->connectedPort().isEmpty(), 10000);
        const qint64 endedMs = wall.elapsed();

        QStringList said = dialogs_->criticals; // and what was logged
        for (const auto& m : logs.messages)
            if (m.first == QtInfoMsg || m.first == QtCriticalMsg)
                said << m.second;
        const QString expected = outcome.contains("%1") ? outcome.arg(port_) : outcome;
        const bool completed = expected.isEmpty();
        if (completed)
            QVERIFY2(dialogs_->criticals.isEmpty(), qPrintable(dialogs_->criticals.join('\n')));
        else
            QVERIFY2(!said.filter(expected).isEmpty(), qPrintable(said.join('\n')));
        QVERIFY2(dialogs_->criticals.size() <= 1, qPrintable(dialogs_->criticals.join('\n')));
        QVERIFY2(endedMs < 2 * kTimeoutMs + 2000, // the engine's time-out, a port scan, and a margin
                 qPrintable(QString::number(endedMs)));
        // The failures that wait; sanitizers slow the port scans that the wait takes in.
        if ((fault == "drop" || fault == "stall") && !kSanitized)
            QVERIFY2(failedAtMs >= kTimeoutMs && cpuUntilFailureMs * 20 < failedAtMs,
                     qPrintable(QString("%1 ms of CPU in %2 ms").arg(cpuUntilFailureMs).arg(failedAtMs)));
        // A failed connection ends there, once: nothing of it after, no session log made or open.
        if (moment == "connection" && !completed) {
            said.removeIf([](const QString& text) { return text.startsWith("Platform load: "); });
            QCOMPARE(said.mid(0, 2),
                     QStringList({"Connection of a GNX on " + port_ + ".", "Loading configuration..."}));
            QVERIFY2(said.size() == 3 && said[2].contains(expected), qPrintable(said.join('\n')));
            QVERIFY(window_->sessionLogPath().isEmpty());
        }
        const QString kept = checkKept(moment, fault, completed, doneAtFault, doneAtEnd);
        QVERIFY2(kept.isEmpty(), qPrintable(kept));
        QVERIFY(reconnectToHealthyReceiver());
    }
};

QTEST_MAIN(TestFaults)
#include "tst_faults.moc"
