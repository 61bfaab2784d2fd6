// Mode switch and firmware upload over a pseudo-terminal against gnxsim.
#include "SimLink.h"
#include "com/GnxFrame.h"
#include "sim/Firmware.h"

#include <QSignalSpy>

using namespace OrviaGonioManager::Com;
using TestSupport::CatchingApplication;
using TestSupport::MessageLog;

namespace {

// A generated firmware file as the window hands it over: split at carriage returns, header dropped.
QList<QByteArray> firmwareRecords(const QString& version, int dataRecords, int recordBytes = 32)
{
    QList<QByteArray> lines =
        gnxsim::Firmware::vanFile(gnxsim::Model::Gnx234, version, dataRecords, recordBytes).split('\r');
    lines.removeFirst();
    return lines;
}

QStringList progressLines(const MessageLog& log)
{
    QStringList lines;
    for (const QString& text : log.messages(QtInfoMsg)) {
        if (text.contains(QLatin1String("% uploaded")))
            lines << text;
    }
    return lines;
}

QStringList mnemonics(const QStringList& received)
{
    QStringList out;
    for (const QString& line : received)
        out << line.section(QLatin1Char(','), 0, 0);
    return out;
}

} // namespace

class TestGnxLinkFirmware : public QObject
{
    Q_OBJECT

    SimLink sl;

private slots:
    void initTestCase() { TestSupport::sandboxSettings(); }
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

    void switchMode()
    {
        QVERIFY(sl.start(simOptions(gnxsim::Model::Gnx234)));
        sl.link->switchMode();
        QCOMPARE(mnemonics(sl.sim->receivedLines()), (QStringList{"TEST", "GSN", "LIG", "SUA"}));
        QVERIFY(sl.sim->mode() == gnxsim::Mode::Bl);

        sl.sim->clearReceived();
        sl.link->switchMode();
        QCOMPARE(mnemonics(sl.sim->receivedLines()), (QStringList{"TEST", "REBO"}));
        QVERIFY(sl.sim->mode() == gnxsim::Mode::App);
    }

    // The GNX134 reports no mode: nothing is sent after the identification.
    void switchModeUndefined()
    {
        QVERIFY(sl.start(simOptions(gnxsim::Model::Gnx134)));
        sl.link->switchMode();
        QCOMPARE(mnemonics(sl.sim->receivedLines()), (QStringList{"TEST", "GSN", "LIG"}));
    }

    // The whole dialogue, its log and its progress, then the new version after the reboot.
    void upload()
    {
        auto& settings = TestSupport::sandboxSettings();
        settings.printAtCmdDebugInfo = true;
        QVERIFY(sl.start(simOptions(gnxsim::Model::Gnx234, gnxsim::Mode::Bl)));
        const QList<QByteArray> records = firmwareRecords(QStringLiteral("4.0.1"), 1);
        QCOMPARE(records.size(), 3);

        MessageLog log;
        QSignalSpy progress(sl.link.get(), &GnxLink::sigFirmwareProgress);
        sl.link->uploadFirmware(records);

        QCOMPARE(mnemonics(sl.sim->receivedLines()),
                 (QStringList{"TEST", "ATBL", "ERRF", "WRDA", "WRDA", "WRDA", "WRSC", "REBO"}));
        for (int i = 0; i < 3; ++i)
            QCOMPARE(sl.sim->receivedLines().at(3 + i), "WRDA," + QString::fromLatin1(records[i]));
        QCOMPARE(log.messages(QtInfoMsg),
                 (QStringList{"Unlocking bootloader...", "Erase previous firmware...",
                              "33% uploaded (line 1 on 3)...", "66% uploaded (line 2 on 3)...",
                              "100% uploaded (line 3 on 3)...", "Upload complete.", "Locking bootloader...",
                              "Upgrade OK. Reboot."}));
        QCOMPARE(progress.size(), 3);
        for (int i = 0; i < 3; ++i)
            QCOMPARE(progress.at(i), (QList<QVariant>{i + 1, 3}));

        // Records stay out of the command trace; the setting comes back afterwards.
        const QStringList debug = log.messages(QtDebugMsg);
        QVERIFY(debug.contains(QStringLiteral("Send $ATBL*31")));
        QVERIFY(debug.filter(QStringLiteral("Send $WRDA")).isEmpty());
        QVERIFY(!debug.filter(QStringLiteral("Send $WRSC")).isEmpty());
        QCOMPARE(settings.printAtCmdDebugInfo, true);

        QVERIFY(sl.sim->mode() == gnxsim::Mode::App);
        const GnxLink::GnxDeviceInfo info = sl.link->readDeviceInfo();
        QCOMPARE(info.mode, GnxLink::GNX_APP);
        QCOMPARE(info.applicationVersion, QStringLiteral("4.0.1"));
    }

