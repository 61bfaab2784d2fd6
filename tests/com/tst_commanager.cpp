#include "TestSupport.h"
#include "com/ComManager.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using OrviaGonioManager::Com::ComManager;
using Port = ComManager::PortEntry;

class TestComManager : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<ComManager> manager;
    QStringList events; // "+port" detected, "-port" removed

    static Port gnx(const QString& name)
    {
        return {name, "/dev/" + name, ComManager::kGnxVendorId, ComManager::kGnxProductId, {}};
    }
    void scan(const QList<Port>& ports)
    {
        manager->setPortLister([ports] { return ports; });
        manager->slotScanComPorts();
    }

private slots:
    void init()
    {
        qunsetenv(ComManager::kExtraPortsVariable);
        events.clear();
        manager = std::make_unique<ComManager>();
        connect(manager.get(), &ComManager::sigGnxDetected, this,
                [this](const QString& port) { events << '+' + port; });
        connect(manager.get(), &ComManager::sigGnxRemoved, this,
                [this](const QString& port) { events << '-' + port; });
    }

    void detectRemoveReject()
    {
        TestSupport::MessageLog log;
        const Port other{"ttyUSB1", "/dev/ttyUSB1", ComManager::kGnxVendorId, 0x1234, {}};
        const QStringList rejected{"Device vendor 0x4DE product 0x1234 is rejected on port ttyUSB1."};
        const QList<Port> all{gnx("ttyUSB0"), other, gnx("ttyUSB2")};
        scan(all);
        QCOMPARE(log.messages(QtInfoMsg),
                 (QStringList{"Creation of UartLink ttyUSB0", "Creation of UartLink ttyUSB2"}));
        QCOMPARE(log.warnings(), rejected);
        // Gone and back between two scans: nothing reported, the rejection not repeated.
        scan(all);
        scan({gnx("ttyUSB2")});
        // Absent for one whole scan, then back: reported again.
        scan(all);
        QCOMPARE(events, (QStringList{"+ttyUSB0", "+ttyUSB2", "-ttyUSB0", "+ttyUSB0"}));
        QCOMPARE(log.warnings(), rejected + rejected);
    }

    void extraPorts()
    {
        QTemporaryDir dir;
        const QString first = dir.filePath("gnx0"), second = dir.filePath("gnx1"),
                      adapter = dir.filePath("ttyUSB3");
        QFile(first).open(QIODevice::WriteOnly);
        QFile(adapter).open(QIODevice::WriteOnly);
        // An empty entry and a path that does not exist are left out.
        qputenv(ComManager::kExtraPortsVariable, (first + "::" + second + ":" + adapter).toLocal8Bit());
        TestSupport::MessageLog log;
        // A listed port named in the variable is offered under its path, not rejected.
        scan({{"ttyUSB3", adapter, 0x0403, 0x6001, {}}});
        QVERIFY(log.warnings().isEmpty());
        QFile::remove(first);
        manager->slotScanComPorts();
        QCOMPARE(events, (QStringList{'+' + first, '+' + adapter, '-' + first}));
    }

    // The system's ports are listed again for a few scans after the device directory changed and
    // while a rejected port is fresh: its USB identifiers may follow the node.
    void relistsAfterDeviceChanges_data()
    {
        QTest::addColumn<int>("identifiedMs");
        QTest::newRow("after 5 s") << 5000;
        QTest::newRow("just before 10 s") << 9500;
        QTest::newRow("after 12 s") << 12000;
    }
    void relistsAfterDeviceChanges()
    {
        QFETCH(int, identifiedMs);
        QTemporaryDir dev;
        qint64 now = 0;
        int listings = 0;
        QList<Port> plugged;
        manager->setClock([&] { return now; });
        manager->setPortLister([&] {
            ++listings;
            return plugged;
        });
        manager->setDeviceDirectory(dev.path());
        for (int i = 0; i < 3; ++i)
            manager->slotScanComPorts();
        QCOMPARE(listings, 1);

        // The node appears before udev has published the receiver's identifiers.
        const Port foreign{"ttyUSB0", "/dev/ttyUSB0", 0x0403, 0x6001, {}};
        plugged << foreign;
        QFile(dev.filePath("ttyUSB0")).open(QIODevice::WriteOnly);
        QTRY_VERIFY_WITH_TIMEOUT((manager->slotScanComPorts(), listings > 1), 5000);
        // Scans a second apart; the identifiers change between two of them.
        for (now = 1000; now <= 20000; now += 1000) {
            plugged = {now >= identifiedMs ? gnx("ttyUSB0") : foreign};
            const int before = listings;
            manager->slotScanComPorts();
            QCOMPARE(events.size(), now >= identifiedMs && identifiedMs < ComManager::kFreshPortMs ? 1 : 0);
            if (now > ComManager::kFreshPortMs)
                QCOMPARE(listings, before);
        }
    }
};

QTEST_GUILESS_MAIN(TestComManager)
#include "tst_commanager.moc"
