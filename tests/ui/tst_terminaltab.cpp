// The "Terminal" tab against the emulator over a pseudo-terminal: typed commands and their
// history, the log view's menu, scripts played back line by line, and the configuration saved as a
// script and replayed on a second receiver.
#include "com/UartLink.h"
#include "common/WindowFixture.h"
#include "mrl/ui/UiLogger.h"
#include "sim/Frame.h"
#include "ui/CommandHistory.h"
#include "ui/TerminalLog.h"

#include <QClipboard>
#include <QContextMenuEvent>
#include <QGuiApplication>
#include <QLoggingCategory>
#include <QMenu>
#include <QRegularExpression>
#include <QSettings>

namespace {

using OrviaGonioManager::Utils::Settings;

QSettings userSettings()
{
    return QSettings(QSettings::NativeFormat, QSettings::UserScope, "Orvia", "OrviaGonioManager");
}

QStringList messages(const QTableWidget* view)
{
    QStringList lines;
    for (int row = 0; row < view->rowCount(); ++row)
        lines << view->item(row, 2)->text();
    return lines;
}

bool isLinkTraffic(const QString& line)
{
    return line.startsWith("Send ") || line.startsWith("Receive ");
}

// The rows of the link's keep-alive exchange, told from the log's text alone: the link never logs
// sending its keep-alive, so its answer is a TEST answer that no "Send $TEST" line went before; the
// state changes into and out of that wait frame it.
QSet<int> keepAliveRows(const QStringList& lines)
{
    QSet<int> rows;
    QString previous;
    for (int i = 0; i < lines.size(); ++i) {
        if (!isLinkTraffic(lines[i]))
            continue;
        const bool testAnswer =
            lines[i].startsWith("Receive $TEST,") || lines[i].startsWith("Receive $TEST*");
        if (testAnswer && !previous.startsWith("Send $TEST")) {
            rows.insert(i);
            for (int j = i - 1; j >= 0 && !isLinkTraffic(lines[j]); --j)
                if (lines[j] == "From UART_READY to UART_WAITING_REPLY") {
                    rows.insert(j);
                    break;
                }
            for (int j = i + 1; j < lines.size() && !isLinkTraffic(lines[j]); ++j)
                if (lines[j] == "From UART_WAITING_REPLY to UART_READY") {
                    rows.insert(j);
                    break;
                }
        }
        previous = lines[i];
    }
    return rows;
}

// The link's settings a case changes, put back as they were.
struct LinkSettings
{
    Settings& s = Settings::instance();
    const qint32 period = s.keepAlivePeriodMs;
    const qint32 timeout = s.keepAliveTimeoutMs;
    const bool commands = s.printAtCmdDebugInfo;
    const bool states = s.printUartDebugInfo;
    ~LinkSettings()
    {
        s.keepAlivePeriodMs = period;
        s.keepAliveTimeoutMs = timeout;
        s.printAtCmdDebugInfo = commands;
        s.printUartDebugInfo = states;
    }
};

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

    void type(const QString& command)
    {
        ui()->lineEditTerminalCommand->setText(command);
        QTest::keyClick(ui()->lineEditTerminalCommand, Qt::Key_Return);
    }

    int testsReceived() const { return sim_->receivedLines().count("TEST"); }

    // The lines a logMenu case logs ("+x" is "line x", "+k:x" the same under the link's keep-alive
    // category), as the view shows them.
    QStringList ownLines() const
    {
        QStringList own;
        for (const QString& line : messages(ui()->tableWidgetLogger))
            if (line.startsWith("line "))
                own << line.mid(5);
        return own;
    }

    static void logLine(const QString& name)
    {
        static const QLoggingCategory keepAlive(OrviaGonioManager::Com::UartLink::kKeepAliveLogCategory);
        if (name.startsWith("k:"))
            qCDebug(keepAlive).noquote() << "line " + name;
        else
            qInfo().noquote() << "line " + name;
    }

private slots:
    void initTestCase() { QVERIFY(setUpWorkDir()); }
    void init()
    {
        resetDialogs();
        userSettings().remove("terminal");
    }
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

