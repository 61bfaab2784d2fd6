// Live received messages over a pseudo-terminal: gnxsim reports, GnxLink parses and formats back.
#include "NprSamples.h"
#include "SimLink.h"
#include "com/GnxFrame.h"

#include <QSignalSpy>

using namespace OrviaGonioManager::Com;
using namespace NprSamples;
using TestSupport::CatchingApplication;
using TestSupport::MessageLog;

namespace {

constexpr int kWaitMs = 30000;

// The last line the link logged as received with this prefix (the device's own bytes).
QString receivedLine(const MessageLog& log, const QString& prefix)
{
    const QStringList debug = log.messages(QtDebugMsg);
    for (auto it = debug.crbegin(); it != debug.crend(); ++it) {
        if (it->startsWith(QLatin1String("Receive ") + prefix))
            return it->mid(8);
    }
    return QString();
}

} // namespace

Q_DECLARE_METATYPE(gnxsim::Model)

class TestGnxLinkRx : public QObject
{
    Q_OBJECT

    SimLink sl;

    OrviaRxMessage_t waitForMessage(QSignalSpy& spy)
    {
        if (!spy.wait(kWaitMs) && spy.isEmpty())
            return {};
        const QList<QVariant> args = spy.takeFirst();
        if (args.at(1).value<GnxLink::RxOrigin_t>() != GnxLink::RXORIGIN_LIVE)
            qWarning("not a live message");
        return args.at(0).value<OrviaRxMessage_t>();
    }

private slots:
    void initTestCase()
    {
        TestSupport::sandboxSettings();
        qRegisterMetaType<OrviaRxMessage_t>();
    }
    void init()
    {
        TestSupport::sandboxSettings();
        CatchingApplication::clearCaught();
    }
    void cleanup()
    {
        QCOMPARE(CatchingApplication::caught(), QStringList());
        sl.stop();
    }

    // Known lines written by the receiver arrive parsed field by field.
    void knownLines_data()
    {
        QTest::addColumn<GnxLink::GnxVersion_t>("version");
        QTest::addColumn<GnxLink::GnxMessageType_t>("type");
        QTest::addColumn<QString>("line");
        QTest::addColumn<OrviaRxMessage_t>("expected");
        for (const Sample& s : samples())
            QTest::newRow(s.name) << s.version << s.type << s.line << s.expected;
    }
    void knownLines()
    {
        QFETCH(GnxLink::GnxVersion_t, version);
        QFETCH(GnxLink::GnxMessageType_t, type);
        QFETCH(QString, line);
        QFETCH(OrviaRxMessage_t, expected);
        QVERIFY(
            sl.start(simOptions(version == GnxLink::GNX_V1 ? gnxsim::Model::Gnx134 : gnxsim::Model::Gnx234)));
        QCOMPARE(sl.link->version(), version);

        QSignalSpy spy(sl.link.get(), &GnxLink::sigOrviaMessageReceived);
        sl.sim->sendRawLine(mnemonic(type) + QLatin1Char(',') + line);
        QVERIFY(spy.wait(kWaitMs));
        QCOMPARE(spy.first().at(1).value<GnxLink::RxOrigin_t>(), GnxLink::RXORIGIN_LIVE);
        compareMessages(spy.first().at(0).value<OrviaRxMessage_t>(), expected);
    }

    // The receiver's own reports: the record matches its slot, and the formatter gives back the
    // very line the receiver wrote.
    void deviceReports_data()
    {
        QTest::addColumn<gnxsim::Model>("model");
        QTest::addColumn<int>("slot");
        QTest::addColumn<bool>("favourite");
        QTest::addColumn<bool>("quirk");

        for (const auto model : {gnxsim::Model::Gnx134, gnxsim::Model::Gnx234}) {
            const char* m = model == gnxsim::Model::Gnx134 ? "GNX134" : "GNX234";
            // Slot 0 holds a 20-bit identifier, slot 3 a 28-bit one.
            for (const int slot : {0, 3}) {
                QTest::addRow("%s NPRF slot %d", m, slot) << model << slot << true << false;
                QTest::addRow("%s NPR slot %d", m, slot) << model << slot << false << false;
            }
        }
        QTest::newRow("GNX134 NPR, checksum error kept, 20-bit")
            << gnxsim::Model::Gnx134 << 0 << false << true;
        QTest::newRow("GNX134 NPR, checksum error kept, 28-bit")
            << gnxsim::Model::Gnx134 << 3 << false << true;
    }
    void deviceReports()
    {
        QFETCH(gnxsim::Model, model);
        QFETCH(int, slot);
        QFETCH(bool, favourite);
        QFETCH(bool, quirk);
        auto& settings = TestSupport::sandboxSettings();
        settings.printAtCmdDebugInfo = true; // the link logs each line it receives
        settings.keepChecksumErrorOnNprGnx134 = quirk;
        QVERIFY(sl.start(simOptions(model, gnxsim::Mode::App, 5)));
        sl.sim->setGnx134ChecksumQuirk(quirk);
        const bool v1 = model == gnxsim::Model::Gnx134;
        const QString id = sl.sim->platformSlot(slot).value(3);
        QCOMPARE(id.size(), slot == 3 ? 7 : 5);

        MessageLog log;
        QSignalSpy spy(sl.link.get(), &GnxLink::sigOrviaMessageReceived);
        for (int report = 0; report < 3; ++report) {
            QVERIFY(sl.sim->emitNpr(slot, favourite));
            const OrviaRxMessage_t m = waitForMessage(spy);
            const QString line = receivedLine(log, favourite ? "$NPRF," : "$NPR,");
            QVERIFY(!line.isEmpty());

            QCOMPARE(m.platformId, id);
            QCOMPARE(m.platformIndex, favourite ? slot : (v1 ? 16 : -1));
            QVERIFY(m.payload.size() >= 1);
            QCOMPARE(m.extraCode, qint16(v1 || id.size() == 7 ? 0 : 2));
            const QDateTime at = MRL::Utils::DateTime::fromMjd(m.mjd, m.secondsOfDay).toQDateTime();
            QVERIFY2(qAbs(at.secsTo(sl.sim->clock())) < 120, qPrintable(at.toString(Qt::ISODate)));
            QVERIFY(m.gnxLatitude > 40.0 && m.gnxLatitude < 50.0);
            QCOMPARE(sl.link->toNprLine(m), line);
        }
        QCOMPARE(log.count(QtWarningMsg, QStringLiteral("Bad checksum detected on NPR frame.")),
                 quirk ? 3 : 0);
    }

