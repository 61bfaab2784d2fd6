#include "sim/PtySimulator.h"

#include "sim/PtyTransport.h"
#include "sim/SimulatorShared.h"

#include <QCoreApplication>
#include <QThread>

namespace gnxsim {

struct PtySimulator::Private
{
    explicit Private(const Options& o) : options(o), shared(o) { shared.statePath = o.statePath; }

    // Runs f in the emulator thread and waits for it; directly when the thread is not running.
    template <class F> void blocking(F f)
    {
        if (transport && thread.isRunning() && QThread::currentThread() != &thread)
            QMetaObject::invokeMethod(transport, f, Qt::BlockingQueuedConnection);
        else
            f();
    }
    void kick()
    {
        if (transport && thread.isRunning())
            QMetaObject::invokeMethod(
                transport, [t = transport] { t->kick(); }, Qt::QueuedConnection);
    }
    // Calls f on the device with the clock up to date, then lets the transport write what came out.
    template <class F> auto withDevice(F f)
    {
        QMutexLocker lock(&shared.mutex);
        shared.sync();
        if constexpr (std::is_void_v<decltype(f(shared.device))>) {
            f(shared.device);
            const bool out = shared.device.hasOutput();
            lock.unlock();
            if (out)
                kick();
        } else {
            auto result = f(shared.device);
            const bool out = shared.device.hasOutput();
            lock.unlock();
            if (out)
                kick();
            return result;
        }
    }

