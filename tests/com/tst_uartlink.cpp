// The link over a pseudo-terminal; the far end is the emulator kept mute, so that the test
// plays the device byte for byte.

#include "TestSupport.h"
#include "com/UartLink.h"
#include "sim/PtySimulator.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTest>

using namespace OrviaGonioManager::Com;
using namespace TestSupport;
using Signals = QList<QVariantList>;

namespace {

QByteArray frame(const QString& payload)
{
    return '$' + GnxFrame::seal(payload).toLatin1() + "\r\n";
}

} // namespace

class TestUartLink : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<gnxsim::PtySimulator> device;
    std::unique_ptr<UartLink> link;
    std::unique_ptr<QSignalSpy> replies, errors, rx, data;

    // A link on a fresh device, with the settings as they are now.
    void openLink()
    {
        link.reset();
        gnxsim::Options options;
        options.flashRecords = 100;
        device = std::make_unique<gnxsim::PtySimulator>(options);
        QVERIFY(device->start());
        device->setStalled(true);
        link = std::make_unique<UartLink>(device->slavePath());
        replies = std::make_unique<QSignalSpy>(link.get(), &UartLink::sigReplyReceived);
        errors = std::make_unique<QSignalSpy>(link.get(), &UartLink::sigErrorOccured);
        rx = std::make_unique<QSignalSpy>(link.get(), &UartLink::sigRxReceived);
        data = std::make_unique<QSignalSpy>(link.get(), &UartLink::sigBinaryRfpDataReceived);
        link->slotOpenConnection();
    }

