// The "Terminal" tab against the emulator over a pseudo-terminal: typed commands and their
// history, the log view's menu, scripts played back line by line, and the configuration saved as a
// script and replayed on a second receiver.
#include "com/UartLink.h"
#include "common/WindowFixture.h"
#include "mrl/ui/UiLogger.h"
#include "sim/Frame.h"
#include "ui/CommandHistory.h"
#include "ui/TerminalLog.h"
#include "ui/UserSettings.h"

#include <QClipboard>
#include <QContextMenuEvent>
#include <QGuiApplication>
#include <QLoggingCategory>
#include <QMenu>
#include <QRegularExpression>
#include <QScopeGuard>

namespace {

using OrviaGonioManager::Ui::userSettings;
using OrviaGonioManager::Utils::Settings;

QStringList messages(const QTableWidget* view)
{
    QStringList lines;
    for (int row = 0; row < view->rowCount(); ++row)
        lines << view->item(row, 2)->text();
    return lines;
}

// The lines without the link's keep-alive exchange, told from the text alone: the link never logs
// sending its keep-alive, so its answer is a TEST answer no "Send $TEST" line went before; the state
// changes into and out of that wait (between it and the traffic around it) frame it.
QStringList withoutKeepAlive(const QStringList& lines)
{
    const auto traffic = [&](int i) {
        return lines[i].startsWith("Send ") || lines[i].startsWith("Receive ");
    };
    QSet<int> rows;
    const auto mark = [&](int from, int step, const QString& state) {
        for (int j = from; j >= 0 && j < lines.size() && !traffic(j); j += step)
            if (lines[j] == state) {
                rows << j;
                return;
            }
    };
    QString previous;
    for (int i = 0; i < lines.size(); ++i) {
        if (!traffic(i))
            continue;
        if (lines[i].contains(QRegularExpression("^Receive \\$TEST[,*]")) &&
            !previous.startsWith("Send $TEST")) {
            rows << i;
            mark(i - 1, -1, "From UART_READY to UART_WAITING_REPLY");
            mark(i + 1, 1, "From UART_WAITING_REPLY to UART_READY");
        }
        previous = lines[i];
    }
    QStringList kept;
    for (int i = 0; i < lines.size(); ++i)
        if (!rows.contains(i))
            kept << lines[i];
    return kept;
}

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

    int testsReceived() const { return sim_->receivedLines().count("TEST"); }

    // The texts of the lines a logMenu case logs ("line x"), from rows or copied text.
    static QString own(const QStringList& lines)
    {
        QStringList names;
        for (const QString& line : lines)
            if (line.startsWith("line "))
                names << line.mid(5);
        return names.join(' ');
    }

private slots:
    void initTestCase() { QVERIFY(setUpWorkDir()); }
    void init()
    {
        resetDialogs();
        userSettings().remove("terminal");
    }
    void cleanup() { tearDown(); }

