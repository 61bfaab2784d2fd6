#pragma once

#include <QFileSystemWatcher>
#include <QHash>
#include <QList>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <functional>

namespace OrviaGonioManager::Com {

// Watches the serial ports once a second and reports GNX receivers appearing and vanishing,
// by port name. Never opens a port.
class ComManager : public QObject
{
    Q_OBJECT

public:
    static constexpr quint16 kGnxVendorId = 0x04DE;
    static constexpr quint16 kGnxProductId = 0xF584;
    static constexpr int kScanPeriodMs = 1000;
    // Paths separated by ":" offered as receivers whatever their USB identifiers (the emulator,
    // receivers behind other USB-serial adapters); each one while its path exists.
    static constexpr const char* kExtraPortsVariable = "GNX_EXTRA_PORTS";

    // One serial port as the system lists it.
    struct PortEntry
    {
        QString portName;
        QString systemLocation;
        quint16 vendorId = 0;
        quint16 productId = 0;
        QString serialNumber;
    };
    using PortLister = std::function<QList<PortEntry>()>;
    // Monotonic milliseconds; tests move time without sleeping.
    using Clock = std::function<qint64()>;

    explicit ComManager(QObject* parent = nullptr);
    ~ComManager() override;

    // The one place ports come from; tests replace it. A lister set here is asked at every scan.
    void setPortLister(PortLister lister);
    // Listing the system's ports costs a few tens of milliseconds: list again only for a few
    // scans after this directory changed (its nodes come and go with the devices) and while a
    // rejected port is younger than kFreshPortMs (udev publishes the USB identifiers a moment
    // after the node), and reuse the last list otherwise.
    void setDeviceDirectory(const QString& directory);
    static constexpr int kRelistScans = 3;
    static constexpr qint64 kFreshPortMs = 10000;
    void setClock(Clock clock);
    static QList<PortEntry> systemPorts();
    // The paths of GNX_EXTRA_PORTS that exist now.
    static QStringList extraPortPaths();

    QSet<QString> knownPorts() const { return knownPorts_; }

signals:
    void sigGnxDetected(QString portName);
    void sigGnxRemoved(QString portName);

public slots:
    void slotScanComPorts();

private:
    QList<PortEntry> listPorts(qint64 now);
    void detect(const QString& portName);
    void reject(const PortEntry& port);

    QTimer scanTimer_;
    QSet<QString> knownPorts_;
    // Rejected ports are warned about once while they stay plugged in.
    QSet<QString> rejectedPorts_;
    PortLister portLister_;
    Clock clock_;
    QFileSystemWatcher deviceWatcher_;
    int relistScans_ = 1;
    QList<PortEntry> lastPorts_;
    // When each listed port was first listed, by name.
    QHash<QString, qint64> firstSeen_;
    bool freshRejected_ = false;
};

} // namespace OrviaGonioManager::Com