private slots:
    void init()
    {
        sandboxSettings();
        CatchingApplication::clearCaught();
        openLink();
    }

    void answers_data()
    {
        QTest::addColumn<int>("cmd");
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<QVariantList>("reply"); // values, isError
        const auto row = [](const char* name, GnxLink::GnxCmd_t cmd, const QByteArray& answer,
                            const QString& value, bool isError) {
            QTest::newRow(name) << int(cmd) << answer << QVariantList{QStringList{value}, isError};
        };
        row("reply", GnxLink::CMD_GSN, frame("GSN,12-345"), "12-345", false);
        row("unrelated", GnxLink::CMD_GSN, frame("LIG,1,2"), "Unrelated message: \"$LIG,1,2*6B\"", true);
        row("ACK accepted", GnxLink::CMD_ATBL, frame("ACK,1"), "1", false);
        row("ACK refused", GnxLink::CMD_ATBL, frame("ACK,0"), "Invalid command: \"$ATBL*31\"", true);
        // Only the upload commands and replies without values are ACK answers.
        const auto invalid = [](const char* sent) {
            return "Invalid command: \"$" + GnxFrame::seal(sent) + '"';
        };
        const auto unrelated = [](const char* got) {
            return "Unrelated message: \"$" + GnxFrame::seal(got) + '"';
        };
        row("ACK,0 to a setup", GnxLink::CMD_SETUPSW, frame("ACK,0"), unrelated("ACK,0"), true);
        row("ACK,1 to a setup", GnxLink::CMD_SETUPSW, frame("ACK,1"), unrelated("ACK,1"), true);
        row("setup without values", GnxLink::CMD_SETUPSW, frame("SETUPSW"), invalid("SETUPSW"), true);
        row("test without values", GnxLink::CMD_TEST, frame("TEST"), invalid("TEST"), true);
        row("bare ERR", GnxLink::CMD_GSN, frame("ERR"), invalid("GSN"), true);
        row("after empty lines", GnxLink::CMD_GSN, "\r\n  \r\n" + frame("GSN,1-2"), "1-2", false);
        // The tail of a line the device was writing when the port was opened and cleared.
        row("after a cut line", GnxLink::CMD_GSN, "3,401629931,2*30\r\n" + frame("GSN,1-2"), "1-2", false);
    }
    void answers()
    {
        QFETCH(int, cmd);
        QFETCH(QByteArray, answer);
        QFETCH(QVariantList, reply);
        MessageLog log;
        link->slotSendRequest(GnxLink::GnxCmd_t(cmd));
        QCOMPARE(link->status(), UartLink::UART_WAITING_REPLY);
        QTRY_COMPARE(device->receivedLines(), QStringList{GnxFrame::commandLine(GnxLink::GnxCmd_t(cmd))});
        device->sendRawBytes(answer);
        QTRY_COMPARE(*replies, Signals{reply});
        QCOMPARE(link->status(), UartLink::UART_READY);
        // One warning per line without content.
        QCOMPARE(log.warnings(),
                 QStringList(answer.count("\r\n") - 1 - !answer.trimmed().startsWith('$'), "Empty line"));
    }

    void reportKeepsTheCommandOutstanding()
    {
        sandboxSettings().gnxCommandTimeoutMs = 3000;
        link->slotSendRequest(GnxLink::CMD_GSN);
        QElapsedTimer sinceReport;
        QTimer::singleShot(1000, this, [&] {
            sinceReport.start();
            device->sendRawLine("NPR,1,2,3");
        });
        QVERIFY(rx->wait(10000));
        QCOMPARE(rx->first().at(1).toStringList(), (QStringList{"1", "2", "3"}));
        QCOMPARE(link->status(), UartLink::UART_WAITING_REPLY);
        // The reply timer started again with the report.
        QVERIFY(errors->wait(10000));
        QCOMPARE_GE(sinceReport.elapsed(), 2900);
    }

    void timeouts_data()
    {
        QTest::addColumn<QStringList>("caught"); // thrown from the link's own event
        QTest::newRow("command") << QStringList();
        QTest::newRow("keep-alive") << QStringList{"UART link timeout on KeepAlive"};
    }
    void timeouts()
    {
        QFETCH(QStringList, caught);
        const bool keepAlive = !caught.isEmpty();
        auto& settings = sandboxSettings();
        settings.gnxCommandTimeoutMs = settings.keepAliveTimeoutMs = 200;
        settings.keepAlivePeriodMs = keepAlive ? 50 : 0;
        openLink();
        if (!keepAlive)
            link->slotSendRequest(GnxLink::CMD_LIG);
        QTRY_COMPARE_WITH_TIMEOUT(*errors, Signals{{QStringLiteral("Uart link timeout")}}, 10000);
        QCOMPARE(link->status(), UartLink::UART_ERROR_TIMEOUT);
        QCOMPARE(CatchingApplication::caught(), caught);
        // A timed-out link refuses further commands.
        QCOMPARE(thrown([&] { link->slotSendRequest(GnxLink::CMD_TEST); }),
                 QStringLiteral("UartLink is not available"));
    }

    void idleLinkKeepsAlive()
    {
        auto& settings = sandboxSettings();
        settings.keepAlivePeriodMs = 200;
        settings.keepAliveTimeoutMs = 5000;
        openLink();
        QElapsedTimer clock;
        clock.start();
        for (qint64 i = 1, previous = 0; i <= 4; ++i, previous = clock.elapsed()) {
            QTRY_COMPARE_WITH_TIMEOUT(device->receivedLines(), QStringList(i, "TEST"), 10000);
            QCOMPARE_GE(clock.elapsed() - previous, 180);
            device->sendRawLine("TEST,GNX134,1.0");
        }
        QCOMPARE(replies->count() + errors->count(), 0); // the answers are not handed up
    }

    void binaryFlashAnswer_data()
    {
        QTest::addColumn<bool>("bytewise");
        QTest::newRow("one write") << false;
        QTest::newRow("one byte per write") << true;
    }
    void binaryFlashAnswer()
    {
        QFETCH(bool, bytewise);
        gnxsim::Faults faults;
        faults.splitBytes = bytewise ? 1 : 0;
        device->setFaults(faults);
        device->setStalled(false);
        link->slotSendRequest(GnxLink::CMD_RFP, {"0", "600"}, GnxLink::GNX_V2);
        QCOMPARE(link->status(), UartLink::UART_WAITING_RFP_BINARY_REPLY);
        // Five blocks of 128 bytes, the last one padded with erased bytes.
        const QByteArray flash = device->flashBytes().leftJustified(600, char(0xFF), true);
        QTRY_COMPARE_WITH_TIMEOUT(*data, (Signals{{flash + QByteArray(40, char(0xFF)), false}}), 20000);
        QCOMPARE(link->status(), UartLink::UART_READY);
    }

    void textFlashAnswer()
    {
        link->slotSendRequest(GnxLink::CMD_RFP, {"3"}, GnxLink::GNX_V1);
        QCOMPARE(link->status(), UartLink::UART_WAITING_RFP_REPLY);
        device->sendRawBytes(frame("RFP,1,0102A0FF") + frame("RFP,2,10") + frame("RFP,0,"));
        QTRY_COMPARE(*data, (Signals{{QByteArray::fromHex("0102A0FF10"), false}}));
        QCOMPARE(link->status(), UartLink::UART_READY);
    }

    void endlessLine()
    {
        MessageLog log;
        // One byte more than a line may hold: dropped once, when the last byte is in.
        device->sendRawBytes('$' + QByteArray(UartLink::kMaxLineBytes, 'A'));
        const QString dropped =
            QStringLiteral("Unable to decode GNX message \"$%1...\".").arg(QString(79, 'A'));
        QTRY_COMPARE_WITH_TIMEOUT(log.warnings(), QStringList{dropped}, 10000);
        // Nothing of it is left: its line end makes an empty line.
        device->sendRawBytes("\r\n");
        QTRY_COMPARE(log.warnings(), (QStringList{dropped, "Empty line"}));
    }

    void farSideClosed()
    {
        const QString lost = QStringLiteral("Port %1 lost (error ").arg(device->slavePath());
        device->unplug();
        QVERIFY(errors->wait(5000));
        QVERIFY(!link->isPortOpen());
        QCOMPARE(errors->first().at(0).toString().left(lost.size()), lost);
        // No flood of errors while the far side stays closed.
        QVERIFY(!errors->wait(500));
        QCOMPARE(errors->count(), 1);
    }
};

OGM_TEST_MAIN(TestUartLink)
#include "tst_uartlink.moc"