    // The percentage changes every ten records: exactly one hundred lines.
    void progressOfAThousandRecords()
    {
        QVERIFY(sl.start(simOptions(gnxsim::Model::Gnx234, gnxsim::Mode::Bl)));
        const QList<QByteArray> records = firmwareRecords(QStringLiteral("4.1.0"), 998, 16);
        QCOMPARE(records.size(), 1000);
        MessageLog log;
        QSignalSpy progress(sl.link.get(), &GnxLink::sigFirmwareProgress);
        sl.link->uploadFirmware(records);

        const QStringList lines = progressLines(log);
        QCOMPARE(lines.size(), 100);
        QCOMPARE(lines.first(), QStringLiteral("1% uploaded (line 10 on 1000)..."));
        QCOMPARE(lines.at(49), QStringLiteral("50% uploaded (line 500 on 1000)..."));
        QCOMPARE(lines.last(), QStringLiteral("100% uploaded (line 1000 on 1000)..."));
        QCOMPARE(progress.size(), 1000);
        QCOMPARE(progress.last(), (QList<QVariant>{1000, 1000}));
        QCOMPARE(sl.sim->applicationVersion(), QStringLiteral("4.1.0"));
    }

    void refusedOutsideBootloader_data()
    {
        QTest::addColumn<int>("model");
        QTest::addColumn<QString>("error");
        QTest::newRow("GNX234 application")
            << int(gnxsim::Model::Gnx234) << "Unable to flash firmware, GNX is not in BL mode (2)";
        QTest::newRow("GNX134, no mode reported")
            << int(gnxsim::Model::Gnx134) << "Unable to flash firmware, GNX is not in BL mode (0)";
    }
    void refusedOutsideBootloader()
    {
        QFETCH(int, model);
        QFETCH(QString, error);
        QVERIFY(sl.start(simOptions(gnxsim::Model(model))));
        const QString version = sl.sim->applicationVersion();
        QCOMPARE(thrownMessage([&] { sl.link->uploadFirmware(firmwareRecords("9.9.9", 3)); }), error);
        QVERIFY(!mnemonics(sl.sim->receivedLines()).contains(QStringLiteral("ATBL")));
        QCOMPARE(sl.sim->applicationVersion(), version);
    }

    // The receiver refuses a damaged record: the upload stops there with its error and the device
    // stays in the bootloader, from which a new upload goes through.
    void corruptRecordThenRetry()
    {
        auto& settings = TestSupport::sandboxSettings();
        settings.printAtCmdDebugInfo = true;
        QVERIFY(sl.start(simOptions(gnxsim::Model::Gnx234, gnxsim::Mode::Bl)));
        QList<QByteArray> records = firmwareRecords(QStringLiteral("5.0.0"), 6);
        QByteArray& bad = records[3];
        bad[20] = bad[20] == 'A' ? 'B' : 'A'; // a data digit: the record's checksum no longer adds up
        const QString badLine =
            "$" + OrviaGonioManager::Com::GnxFrame::seal("WRDA," + QString::fromLatin1(bad));

        QSignalSpy progress(sl.link.get(), &GnxLink::sigFirmwareProgress);
        QCOMPARE(thrownMessage([&] { sl.link->uploadFirmware(records); }),
                 QStringLiteral("Error in reply: Invalid command: \"%1\"").arg(badLine));
        QCOMPARE(progress.size(), 3);
        QVERIFY(!mnemonics(sl.sim->receivedLines()).contains(QStringLiteral("WRSC")));
        QVERIFY(sl.sim->mode() == gnxsim::Mode::Bl);
        QCOMPARE(settings.printAtCmdDebugInfo, false); // left off by the interrupted loop

        const QList<QByteArray> good = firmwareRecords(QStringLiteral("5.0.1"), 6);
        sl.link->uploadFirmware(good);
        QVERIFY(sl.sim->mode() == gnxsim::Mode::App);
        QCOMPARE(sl.link->readDeviceInfo().applicationVersion, QStringLiteral("5.0.1"));
    }

    // A CR LF file split at carriage returns: line feeds and the empty tail are not records.
    void crLfFile()
    {
        QVERIFY(sl.start(simOptions(gnxsim::Model::Gnx234, gnxsim::Mode::Bl)));
        QByteArray file = gnxsim::Firmware::vanFile(gnxsim::Model::Gnx234, QStringLiteral("6.0.0"), 4);
        file.replace('\r', "\r\n");
        file.append("\r\n");
        QList<QByteArray> lines = file.split('\r');
        lines.removeFirst();
        QSignalSpy progress(sl.link.get(), &GnxLink::sigFirmwareProgress);
        sl.link->uploadFirmware(lines);
        QCOMPARE(progress.last(), (QList<QVariant>{6, 6}));
        QCOMPARE(sl.sim->applicationVersion(), QStringLiteral("6.0.0"));
    }

    // Nothing to write: refused before the erase, the application stays.
    void emptyFirmware()
    {
        QVERIFY(sl.start(simOptions(gnxsim::Model::Gnx234, gnxsim::Mode::Bl)));
        QCOMPARE(thrownMessage([&] {
                     sl.link->uploadFirmware({QByteArray(), QByteArray("\n")});
                 }),
                 QStringLiteral("Unable to flash firmware, no firmware data"));
        QCOMPARE(mnemonics(sl.sim->receivedLines()), QStringList{"TEST"});
    }
};

OGM_TEST_MAIN(TestGnxLinkFirmware)
#include "tst_gnxlink_firmware.moc"