    void sendEmptiesTheLine_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<bool>("enter"); // the Return key instead of "Send"
        QTest::addColumn<bool>("connected");
        QTest::addColumn<bool>("handed"); // to the link: the line empties and enters the history
        QTest::addColumn<int>("errors");
        QTest::newRow("command, Send") << "GSN" << false << true << true << 0;
        QTest::newRow("command, Return") << "GSN" << true << true << true << 0;
        QTest::newRow("line sent as typed") << "HELLO,1,2" << false << true << true << 0;
        QTest::newRow("refused by the receiver") << "SETUPHW,9,9,9,9,9,9,9" << false << true << true << 1;
        QTest::newRow("no link: kept to send again") << "GSN" << false << false << false << 1;
    }

    void sendEmptiesTheLine()
    {
        QFETCH(QString, typed);
        QFETCH(bool, enter);
        QFETCH(bool, connected);
        QFETCH(bool, handed);
        QFETCH(int, errors);
        QVERIFY(showAndConnect());
        if (!connected)
            window_->portAction(sim_->slavePath())->trigger();
        QLineEdit* edit = ui()->lineEditTerminalCommand;
        edit->setText(typed);
        if (!connected)
            window_->slotSendManualGnxCmd(); // the edit is disabled: as the link going away meanwhile
        else if (enter)
            QTest::keyClick(edit, Qt::Key_Return);
        else
            ui()->pushButtonTerminalSend->click();
        QCOMPARE(edit->text(), handed ? QString() : typed);
        QCOMPARE(window_->commandHistory()->entries(), handed ? QStringList{typed} : QStringList());
        QCOMPARE(userSettings().value("terminal/commandHistory").toStringList(),
                 window_->commandHistory()->entries());
        QCOMPARE(dialogs_->criticals.size(), errors);
        if (connected)
            QTRY_COMPARE(sim_->receivedLines(), QStringList{typed});
    }

    void historyWalk_data()
    {
        QTest::addColumn<QStringList>("steps"); // "Up", "Down", "Shift+Up" or text typed
        QTest::addColumn<QStringList>("shown"); // the line after each step
        QTest::newRow("to the oldest and back to the line being typed")
            << QStringList{"draft", "Up", "Up", "Up", "Up", "Down", "Down", "Down", "Down"}
            << QStringList{"draft", "HELLO", "TEST", "GSN", "GSN", "TEST", "HELLO", "draft", "draft"};
        QTest::newRow("down with no walk") << QStringList{"x", "Down"} << QStringList{"x", "x"};
        QTest::newRow("an edited recall becomes the line being typed")
            << QStringList{"Up", "Up", "!", "Up", "Down"}
            << QStringList{"HELLO", "TEST", "TEST!", "HELLO", "TEST!"};
        QTest::newRow("with a modifier the keys are the edit's")
            << QStringList{"ab", "Shift+Up"} << QStringList{"ab", "ab"};
    }

    // Sent: GSN twice, TEST, HELLO; kept once each, newest last.
    void historyWalk()
    {
        QFETCH(QStringList, steps);
        QFETCH(QStringList, shown);
        QVERIFY(showAndConnect());
        for (const QString command : {"GSN", "GSN", "TEST", "HELLO"})
            type(command);
        QCOMPARE(window_->commandHistory()->entries(), (QStringList{"GSN", "TEST", "HELLO"}));
        QLineEdit* edit = ui()->lineEditTerminalCommand;
        for (int i = 0; i < steps.size(); ++i) {
            if (steps[i] == "Up" || steps[i] == "Down")
                QTest::keyClick(edit, steps[i] == "Up" ? Qt::Key_Up : Qt::Key_Down);
            else if (steps[i] == "Shift+Up")
                QTest::keyClick(edit, Qt::Key_Up, Qt::ShiftModifier);
            else
                QTest::keyClicks(edit, steps[i]);
            QVERIFY2(edit->text() == shown[i], qPrintable(QString("step %1: %2").arg(i).arg(edit->text())));
        }
    }

    void historyKeptAcrossRuns_data()
    {
        QTest::addColumn<QStringList>("sent");
        QTest::addColumn<QStringList>("kept");
        QStringList many, newest;
        for (int i = 0; i < 105; ++i)
            many << QString("C%1").arg(i);
        newest = many.mid(5);
        QTest::newRow("the newest 100") << many << newest;
        QTest::newRow("repeats once, empty never")
            << QStringList{"A", "A", "", "B", "A", "A"} << QStringList{"A", "B", "A"};
    }

    void historyKeptAcrossRuns()
    {
        QFETCH(QStringList, sent);
        QFETCH(QStringList, kept);
        QVERIFY(showWindow({}));
        for (const QString& command : sent)
            window_->commandHistory()->add(command);
        QCOMPARE(window_->commandHistory()->entries(), kept);
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
        LinkSettings settings;
        settings.s.keepAlivePeriodMs = 20;
        settings.s.keepAliveTimeoutMs = 5000;
        settings.s.printAtCmdDebugInfo = true;
        settings.s.printUartDebugInfo = states;
        userSettings().setValue("terminal/hideKeepAliveLines", true); // as a previous run left it
        QVERIFY(showAndConnect());
        OrviaGonioManager::Ui::TerminalLog* log = window_->terminalLog();
        QVERIFY(log->hideAction()->isChecked());

        QTRY_VERIFY_WITH_TIMEOUT(testsReceived() >= 5, 10000);
        type("TEST");
        const int typedAt = testsReceived();
        QTRY_VERIFY_WITH_TIMEOUT(testsReceived() >= typedAt + 5, 10000);
        log->pauseAction()->trigger(); // holds what comes next: the view stands still
        const QStringList shownHiding = messages(ui()->tableWidgetLogger);
        log->hideAction()->trigger();
        QCOMPARE(userSettings().value("terminal/hideKeepAliveLines"), QVariant(false));
        const QStringList all = messages(ui()->tableWidgetLogger);

        const QSet<int> keepAlive = keepAliveRows(all);
        QVERIFY2(keepAlive.size() >= (states ? 3 : 1) * 8, qPrintable(all.join('\n')));
        QStringList expected;
        for (int i = 0; i < all.size(); ++i)
            if (!keepAlive.contains(i))
                expected << all[i];
        QCOMPARE(shownHiding, expected);
        // The connection's own TEST and the typed one, each with its answer.
        const int sent = expected.count("Send $TEST*3C");
        QVERIFY(sent >= 2);
        QCOMPARE(expected.filter(QRegularExpression("^Receive \\$TEST[,*]")).size(), sent);
        log->hideAction()->trigger();
        QCOMPARE(messages(ui()->tableWidgetLogger), expected);
        QCOMPARE(userSettings().value("terminal/hideKeepAliveLines"), QVariant(true));
    }

    void logMenu_data()
    {
        // "+x" logs a line, "=x y" is what the view shows of them, "copy x y" what Copy takes.
        QTest::addColumn<QStringList>("steps");
        QTest::newRow("pause holds lines, resuming shows them in order")
            << QStringList{"+a", "pause", "+b", "+c", "=a", "resume", "=a b c", "+d", "=a b c d"};
        QTest::newRow("clear drops the lines shown and held")
            << QStringList{"+a", "pause", "+b", "clear", "=", "resume", "=", "+c", "=c"};
        QTest::newRow("hidden lines come back in place")
            << QStringList{"hide", "+a", "+k:1", "+b", "=a b", "show", "=a k:1 b"};
        QTest::newRow("hidden lines leave the others their room")
            << QStringList{"limit 3", "hide", "+a", "+k:1",   "+k:2", "+k:3",
                           "+k:4",    "+b",   "+c", "=a b c", "show", "=k:4 b c"};
        QTest::newRow("hiding while paused shows no held line") << QStringList{
            "+a", "+k:1", "pause", "+b", "+k:2", "hide", "=a", "show", "=a k:1", "resume", "=a k:1 b k:2"};
        QTest::newRow("copy, nothing selected: every line") << QStringList{"+a", "+b", "copy a b"};
        QTest::newRow("copy, lines selected: those")
            << QStringList{"+a", "+b", "+c", "select a c", "copy a c"};
        QTest::newRow("copy: what is shown") << QStringList{"hide", "+a", "+k:1", "+b", "copy a b"};
    }

    void logMenu()
    {
        QFETCH(QStringList, steps);
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

        for (const QString& step : steps) {
            const QString arg = step.section(' ', 1);
            if (step.startsWith('+'))
                logLine(step.mid(1));
            else if (step.startsWith('='))
                QCOMPARE(ownLines().join(' '), step.mid(1));
            else if (step == "pause" || step == "resume")
                log->pauseAction()->setChecked(step == "pause");
            else if (step == "hide" || step == "show")
                log->hideAction()->setChecked(step == "hide");
            else if (step == "clear")
                log->clearAction()->trigger();
            else if (step.startsWith("limit "))
                view->setMaximumNumberOfRows(arg.toInt());
            else if (step.startsWith("select ")) {
                for (int row = 0; row < view->rowCount(); ++row)
                    if (arg.split(' ').contains(view->item(row, 2)->text().mid(5)))
                        view->selectionModel()->select(view->model()->index(row, 0),
                                                       QItemSelectionModel::Select |
                                                           QItemSelectionModel::Rows);
            } else if (step.startsWith("copy ")) {
                QGuiApplication::clipboard()->clear();
                log->copyAction()->trigger();
                QStringList copied;
                for (const QString& line :
                     QGuiApplication::clipboard()->text().split('\n', Qt::SkipEmptyParts)) {
                    const QStringList cells = line.split('\t');
                    QCOMPARE(cells.size(), 3);
                    QVERIFY(QDateTime::fromString(cells[0], "yyyy-MM-dd HH:mm:ss.zzz").isValid());
                    if (cells[2].startsWith("line "))
                        copied << cells[2].mid(5);
                }
                QCOMPARE(copied.join(' '), arg);
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
