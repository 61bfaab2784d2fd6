#include "TestSupport.h"
#include "com/ComManager.h"

#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using OrviaGonioManager::Com::ComManager;
using Port = ComManager::PortEntry;
using TestSupport::MessageLog;

namespace {

Port gnx(const QString& name)
{
    return {name, QStringLiteral("/dev/") + name, ComManager::kGnxVendorId, ComManager::kGnxProductId};
}

QStringList names(const QSignalSpy& spy)
{
    QStringList result;
    for (const auto& args : spy)
        result.append(args.at(0).toString());
    return result;
}

} // namespace

class TestComManager : public QObject
{
    Q_OBJECT

private:
    QList<Port> ports;

    void useFakePorts(ComManager& manager)
    {
        manager.setPortLister([this] { return ports; });
    }

private slots:
    void init()
    {
        ports.clear();
        qunsetenv(ComManager::kExtraPortsVariable);
    }

    void detectAndRemove()
    {
        MessageLog log;
        ComManager manager;
        useFakePorts(manager);
        QSignalSpy detected(&manager, &ComManager::sigGnxDetected);
        QSignalSpy removed(&manager, &ComManager::sigGnxRemoved);

        ports = {gnx("ttyUSB0")};
        manager.slotScanComPorts();
        QCOMPARE(names(detected), QStringList{"ttyUSB0"});
        QCOMPARE(log.messages(QtInfoMsg), QStringList{"Creation of UartLink ttyUSB0"});

        manager.slotScanComPorts();
        QCOMPARE(detected.count(), 1);
        QCOMPARE(removed.count(), 0);

        ports.clear();
        manager.slotScanComPorts();
        QCOMPARE(names(removed), QStringList{"ttyUSB0"});
        QVERIFY(manager.knownPorts().isEmpty());

        // Absent for one whole scan, then back: reported again.
        ports = {gnx("ttyUSB0")};
        manager.slotScanComPorts();
        QCOMPARE(names(detected), (QStringList{"ttyUSB0", "ttyUSB0"}));
        QVERIFY(log.warnings().isEmpty());
    }

    void goneAndBackBetweenScansIsNotReported()
    {
        ComManager manager;
        useFakePorts(manager);
        QSignalSpy detected(&manager, &ComManager::sigGnxDetected);
        QSignalSpy removed(&manager, &ComManager::sigGnxRemoved);
        ports = {gnx("ttyACM0")};
        manager.slotScanComPorts();
        ports.clear();
        ports = {gnx("ttyACM0")};
        manager.slotScanComPorts();
        QCOMPARE(detected.count(), 1);
        QCOMPARE(removed.count(), 0);
    }

    void reject_data()
    {
        QTest::addColumn<int>("vendor");
        QTest::addColumn<int>("product");
        QTest::addColumn<QString>("warning");

        QTest::newRow("other product")
            << 0x04DE << 0x1234 << "Device vendor 0x4DE product 0x1234 is rejected on port ttyUSB1.";
        QTest::newRow("other vendor")
            << 0x0403 << 0xF584 << "Device vendor 0x403 product 0xF584 is rejected on port ttyUSB1.";
        QTest::newRow("no USB identifiers")
            << 0 << 0 << "Device vendor 0x0 product 0x0 is rejected on port ttyUSB1.";
    }
    void reject()
    {
        QFETCH(int, vendor);
        QFETCH(int, product);
        QFETCH(QString, warning);

        MessageLog log;
        ComManager manager;
        useFakePorts(manager);
        QSignalSpy detected(&manager, &ComManager::sigGnxDetected);
        ports = {{"ttyUSB1", "/dev/ttyUSB1", quint16(vendor), quint16(product)}};
        manager.slotScanComPorts();
        manager.slotScanComPorts();
        QCOMPARE(detected.count(), 0);
        QCOMPARE(log.warnings(), QStringList{warning}); // once while it stays plugged in

        ports.clear();
        manager.slotScanComPorts();
        ports = {{"ttyUSB1", "/dev/ttyUSB1", quint16(vendor), quint16(product)}};
        manager.slotScanComPorts();
        QCOMPARE(log.warnings(), (QStringList{warning, warning}));
    }

    void twoReceivers()
    {
        ComManager manager;
        useFakePorts(manager);
        QSignalSpy detected(&manager, &ComManager::sigGnxDetected);
        QSignalSpy removed(&manager, &ComManager::sigGnxRemoved);
        ports = {gnx("ttyUSB0"), {"ttyS0", "/dev/ttyS0", 0, 0}, gnx("ttyUSB2")};
        manager.slotScanComPorts();
        QCOMPARE(names(detected), (QStringList{"ttyUSB0", "ttyUSB2"}));

        ports = {gnx("ttyUSB2")};
        manager.slotScanComPorts();
        QCOMPARE(names(removed), QStringList{"ttyUSB0"});
        QCOMPARE(manager.knownPorts(), QSet<QString>{"ttyUSB2"});
    }

    void extraPorts()
    {
        QTemporaryDir dir;
        const QString first = dir.filePath("gnx0");
        const QString second = dir.filePath("gnx1");
        const QString adapter = dir.filePath("ttyUSB3");
        QFile(first).open(QIODevice::WriteOnly);
        QFile(adapter).open(QIODevice::WriteOnly);
        qputenv(ComManager::kExtraPortsVariable, (first + "::" + second + ":" + adapter).toLocal8Bit());

        MessageLog log;
        ComManager manager;
        useFakePorts(manager);
        QSignalSpy detected(&manager, &ComManager::sigGnxDetected);
        QSignalSpy removed(&manager, &ComManager::sigGnxRemoved);
        // A listed port named in the variable is offered under its path, not rejected.
        ports = {{"ttyUSB3", adapter, 0x0403, 0x6001}};

        manager.slotScanComPorts();
        QCOMPARE(names(detected), (QStringList{first, adapter}));
        QVERIFY(log.warnings().isEmpty());

        QFile(second).open(QIODevice::WriteOnly);
        manager.slotScanComPorts();
        QCOMPARE(names(detected).last(), second);

        QFile::remove(first);
        manager.slotScanComPorts();
        QCOMPARE(names(removed), QStringList{first});
        QVERIFY(manager.knownPorts().contains(second));
    }

    void rescansByItself()
    {
        ComManager manager;
        useFakePorts(manager);
        QSignalSpy detected(&manager, &ComManager::sigGnxDetected);
        manager.slotScanComPorts();
        ports = {gnx("ttyUSB5")};
        QVERIFY(detected.wait(5000));
        QCOMPARE(names(detected), QStringList{"ttyUSB5"});
    }
};

QTEST_GUILESS_MAIN(TestComManager)
#include "tst_commanager.moc"
