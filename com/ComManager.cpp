#include "com/ComManager.h"

#include <QDebug>
#include <QFileInfo>
#include <QSerialPortInfo>

#include <algorithm>
#include <chrono>

namespace OrviaGonioManager::Com {

namespace {

qint64 steadyMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

} // namespace

ComManager::ComManager(QObject* parent)
    : QObject(parent), scanTimer_(this), portLister_(&ComManager::systemPorts), clock_(&steadyMs)
{
    scanTimer_.setSingleShot(true);
    connect(&scanTimer_, &QTimer::timeout, this, &ComManager::slotScanComPorts);
    connect(&deviceWatcher_, &QFileSystemWatcher::directoryChanged, this,
            [this] { relistScans_ = kRelistScans; });
    setDeviceDirectory(QStringLiteral("/dev"));
}

ComManager::~ComManager()
{
    scanTimer_.stop();
    knownPorts_.clear();
}

void ComManager::setPortLister(PortLister lister)
{
    portLister_ = lister ? std::move(lister) : PortLister(&ComManager::systemPorts);
    setDeviceDirectory({});
}

void ComManager::setClock(Clock clock)
{
    clock_ = clock ? std::move(clock) : Clock(&steadyMs);
}

void ComManager::setDeviceDirectory(const QString& directory)
{
    if (!deviceWatcher_.directories().isEmpty())
        deviceWatcher_.removePaths(deviceWatcher_.directories());
    if (!directory.isEmpty())
        deviceWatcher_.addPath(directory);
    relistScans_ = 1;
}

QList<ComManager::PortEntry> ComManager::listPorts(qint64 now)
{
    // Without a watch (none asked for, or inotify refused it) every scan lists.
    if (relistScans_ > 0 || freshRejected_ || deviceWatcher_.directories().isEmpty()) {
        relistScans_ = qMax(0, relistScans_ - 1);
        lastPorts_ = portLister_();
        QHash<QString, qint64> seen;
        for (const PortEntry& port : std::as_const(lastPorts_))
            seen.insert(port.portName, firstSeen_.value(port.portName, now));
        firstSeen_.swap(seen);
    }
    return lastPorts_;
}

QList<ComManager::PortEntry> ComManager::systemPorts()
{
    QList<PortEntry> ports;
    const auto infos = QSerialPortInfo::availablePorts();
    for (const QSerialPortInfo& info : infos)
        ports.append({info.portName(), info.systemLocation(), info.vendorIdentifier(),
                      info.productIdentifier(), info.serialNumber()});
    return ports;
}

QStringList ComManager::extraPortPaths()
{
    QStringList paths;
    const QStringList listed =
        qEnvironmentVariable(kExtraPortsVariable).split(QLatin1Char(':'), Qt::SkipEmptyParts);
    for (const QString& entry : listed) {
        const QString path = entry.trimmed();
        if (!path.isEmpty() && !paths.contains(path) && QFileInfo::exists(path))
            paths.append(path);
    }
    return paths;
}

void ComManager::slotScanComPorts()
{
    const qint64 now = clock_();
    const QList<PortEntry> ports = listPorts(now);
    const QStringList extraPaths = extraPortPaths();
    QSet<QString> present;

    for (const PortEntry& port : ports) {
        // A listed port also named in GNX_EXTRA_PORTS is offered under its path below.
        if (extraPaths.contains(port.systemLocation) || extraPaths.contains(port.portName))
            continue;
        present.insert(port.portName);
        if (knownPorts_.contains(port.portName))
            continue;
        if (port.vendorId == kGnxVendorId && port.productId == kGnxProductId)
            detect(port.portName);
        else
            reject(port);
    }
    for (const QString& path : extraPaths) {
        present.insert(path);
        if (!knownPorts_.contains(path))
            detect(path);
    }

    QStringList gone;
    for (const QString& portName : std::as_const(knownPorts_)) {
        if (!present.contains(portName))
            gone.append(portName);
    }
    gone.sort();
    for (const QString& portName : std::as_const(gone)) {
        knownPorts_.remove(portName);
        emit sigGnxRemoved(portName);
    }
    rejectedPorts_.intersect(present);
    // The scan after the last moment a rejected port was fresh still lists, so identifiers
    // published just before kFreshPortMs are seen.
    freshRejected_ = std::any_of(rejectedPorts_.cbegin(), rejectedPorts_.cend(), [&](const QString& name) {
        return now - firstSeen_.value(name, now) < kFreshPortMs;
    });

    scanTimer_.start(kScanPeriodMs);
}

void ComManager::detect(const QString& portName)
{
    knownPorts_.insert(portName);
    rejectedPorts_.remove(portName);
    qInfo().noquote() << QStringLiteral("Creation of UartLink %1").arg(portName);
    emit sigGnxDetected(portName);
}

void ComManager::reject(const PortEntry& port)
{
    if (rejectedPorts_.contains(port.portName))
        return;
    rejectedPorts_.insert(port.portName);
    qWarning().noquote() << QStringLiteral("Device vendor 0x%1 product 0x%2 is rejected on port %3.")
                                .arg(QString::number(port.vendorId, 16).toUpper(),
                                     QString::number(port.productId, 16).toUpper(), port.portName);
}

} // namespace OrviaGonioManager::Com
