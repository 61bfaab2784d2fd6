#pragma once

#include "sim/Options.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QHash>
#include <QList>
#include <QObject>
#include <QRandomGenerator>

class QSocketNotifier;
class QTimer;

namespace gnxsim {

class Device;
struct SimulatorShared;

// The pseudo-terminal side of the emulator. Lives in the emulator's thread: reads commands from
// the pty master, feeds the device, and writes the device's output with faults and line-rate limits.
class PtyTransport : public QObject
{
    Q_OBJECT

public:
    PtyTransport(SimulatorShared* shared, const Options& options);
    ~PtyTransport() override;

    bool open(QString* error);
    void close();
    bool isOpen() const { return m_master >= 0; }
    void setFaults(const Faults& faults) { m_faults = faults; }
    // Runs the device clock up to now, collects its output and writes what may be written.
    void kick();

private:
    struct Pending
    {
        QByteArray bytes;
        qint64 notBeforeNs = 0;
    };

    void onReadable();
    void deliver(const QByteArray& data);
    void deliverDue();
    void enqueue(const QByteArray& bytes, bool text, quint64 answer);
    void pump();
    void schedule();
    void scheduleIn(qint64 ns);
    void updateLink();

    SimulatorShared* m_shared;
    Options m_options;
    Faults m_faults;
    QRandomGenerator m_rng;
    int m_master = -1;
    int m_slaveKeep = -1;
    QSocketNotifier* m_readNotifier = nullptr;
    QSocketNotifier* m_writeNotifier = nullptr;
    QTimer* m_pumpTimer;
    QTimer* m_eventTimer;
    QTimer* m_saveTimer;
    QList<Pending> m_queue;
    qint64 m_queuedBytes = 0;
    quint64 m_lastAnswer = 0;
    bool m_dropAnswer = false;
    bool m_blocked = false; // the last write found the pty full: nobody is reading
    qint64 m_throttleStartNs = 0;
    qint64 m_throttleSent = 0;
    // With --baud, what the program writes reaches the device at line rate too.
    QList<QPair<qint64, QByteArray>> m_inbound; // (due time, bytes)
    qint64 m_inboundLineFreeNs = 0;
    QTimer* m_inboundTimer = nullptr;
};

} // namespace gnxsim
