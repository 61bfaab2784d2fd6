#include "PtyDevice.h"
#include "TestSupport.h"
#include "com/GnxFrame.h"
#include "com/UartLink.h"

#include <QSignalSpy>
#include <QTest>

#include <memory>

using namespace OrviaGonioManager::Com;
using TestSupport::CatchingApplication;
using TestSupport::MessageLog;

namespace {

QByteArray frame(const QString& payload)
{
    return '$' + GnxFrame::seal(payload).toLatin1() + "\r\n";
}

// A binary flash answer as a GNX234 sends it: a frame giving the block count, one frame per
// 128-byte block (the last one padded with erased bytes), and a closing frame without data.
QByteArray flashAnswer(const QByteArray& data)
{
    const int blocks = (data.size() + 127) / 128;
    const quint32 count = quint32(blocks + 1);
    QByteArray answer;
    QByteArray countBlock(128, '\0');
    countBlock[124] = char(count >> 24);
    countBlock[125] = char(count >> 16);
    countBlock[126] = char(count >> 8);
    countBlock[127] = char(count);
    answer += "$RFP,0," + QByteArray::number(data.size()) + "," + countBlock + "*00\r\n";
    for (int i = 0; i < blocks; ++i) {
        QByteArray block = data.mid(i * 128, 128);
        block.append(QByteArray(128 - block.size(), char(0xFF)));
        answer += "$RFP," + QByteArray::number(i * 128) + ",128," + block + "*00\r\n";
    }
    answer += "$RFP," + QByteArray::number(blocks * 128) + ",0,*00\r\n";
    return answer;
}

QByteArray sampleFlash(int size)
{
    QByteArray data(size, '\0');
    for (int i = 0; i < size; ++i)
        data[i] = char((i * 7 + 3) % 256); // every byte value, "$", ",", "*" and line ends included
    return data;
}

} // namespace

class TestUartLink : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<PtyDevice> device;
    std::unique_ptr<UartLink> link;

    void openLink()
    {
        device = std::make_unique<PtyDevice>();
        QVERIFY(device->isValid());
        link = std::make_unique<UartLink>(device->slavePath());
        link->slotOpenConnection();
        QCOMPARE(link->status(), UartLink::UART_READY);
        QVERIFY(link->isPortOpen());
    }

    // Sends a command and waits until the device has read its frame.
    void send(GnxLink::GnxCmd_t cmd, const QStringList& params = {},
              GnxLink::GnxVersion_t version = GnxLink::GNX_V2)
    {
        const int before = int(device->lines.size());
        link->slotSendRequest(cmd, params, version);
        QTRY_COMPARE(int(device->lines.size()), before + 1);
    }