    void send_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("how"); // "Send", "Return", or the slot while the link is away
        QTest::addColumn<int>("errors");
        const auto row = [](const char* name, const char* typed, const char* how, int errors) {
            QTest::newRow(name) << QString(typed) << QString(how) << errors;
        };
        row("known command, Return", "TEST", "Return", 0);
        row("line sent as typed", "HELLO,1,2", "Send", 0);
        row("refused by the receiver", "SETUPHW,9,9,9,9,9,9,9", "Send", 1);
        row("no link: kept to send again", "GSN", "slot", 1);
    }

    // The line goes out as typed; once the link has it, the edit empties and the history keeps it.
    void send()
    {
        QFETCH(QString, typed);
        QFETCH(QString, how);
        QFETCH(int, errors);
        QVERIFY(showAndConnect());
        const QStringList reply{"GNX234", "77", "88", "B", "APP", "1.0", "2.0", "3.0"};
        sim_->overrideNextReply("TEST", reply);
        QLineEdit* edit = ui()->lineEditTerminalCommand;
        if (how == "slot")
            window_->portAction(sim_->slavePath())->trigger();
        edit->setText(typed);
        if (how == "slot")
            window_->slotSendManualGnxCmd(); // the edit is disabled: as the link going away meanwhile
        else if (how == "Return")
            QTest::keyClick(edit, Qt::Key_Return);
        else
            ui()->pushButtonTerminalSend->click();
        const bool handed = how != "slot";
        if (typed == "TEST") // a known command waits for its reply
            QCOMPARE(window_->gnxLink()->replyValues(), reply);
        QCOMPARE(edit->text(), handed ? QString() : typed);
        QCOMPARE(window_->commandHistory()->entries(), handed ? QStringList{typed} : QStringList());
        QCOMPARE(dialogs_->criticals.size(), errors);
        if (handed)
            QTRY_COMPARE(sim_->receivedLines(), QStringList{typed});
    }

    void history_data()
    {
        QTest::addColumn<QStringList>("sent");
        QTest::addColumn<QString>("steps");    // "Up", "Down", "Shift+Up" or text typed
        QTest::addColumn<QString>("shown");    // the line after each step
        QTest::addColumn<QStringList>("kept"); // newest last, and so after a restart
        const auto row = [](const char* name, const QStringList& sent, const char* steps, const char* shown,
                            const QStringList& kept) {
            QTest::newRow(name) << sent << QString(steps) << QString(shown) << kept;
        };
        const QStringList sent{"GSN", "GSN", "TEST", "HELLO"}, kept{"GSN", "TEST", "HELLO"};
        row("to the oldest and back to the line being typed", sent, "draft Up Up Up Up Down Down Down Down",
            "draft HELLO TEST GSN GSN TEST HELLO draft draft", kept);
        row("an edited recall becomes the line being typed", sent, "Up Up ! Up Down",
            "HELLO TEST TEST! HELLO TEST!", kept);
        row("with a modifier the keys are the edit's", sent, "ab Shift+Up", "ab ab", kept);
        QStringList many;
        for (int i = 0; i < 105; ++i)
            many << QString("C%1").arg(i);
        row("the newest 100", many, "Up", "C104", many.mid(5));
        row("repeats once, empty never", {"A", "A", "", "B", "A", "A"}, "Up Up Up Up", "A B A A",
            {"A", "B", "A"});
    }

    void history()
    {
        QFETCH(QStringList, sent);
        QFETCH(QString, steps);
        QFETCH(QString, shown);
        QFETCH(QStringList, kept);
        QVERIFY(showAndConnect());
        for (const QString& command : sent)
            window_->commandHistory()->add(command);
        QLineEdit* edit = ui()->lineEditTerminalCommand;
        QStringList seen;
        for (const QString& step : steps.split(' ')) {
            if (step.endsWith("Up") || step == "Down")
                QTest::keyClick(edit, step == "Down" ? Qt::Key_Down : Qt::Key_Up,
                                step.startsWith("Shift") ? Qt::ShiftModifier : Qt::NoModifier);
            else
                QTest::keyClicks(edit, step);
            seen << edit->text();
        }
        QCOMPARE(seen.join(' '), shown);
        window_.reset();
        QVERIFY(showWindow({}));
        QCOMPARE(window_->commandHistory()->entries(), kept);
    }

    void keepAliveLinesHidden_data()
    {
        QTest::addColumn<bool>("states"); // printUartDebugInfo besides printAtCmdDebugInfo
        QTest::newRow("commands") << false;
        QTest::newRow("commands and link states") << true;
    }

    // Exactly the keep-alive exchange is hidden, as it comes and when the view is rebuilt; a TEST
    // typed by the user, the same frame on the wire, stays in sight with its answer.
    void keepAliveLinesHidden()
    {
        QFETCH(bool, states);
        Settings& s = Settings::instance();
        const auto restore = qScopeGuard([&s, was = Settings(s)] { // the fields below, as they were
            s.keepAlivePeriodMs = was.keepAlivePeriodMs;
            s.keepAliveTimeoutMs = was.keepAliveTimeoutMs;
            s.printAtCmdDebugInfo = was.printAtCmdDebugInfo;
            s.printUartDebugInfo = was.printUartDebugInfo;
        });
        s.keepAlivePeriodMs = 20;
        s.keepAliveTimeoutMs = 5000;
        s.printAtCmdDebugInfo = true;
        s.printUartDebugInfo = states;
        userSettings().setValue("terminal/hideKeepAliveLines", true); // as a previous run left it
        QVERIFY(showAndConnect());
        OrviaGonioManager::Ui::TerminalLog* log = window_->terminalLog();
        QVERIFY(log->hideAction()->isChecked());

        QTRY_VERIFY_WITH_TIMEOUT(testsReceived() >= 5, 10000);
        ui()->lineEditTerminalCommand->setText("TEST");
        QTest::keyClick(ui()->lineEditTerminalCommand, Qt::Key_Return);
        const int typedAt = testsReceived();
        QTRY_VERIFY_WITH_TIMEOUT(testsReceived() >= typedAt + 5, 10000);
        log->pauseAction()->trigger(); // holds what comes next: the view stands still
        const QStringList shownHiding = messages(ui()->tableWidgetLogger);
        log->hideAction()->trigger();
        QCOMPARE(userSettings().value("terminal/hideKeepAliveLines"), QVariant(false));
        const QStringList all = messages(ui()->tableWidgetLogger), expected = withoutKeepAlive(all);
        QVERIFY2(all.size() - expected.size() >= (states ? 3 : 1) * 8, qPrintable(all.join('\n')));
        QCOMPARE(shownHiding, expected);
        // The connection's own TEST and the typed one, each with its answer.
        QVERIFY(expected.count("Send $TEST*3C") >= 2);
        log->hideAction()->trigger();
        QCOMPARE(messages(ui()->tableWidgetLogger), expected);
        QCOMPARE(userSettings().value("terminal/hideKeepAliveLines"), QVariant(true));
    }

    void logMenu_data()
    {
        // "+x" logs "line x" ("+k:x" under the link's keep-alive category), "=x_y" is what the view
        // shows of them, "copy:x_y" what Copy takes.
        QTest::addColumn<QString>("steps");
        QTest::newRow("pause holds lines, resuming shows them in order")
            << "+a pause +b +c =a resume =a_b_c +d =a_b_c_d";
        QTest::newRow("clear drops the lines shown and held") << "+a pause +b clear = resume = +c =c";
        QTest::newRow("hidden lines leave the others their room")
            << "limit:3 hide +a +k:1 +k:2 +k:3 +k:4 +b +c =a_b_c show =k:4_b_c";
        QTest::newRow("hiding while paused shows no held line")
            << "+a +k:1 pause +b +k:2 hide =a show =a_k:1 resume =a_k:1_b_k:2";
        QTest::newRow("copy, lines selected: those") << "+a +b +c select:a_c copy:a_c";
        QTest::newRow("copy, nothing selected: every line shown") << "hide +a +k:1 +b copy:a_b";
    }

    void logMenu()
    {
        QFETCH(QString, steps);
        QVERIFY(showAndConnect()); // unconnected, the tabs are disabled, the log view with them
        OrviaGonioManager::Ui::TerminalLog* log = window_->terminalLog();
        MRL::Ui::UiLogger* view = ui()->tableWidgetLogger;
        QStringList texts;
        for (const QAction* action : log->menu()->actions())
            texts << action->text() + (action->isCheckable() ? " [x]" : "");
        QCOMPARE(texts, (QStringList{"Hide keep-alive lines [x]", "Pause [x]", "Clear", "Copy"}));
        // The menu opens where the view is right-clicked.
        ui()->tabWidget->setCurrentWidget(ui()->tabTerminal);
        QContextMenuEvent click(QContextMenuEvent::Mouse, QPoint(5, 5),
                                view->viewport()->mapToGlobal(QPoint(5, 5)));
        QCoreApplication::sendEvent(view->viewport(), &click);
        QTRY_VERIFY(log->menu()->isVisible());
        log->menu()->close();
        QTRY_VERIFY(!view->findItems("Ready!", Qt::MatchExactly).isEmpty());
        log->clearAction()->trigger();

        static const QLoggingCategory keepAlive(OrviaGonioManager::Com::UartLink::kKeepAliveLogCategory);
        for (const QString& step : steps.split(' ')) {
            const QString arg = step.section(QRegularExpression("[=:]"), 1).replace('_', ' ');
            if (step.startsWith("+k:"))
                qCDebug(keepAlive).noquote() << "line " + step.mid(1);
            else if (step.startsWith('+'))
                qInfo().noquote() << "line " + step.mid(1);
            else if (step.startsWith('='))
                QCOMPARE(own(messages(view)), arg);
            else if (step == "pause" || step == "resume")
                log->pauseAction()->setChecked(step == "pause");
            else if (step == "hide" || step == "show")
                log->hideAction()->setChecked(step == "hide");
            else if (step == "clear")
                log->clearAction()->trigger();
            else if (step.startsWith("limit:"))
                view->setMaximumNumberOfRows(arg.toInt());
            else if (step.startsWith("select:")) {
                for (int row = 0; row < view->rowCount(); ++row)
                    if (arg.split(' ').contains(view->item(row, 2)->text().mid(5)))
                        view->selectionModel()->select(view->model()->index(row, 0),
                                                       QItemSelectionModel::Select |
                                                           QItemSelectionModel::Rows);
            } else if (step.startsWith("copy:")) {
                QGuiApplication::clipboard()->clear();
                log->copyAction()->trigger();
                QStringList copied; // time, level and text, tab-separated
                for (const QString& line :
                     QGuiApplication::clipboard()->text().split('\n', Qt::SkipEmptyParts)) {
                    const QStringList cells = line.split('\t');
                    QVERIFY(cells.size() == 3 &&
                            QDateTime::fromString(cells[0], "yyyy-MM-dd HH:mm:ss.zzz").isValid());
                    copied << cells[2];
                }
                QCOMPARE(own(copied), arg);
            } else
                QFAIL(qPrintable("unknown step " + step));
        }
    }

    void scriptSendsDollarLines_data()
    {
        QTest::addColumn<QByteArray>("script");
        QTest::addColumn<QStringList>("sent");
        QTest::addColumn<int>("errors");
        QTest::newRow("empty") << QByteArray() << QStringList() << 0;
        QTest::newRow("comments and blanks") << QByteArray("# $TEST\n\n$GSN\nTEST\n  $TEST\n$TEST\n \n$LIG")
                                             << QStringList{"GSN", "TEST", "LIG"} << 0;
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

    // Saved, the configuration is the setups, then the used slots in index order; played on a
    // second receiver, it reproduces them.
    void saveAndPlayBack()
    {
        QFETCH(QString, model);
        QVERIFY(showAndConnect(model, 6));
        for (int i : {1, 3, 4}) // gaps between the used slots 0, 2 and 5
            window_->gnxLink()->deletePlatformInfo(i);
        window_->slotGetPlatformsInfo();
        // Settings that the second device does not have.
        ui()->spinBoxHardwareCableLength->setValue(77);
        ui()->checkBoxSetupSoftwareAudio->toggle();
        ui()->spinBoxSetupSoftwareDirectionOffset->setValue(123);

        sim_->clearReceived();
        const QString path = workDir_.filePath("config.gnx");
        dialogs_->files << path;
        ui()->pushButtonTerminalSaveScript->click();
        QCOMPARE(dialogs_->criticals + dialogs_->questions + sim_->receivedLines(), QStringList());
        QVERIFY(!window_->gnxLink()->isRecording());
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly | QIODevice::Text));
        QStringList payloads, heads;
        for (const QString& frame : QString::fromLatin1(file.readAll()).split('\n', Qt::SkipEmptyParts)) {
            const gnxsim::Frame::Parsed parsed = gnxsim::Frame::parseLine(frame.toLatin1());
            QVERIFY2(parsed.framed && parsed.checksumOk, qPrintable(frame));
            payloads << QString::fromLatin1(parsed.payload);
            heads << QStringList{parsed.mnemonic, parsed.params.value(0), parsed.params.value(1)}.join(',');
        }
        QCOMPARE(heads.mid(2), (QStringList{"IP,0,1", "IP,2,1", "IP,5,1"})); // re-created on playback
        QCOMPARE(payloads.value(0), "SETUPSW," + withoutClock(sim_->softwareSetup()).join(','));
        QCOMPARE(payloads.value(1), "SETUPHW," + sim_->hardwareSetup().join(','));

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