    // Without the setting the formatter writes a correct checksum, so it differs from a GNX134 line.
    void checksumErrorNotKept()
    {
        auto& settings = TestSupport::sandboxSettings();
        settings.printAtCmdDebugInfo = true;
        QVERIFY(sl.start(simOptions(gnxsim::Model::Gnx134, gnxsim::Mode::App, 2)));
        sl.sim->setGnx134ChecksumQuirk(true);
        MessageLog log;
        QSignalSpy spy(sl.link.get(), &GnxLink::sigOrviaMessageReceived);
        QVERIFY(sl.sim->emitNpr(1, false));
        const OrviaRxMessage_t m = waitForMessage(spy);
        const QString line = receivedLine(log, "$NPR,");
        const QString formatted = sl.link->toNprLine(m);
        QCOMPARE(formatted.chopped(2), line.chopped(2));
        QVERIFY(formatted.right(2) != line.right(2));
    }

    // The layout option overrides the connected generation.
    void layoutOption()
    {
        auto& settings = TestSupport::sandboxSettings();
        QVERIFY(sl.start(simOptions(gnxsim::Model::Gnx234)));
        const Sample s = samples().at(4); // GNX234 NPRF
        settings.nprMessagesFormat = 1;
        QCOMPARE(sl.link->toNprLine(s.expected),
                 "$" + OrviaGonioManager::Com::GnxFrame::seal(
                           "NPRF,63,24,2,29,6,7,8,FEDCBA9,401310000,1,45,0,-100,300,60001,-1,359,24,A9C0FF"));
        settings.nprMessagesFormat = 2;
        QVERIFY(sl.link->toNprLine(s.expected).startsWith("$NPRF," + s.line + "*"));
    }

    // A line of the wrong length is dropped and logged; the link carries on.
    void wrongCountDropped_data()
    {
        QTest::addColumn<gnxsim::Model>("model");
        QTest::addColumn<QString>("line");
        QTest::newRow("GNX134 NPR of 18") << gnxsim::Model::Gnx134 << "NPR" + QString(",1").repeated(18);
        QTest::newRow("GNX134 NPRF of 20") << gnxsim::Model::Gnx134 << "NPRF" + QString(",1").repeated(20);
        QTest::newRow("GNX234 NPR of 17") << gnxsim::Model::Gnx234 << "NPR" + QString(",1").repeated(17);
        QTest::newRow("GNX234 NPRF of 19") << gnxsim::Model::Gnx234 << "NPRF" + QString(",1").repeated(19);
    }
    void wrongCountDropped()
    {
        QFETCH(gnxsim::Model, model);
        QFETCH(QString, line);
        QVERIFY(sl.start(simOptions(model)));
        MessageLog log;
        QSignalSpy spy(sl.link.get(), &GnxLink::sigOrviaMessageReceived);
        sl.sim->sendRawLine(line);
        const Sample good = samples().at(model == gnxsim::Model::Gnx134 ? 0 : 2);
        sl.sim->sendRawLine(mnemonic(good.type) + QLatin1Char(',') + good.line);
        QVERIFY(spy.wait(kWaitMs));
        QCOMPARE(spy.size(), 1);
        compareMessages(spy.first().at(0).value<OrviaRxMessage_t>(), good.expected);
        QCOMPARE(log.count(QtWarningMsg, QStringLiteral("Wrong number of parameters in NPR/NPRF message.")),
                 1);
        // The request engine is still usable.
        QCOMPARE(sl.link->readDeviceInfo().version,
                 model == gnxsim::Model::Gnx134 ? GnxLink::GNX_V1 : GnxLink::GNX_V2);
    }

    // Before identification the field count tells the generation.
    void beforeIdentification()
    {
        GnxLink link;
        QSignalSpy spy(&link, &GnxLink::sigOrviaMessageReceived);
        for (const Sample& s : samples()) {
            link.slotRxReceived(s.type, s.line.split(QLatin1Char(',')));
            QCOMPARE(spy.size(), 1);
            compareMessages(spy.takeFirst().at(0).value<OrviaRxMessage_t>(), s.expected);
        }
    }
};

OGM_TEST_MAIN(TestGnxLinkRx)
#include "tst_gnxlink_rx.moc"