private slots:
    void init()
    {
        TestSupport::sandboxSettings();
        CatchingApplication::clearCaught();
    }
    void cleanup()
    {
        link.reset();
        device.reset();
    }

    void frameOnTheWire()
    {
        openLink();
        send(GnxLink::CMD_SETUPSW, QStringList(12, QString()));
        QCOMPARE(device->lines.last(), QByteArray("$SETUPSW,,,,,,,,,,,,*69"));
        QCOMPARE(link->status(), UartLink::UART_WAITING_REPLY);
    }

    void reply()
    {
        openLink();
        QSignalSpy replies(link.get(), &UartLink::sigReplyReceived);
        send(GnxLink::CMD_GSN);
        device->write(frame("GSN,12-345"));
        QVERIFY(replies.wait(5000));
        QCOMPARE(replies.first().at(0).toStringList(), QStringList{"12-345"});
        QCOMPARE(replies.first().at(1).toBool(), false);
        QCOMPARE(link->status(), UartLink::UART_READY);
    }

    void replyErrors_data()
    {
        QTest::addColumn<int>("cmd");
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<QStringList>("values");
        QTest::addColumn<bool>("isError");

        QTest::newRow("unrelated") << int(GnxLink::CMD_GSN) << frame("LIG,1,2")
                                   << QStringList{"Unrelated message: \"$LIG,1,2*6B\""} << true;
        QTest::newRow("ACK accepted")
            << int(GnxLink::CMD_ATBL) << frame("ACK,1") << QStringList{"1"} << false;
        QTest::newRow("ACK refused") << int(GnxLink::CMD_ATBL) << frame("ACK,0")
                                     << QStringList{"Invalid command: \"$ATBL*31\""} << true;
        QTest::newRow("ACK not a number") << int(GnxLink::CMD_WRSC) << frame("ACK,x")
                                          << QStringList{"Invalid command: \"$WRSC*3F\""} << true;
        QTest::newRow("unknown command refused")
            << int(GnxLink::CMD_GSN) << frame("ACK,0") << QStringList{"Invalid command: \"$GSN*70\""} << true;
    }
    void replyErrors()
    {
        QFETCH(int, cmd);
        QFETCH(QByteArray, answer);
        QFETCH(QStringList, values);
        QFETCH(bool, isError);

        openLink();
        QSignalSpy replies(link.get(), &UartLink::sigReplyReceived);
        send(GnxLink::GnxCmd_t(cmd));
        device->write(answer);
        QVERIFY(replies.wait(5000));
        QCOMPARE(replies.first().at(0).toStringList(), values);
        QCOMPARE(replies.first().at(1).toBool(), isError);
        QCOMPARE(link->status(), UartLink::UART_READY);
    }

    void badChecksumReply()
    {
        openLink();
        QSignalSpy errors(link.get(), &UartLink::sigErrorOccured);
        QSignalSpy replies(link.get(), &UartLink::sigReplyReceived);
        send(GnxLink::CMD_GSN);
        device->write("$GSN,12-345*41\r\n");
        QVERIFY(errors.wait(5000));
        QCOMPARE(errors.first().at(0).toString(),
                 QStringLiteral("Bad checksum in GNX reply \"$GSN,12-345*41\": 41 vs 40."));
        QCOMPARE(replies.count(), 0);
    }

    void nprCrossingAReply()
    {
        auto& settings = TestSupport::sandboxSettings();
        settings.gnxCommandTimeoutMs = 2000;
        openLink();
        QSignalSpy rx(link.get(), &UartLink::sigRxReceived);
        QSignalSpy replies(link.get(), &UartLink::sigReplyReceived);
        QSignalSpy errors(link.get(), &UartLink::sigErrorOccured);
        send(GnxLink::CMD_GSN);
        device->write(frame("NPR,1,2,3"));
        QVERIFY(rx.wait(5000));
        QCOMPARE(rx.first().at(0).value<GnxLink::GnxMessageType_t>(), GnxLink::GNXMSG_NPR);
        QCOMPARE(rx.first().at(1).toStringList(), (QStringList{"1", "2", "3"}));
        QCOMPARE(link->status(), UartLink::UART_WAITING_REPLY);
        QCOMPARE(replies.count(), 0);

        // The reply timer runs again: the command still times out when nothing more comes.
        QVERIFY(errors.wait(10000));
        QCOMPARE(errors.first().at(0).toString(), QStringLiteral("Uart link timeout"));
        QCOMPARE(link->status(), UartLink::UART_ERROR_TIMEOUT);
    }

    void nprfCrossingThenReply()
    {
        openLink();
        QSignalSpy rx(link.get(), &UartLink::sigRxReceived);
        QSignalSpy replies(link.get(), &UartLink::sigReplyReceived);
        send(GnxLink::CMD_GSN);
        device->write(frame("NPRF,4,5") + frame("GSN,0001,2"));
        QVERIFY(replies.wait(5000));
        QCOMPARE(rx.count(), 1);
        QCOMPARE(rx.first().at(0).value<GnxLink::GnxMessageType_t>(), GnxLink::GNXMSG_NPRF);
        QCOMPARE(replies.first().at(0).toStringList(), (QStringList{"0001", "2"}));
        QCOMPARE(link->status(), UartLink::UART_READY);
    }

    void unsolicited()
    {
        openLink();
        QSignalSpy rx(link.get(), &UartLink::sigRxReceived);
        QSignalSpy replies(link.get(), &UartLink::sigReplyReceived);
        device->write(frame("NPR,7") + frame("LIG,1,2"));
        QVERIFY(replies.wait(5000));
        QCOMPARE(rx.count(), 1);
        QCOMPARE(rx.first().at(1).toStringList(), QStringList{"7"});
        QCOMPARE(replies.first().at(0).toStringList(),
                 QStringList{"Unknown GNX message type in \"$LIG,1,2*6B\"."});
        QCOMPARE(replies.first().at(1).toBool(), true);
        QCOMPARE(link->status(), UartLink::UART_READY);
    }

    void commandTimeout()
    {
        auto& settings = TestSupport::sandboxSettings();
        settings.gnxCommandTimeoutMs = 200;
        openLink();
        QSignalSpy errors(link.get(), &UartLink::sigErrorOccured);
        send(GnxLink::CMD_LIG);
        QVERIFY(errors.wait(10000));
        QCOMPARE(errors.count(), 1);
        QCOMPARE(errors.first().at(0).toString(), QStringLiteral("Uart link timeout"));
        QCOMPARE(link->status(), UartLink::UART_ERROR_TIMEOUT);
        QVERIFY(CatchingApplication::caught().isEmpty());

        // A timed-out link refuses further commands and sends nothing.
        const int sent = int(device->lines.size());
        try {
            link->slotSendRequest(GnxLink::CMD_TEST, {}, GnxLink::GNX_V2);
            QFAIL("no exception");
        } catch (const MRL::Utils::Exception& e) {
            QCOMPARE(e.message(), QStringLiteral("UartLink is not available"));
        }
        QCOMPARE(int(device->lines.size()), sent);
    }

    void keepAliveWithAnsweringDevice()
    {
        auto& settings = TestSupport::sandboxSettings();
        settings.keepAlivePeriodMs = 100;
        settings.keepAliveTimeoutMs = 2000;
        openLink();
        QSignalSpy replies(link.get(), &UartLink::sigReplyReceived);
        QSignalSpy errors(link.get(), &UartLink::sigErrorOccured);
        int outstanding = 0;
        int maxOutstanding = 0;
        device->onLine = [&](const QByteArray& line) {
            maxOutstanding = qMax(maxOutstanding, ++outstanding);
            if (line == "$TEST*3C") {
                device->write(frame("TEST,GNX134,1.0"));
                --outstanding;
            }
        };
        QTRY_VERIFY_WITH_TIMEOUT(device->lines.size() >= 5, 20000);
        for (const QByteArray& line : std::as_const(device->lines))
            QCOMPARE(line, QByteArray("$TEST*3C"));
        QCOMPARE(maxOutstanding, 1);
        QCOMPARE(replies.count(), 0); // the keep-alive answer is not handed up
        QCOMPARE(errors.count(), 0);
    }

    void requestDuringKeepAlive()
    {
        auto& settings = TestSupport::sandboxSettings();
        settings.keepAlivePeriodMs = 50;
        settings.keepAliveTimeoutMs = 10000;
        openLink();
        QSignalSpy replies(link.get(), &UartLink::sigReplyReceived);
        QTRY_COMPARE(device->lines, QList<QByteArray>{"$TEST*3C"});
        QCOMPARE(link->status(), UartLink::UART_WAITING_REPLY);

        // A command arriving while the keep-alive is out goes once it is answered.
        link->slotSendRequest(GnxLink::CMD_GSN, {}, GnxLink::GNX_V2);
        QCOMPARE(device->lines.size(), 1);
        device->write(frame("TEST,GNX234"));
        QTRY_COMPARE(device->lines.size(), 2);
        QCOMPARE(device->lines.last(), QByteArray("$GSN*70"));
        QCOMPARE(link->status(), UartLink::UART_WAITING_REPLY);
        device->write(frame("GSN,12,345"));
        QVERIFY(replies.wait(5000));
        QCOMPARE(replies.first().at(0).toStringList(), (QStringList{"12", "345"}));
        QVERIFY(CatchingApplication::caught().isEmpty());
    }

    void keepAliveTimeout()
    {
        auto& settings = TestSupport::sandboxSettings();
        settings.keepAlivePeriodMs = 50;
        settings.keepAliveTimeoutMs = 200;
        openLink();
        QSignalSpy errors(link.get(), &UartLink::sigErrorOccured);
        QVERIFY(errors.wait(10000));
        QCOMPARE(errors.first().at(0).toString(), QStringLiteral("Uart link timeout"));
        QCOMPARE(link->status(), UartLink::UART_ERROR_TIMEOUT);
        QCOMPARE(device->lines, QList<QByteArray>{"$TEST*3C"});
        QCOMPARE(CatchingApplication::caught(), QStringList{"UART link timeout on KeepAlive"});
    }

    void binaryFlashAnswer_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<bool>("bytewise");

        QTest::newRow("empty memory, one write") << 0 << false;
        QTest::newRow("one block, one write") << 100 << false;
        QTest::newRow("five blocks, one write") << 600 << false;
        QTest::newRow("five blocks, byte by byte") << 600 << true;
    }
    void binaryFlashAnswer()
    {
        QFETCH(int, size);
        QFETCH(bool, bytewise);

        openLink();
        QSignalSpy data(link.get(), &UartLink::sigBinaryRfpDataReceived);
        QSignalSpy rx(link.get(), &UartLink::sigRxReceived);
        send(GnxLink::CMD_RFP, {"0", QString::number(size)}, GnxLink::GNX_V2);
        QCOMPARE(link->status(), UartLink::UART_WAITING_RFP_BINARY_REPLY);

        const QByteArray flash = sampleFlash(size);
        const QByteArray answer = flashAnswer(flash);
        // A report following the answer is read as a line again.
        const QByteArray after = frame("NPR,9");
        if (bytewise) {
            // Each byte is read by the link before the next one is written.
            QSignalSpy reads(link->findChild<QSerialPort*>(), &QSerialPort::readyRead);
            for (const char byte : answer + after) {
                device->write(QByteArray(1, byte));
                QVERIFY(reads.wait(5000));
            }
        } else
            device->write(answer + after);

        QTRY_COMPARE_WITH_TIMEOUT(data.count(), 1, 10000);
        QByteArray expected = flash;
        expected.append(QByteArray((128 - size % 128) % 128, char(0xFF)));
        QCOMPARE(data.first().at(0).toByteArray(), expected);
        QCOMPARE(data.first().at(1).toBool(), false);
        QCOMPARE(link->status(), UartLink::UART_READY);
        QTRY_COMPARE(rx.count(), 1);
    }

    void binaryFlashAnswerAmongOtherBytes()
    {
        openLink();
        QSignalSpy data(link.get(), &UartLink::sigBinaryRfpDataReceived);
        QSignalSpy rx(link.get(), &UartLink::sigRxReceived);
        QSignalSpy replies(link.get(), &UartLink::sigReplyReceived);
        send(GnxLink::CMD_RFP, {"0", "200"}, GnxLink::GNX_V2);
        // Line noise and a report before the answer are no part of the data.
        const QByteArray flash = sampleFlash(200);
        device->write("#%\r\n" + frame("NPRF,5") + flashAnswer(flash));
        QVERIFY(data.wait(5000));
        QCOMPARE(data.first().at(0).toByteArray(), flash + QByteArray(56, char(0xFF)));
        QCOMPARE(rx.count(), 1);
        QCOMPARE(link->status(), UartLink::UART_READY);

        // A refused read ends at once.
        send(GnxLink::CMD_RFP, {"x", "200"}, GnxLink::GNX_V2);
        device->write(frame("ACK,0"));
        QVERIFY(replies.wait(5000));
        QCOMPARE(replies.first().at(0).toStringList(), QStringList{"Invalid command: \"$RFP,x,200*24\""});
        QCOMPARE(link->status(), UartLink::UART_READY);
    }

    void binaryFlashAnswerStalls()
    {
        auto& settings = TestSupport::sandboxSettings();
        settings.gnxCommandTimeoutMs = 300;
        openLink();
        QSignalSpy errors(link.get(), &UartLink::sigErrorOccured);
        send(GnxLink::CMD_RFP, {"0", "600"}, GnxLink::GNX_V2);
        device->write(flashAnswer(sampleFlash(600)).left(300));
        QVERIFY(errors.wait(10000));
        QCOMPARE(errors.first().at(0).toString(), QStringLiteral("Uart link timeout"));
        QCOMPARE(link->status(), UartLink::UART_ERROR_TIMEOUT);
    }

    void binaryFlashAnswerWithoutFrames()
    {
        MessageLog log;
        openLink();
        QSignalSpy data(link.get(), &UartLink::sigBinaryRfpDataReceived);
        send(GnxLink::CMD_RFP, {"0", "600"}, GnxLink::GNX_V2);
        device->write("$RFP" + QByteArray(UartLink::kMaxLineBytes + 10, 'x'));
        QTRY_COMPARE_WITH_TIMEOUT(data.count(), 1, 10000);
        QCOMPARE(data.first().at(1).toBool(), true);
        QVERIFY(data.first().at(0).toByteArray().startsWith("Flash memory answer not understood"));
        QCOMPARE(link->status(), UartLink::UART_READY);
    }

    void textFlashAnswer()
    {
        openLink();
        QSignalSpy data(link.get(), &UartLink::sigBinaryRfpDataReceived);
        send(GnxLink::CMD_RFP, {"3"}, GnxLink::GNX_V1);
        QCOMPARE(device->lines.last(), QByteArray("$RFP,3*71"));
        QCOMPARE(link->status(), UartLink::UART_WAITING_RFP_REPLY);
        device->write(frame("RFP,1,0102A0FF") + frame("RFP,2,10") + frame("RFP,0,"));
        QVERIFY(data.wait(5000));
        QCOMPARE(data.count(), 1);
        QCOMPARE(data.first().at(0).toByteArray(), QByteArray::fromHex("0102A0FF10"));
        QCOMPARE(data.first().at(1).toBool(), false);
        QCOMPARE(link->status(), UartLink::UART_READY);
    }

    void emptyLines()
    {
        MessageLog log;
        openLink();
        QSignalSpy replies(link.get(), &UartLink::sigReplyReceived);
        send(GnxLink::CMD_GSN);
        device->write("\r\n  \r\n" + frame("GSN,1-2"));
        QVERIFY(replies.wait(5000));
        QCOMPARE(replies.first().at(0).toStringList(), QStringList{"1-2"});
        QCOMPARE(log.count(QtWarningMsg, QStringLiteral("Empty line")), 2);
    }

    void endlessLine()
    {
        openLink();
        MessageLog log;
        QSignalSpy replies(link.get(), &UartLink::sigReplyReceived);
        // One byte more than a line may hold: dropped once, when the last byte is in.
        device->write(QByteArray(UartLink::kMaxLineBytes + 1, 'A'));
        const QString dropped =
            QStringLiteral("Unable to decode GNX message \"%1...\".").arg(QString(80, 'A'));
        QTRY_COMPARE_WITH_TIMEOUT(log.warnings(), QStringList{dropped}, 10000);

        // Nothing of it is left: the line end alone makes an empty line, and the link works on.
        device->write("\r\n");
        QTRY_COMPARE(log.warnings(), (QStringList{dropped, "Empty line"}));
        send(GnxLink::CMD_GSN);
        device->write(frame("GSN,1-2"));
        QVERIFY(replies.wait(5000));
        QCOMPARE(replies.last().at(0).toStringList(), QStringList{"1-2"});
    }

    void manualCommandGoesOutAsTyped()
    {
        openLink();
        link->slotSendManualGnxCmd(QStringLiteral("$FOO,1*00"));
        QTRY_COMPARE(int(device->lines.size()), 1);
        QCOMPARE(device->lines.first(), QByteArray("$FOO,1*00"));
        QCOMPARE(link->status(), UartLink::UART_READY);
    }

    void farSideClosed()
    {
        openLink();
        QSignalSpy errors(link.get(), &UartLink::sigErrorOccured);
        device->closeMaster();
        QVERIFY(errors.wait(5000));
        QCOMPARE(errors.count(), 1);
        const QString message = errors.first().at(0).toString();
        QVERIFY2(message.startsWith(QStringLiteral("Port %1 lost (error ").arg(device->slavePath())),
                 qPrintable(message));
        QVERIFY(!link->isPortOpen());
        QVERIFY(link->hasFailed());
        // Nothing more comes: no flood of errors while the far side stays closed.
        QVERIFY(!errors.wait(500));
        QCOMPARE(errors.count(), 1);
    }

    void openFailure()
    {
        // Unique name: the port's lock file is named after it, and tests run in parallel.
        const QString path = QStringLiteral("/nonexistent/gnx%1").arg(QCoreApplication::applicationPid());
        link = std::make_unique<UartLink>(path);
        QSignalSpy errors(link.get(), &UartLink::sigErrorOccured);
        link->slotOpenConnection();
        QCOMPARE(errors.count(), 1);
        QCOMPARE(errors.first().at(0).toString(),
                 QStringLiteral("Port %1 cannot be open (error DeviceNotFoundError)").arg(path));
        QCOMPARE(link->status(), UartLink::UART_INIT);
        QVERIFY(link->hasFailed());
    }

    void dtrOnPseudoTerminalWarnsOnce()
    {
        MessageLog log;
        openLink();
        QSignalSpy errors(link.get(), &UartLink::sigErrorOccured);
        link->slotSetLiveRxEnabled(false);
        link->slotSetLiveRxEnabled(true);
        int dtrWarnings = 0;
        for (const QString& w : log.warnings())
            dtrWarnings += w.contains(QStringLiteral("DTR")) ? 1 : 0;
        QCOMPARE(dtrWarnings, 1);
        QCOMPARE(errors.count(), 0);
        QVERIFY(link->isPortOpen());
    }

    void statusTraceAndMetaObjectOrder()
    {
        auto& settings = TestSupport::sandboxSettings();
        settings.printUartDebugInfo = true;
        MessageLog log;
        openLink();
        QVERIFY(log.messages(QtDebugMsg).contains(QStringLiteral("From UART_INIT to UART_READY")));

        const QMetaObject* mo = link->metaObject();
        const int offset = mo->methodOffset();
        const QList<QByteArray> names{"sigReplyReceived",    "sigBinaryRfpDataReceived",
                                      "sigRxReceived",       "sigErrorOccured",
                                      "slotOpenConnection",  "slotSetLiveRxEnabled",
                                      "slotSendRequest",     "slotSendRequest",
                                      "slotSendRequest",     "slotSendManualGnxCmd",
                                      "slotCloseConnection", "slotKeepAlive",
                                      "slotReadyRead",       "slotTimeout"};
        for (int i = 0; i < names.size(); ++i)
            QCOMPARE(mo->method(offset + i).name(), names.at(i));
    }
};

OGM_TEST_MAIN(TestUartLink)
#include "tst_uartlink.moc"