    Options options;
    SimulatorShared shared;
    QThread thread;
    PtyTransport* transport = nullptr;
    Faults faults;
    QString error;
    bool running = false;
};

PtySimulator::PtySimulator(const Options& options) : d(std::make_unique<Private>(options))
{
    d->thread.setObjectName(QStringLiteral("gnxsim"));
    if (!options.statePath.isEmpty()) {
        QMutexLocker lock(&d->shared.mutex);
        QString error;
        if (!d->shared.load(&error))
            d->error = QStringLiteral("state file %1 not loaded: %2").arg(options.statePath, error);
    }
}

PtySimulator::~PtySimulator()
{
    stop();
}

bool PtySimulator::start()
{
    if (d->running)
        return true;
    d->thread.start();
    d->transport = new PtyTransport(&d->shared, d->options);
    d->transport->setFaults(d->faults);
    d->transport->moveToThread(&d->thread);
    bool ok = false;
    QString error;
    d->blocking([&] { ok = d->transport->open(&error); });
    if (!ok) {
        d->error = error;
        stop();
        d->running = false;
        return false;
    }
    d->running = true;
    return true;
}

void PtySimulator::stop()
{
    if (!d->transport)
        return;
    QThread* caller = QThread::currentThread();
    d->blocking([&] {
        d->transport->close();
        d->transport->moveToThread(caller);
    });
    d->thread.quit();
    d->thread.wait();
    delete d->transport;
    d->transport = nullptr;
    d->running = false;
    QMutexLocker lock(&d->shared.mutex);
    d->shared.sync();
    d->shared.save(nullptr);
}

bool PtySimulator::isRunning() const
{
    return d->running;
}

QString PtySimulator::slavePath() const
{
    QMutexLocker lock(&d->shared.mutex);
    return d->shared.slavePath;
}

QString PtySimulator::errorString() const
{
    return d->error;
}

Options PtySimulator::options() const
{
    return d->options;
}

QStringList PtySimulator::receivedLines() const
{
    return d->withDevice([](Device& dev) { return dev.receivedLines(); });
}

void PtySimulator::clearReceived()
{
    d->withDevice([](Device& dev) { dev.clearReceived(); });
}

void PtySimulator::setStalled(bool stalled)
{
    d->withDevice([&](Device& dev) { dev.setStalled(stalled); });
}

void PtySimulator::setRefusedSlot(int index)
{
    d->withDevice([&](Device& dev) { dev.setRefusedSlot(index); });
}

void PtySimulator::unplug()
{
    if (d->transport)
        d->blocking([&] { d->transport->close(); });
}

void PtySimulator::replug()
{
    if (!d->transport)
        return;
    QString error;
    bool ok = false;
    d->blocking([&] { ok = d->transport->open(&error); });
    if (!ok)
        d->error = error;
}

bool PtySimulator::isPlugged() const
{
    return !slavePath().isEmpty();
}

void PtySimulator::overrideNextReply(const QString& mnemonic, const QStringList& params,
                                     const QString& replyMnemonic)
{
    d->withDevice([&](Device& dev) { dev.overrideNextReply(mnemonic, params, replyMnemonic); });
}

void PtySimulator::sendRawLine(const QString& payload, bool correctChecksum)
{
    d->withDevice([&](Device& dev) { dev.sendRawLine(payload, correctChecksum); });
}

void PtySimulator::sendRawBytes(const QByteArray& bytes)
{
    d->withDevice([&](Device& dev) { dev.sendRawBytes(bytes); });
}

bool PtySimulator::emitNpr(int platformIndex, bool favourite)
{
    return d->withDevice([&](Device& dev) { return dev.emitNpr(platformIndex, favourite); });
}

void PtySimulator::setLiveInterval(int ms)
{
    d->withDevice([&](Device& dev) { dev.setLiveIntervalMs(ms); });
    d->kick(); // reschedules the live timer
}

void PtySimulator::setGnx134ChecksumQuirk(bool on)
{
    d->withDevice([&](Device& dev) { dev.setGnx134ChecksumQuirk(on); });
}

void PtySimulator::setMode(Mode mode)
{
    d->withDevice([&](Device& dev) { dev.setMode(mode); });
}

void PtySimulator::setClock(const QDateTime& utc)
{
    d->withDevice([&](Device& dev) { dev.setClock(utc); });
}

void PtySimulator::setFaults(const Faults& faults)
{
    d->faults = faults;
    if (d->transport)
        QMetaObject::invokeMethod(
            d->transport, [t = d->transport, faults] { t->setFaults(faults); },
            d->thread.isRunning() ? Qt::BlockingQueuedConnection : Qt::DirectConnection);
}

Faults PtySimulator::faults() const
{
    return d->faults;
}

QStringList PtySimulator::softwareSetup() const
{
    return d->withDevice([](Device& dev) { return dev.softwareSetup(); });
}

QStringList PtySimulator::hardwareSetup() const
{
    return d->withDevice([](Device& dev) { return dev.hardwareSetup(); });
}

QDateTime PtySimulator::clock() const
{
    return d->withDevice([](Device& dev) { return dev.clock(); });
}

QStringList PtySimulator::platformSlot(int index) const
{
    return d->withDevice([&](Device& dev) { return dev.platformSlot(index); });
}

Mode PtySimulator::mode() const
{
    return d->withDevice([](Device& dev) { return dev.mode(); });
}

QString PtySimulator::applicationVersion() const
{
    return d->withDevice([](Device& dev) { return dev.applicationVersion(); });
}

QString PtySimulator::bootloaderVersion() const
{
    return d->withDevice([](Device& dev) { return dev.bootloaderVersion(); });
}

QString PtySimulator::serialNumber() const
{
    return d->withDevice(
        [](Device& dev) { return dev.serialPart1() + QLatin1Char('-') + dev.serialPart2(); });
}

QByteArray PtySimulator::flashBytes() const
{
    return d->withDevice([](Device& dev) { return dev.flashBytes(); });
}

QByteArray PtySimulator::platformFlashBytes(int index) const
{
    return d->withDevice([&](Device& dev) { return dev.platformFlashBytes(index); });
}

qint64 PtySimulator::liveReportsSent() const
{
    return d->withDevice([](Device& dev) { return dev.liveReportsSent(); });
}

int PtySimulator::flashRecordCount() const
{
    return d->withDevice([](Device& dev) { return dev.flashRecordCount(); });
}

bool PtySimulator::saveState(QString* error) const
{
    QMutexLocker lock(&d->shared.mutex);
    d->shared.sync();
    return d->shared.save(error, true);
}

} // namespace gnxsim
