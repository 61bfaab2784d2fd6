#pragma once

#include "sim/Options.h"
#include "sim/PositionFormat.h"
#include "sim/RxReport.h"
#include "sim/Scenario.h"

#include <QByteArray>
#include <QDateTime>
#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QRandomGenerator>
#include <QSet>
#include <QStringList>
#include <QVector>

#include <memory>
#include <random>

namespace gnxsim {

// The receiver, independent of any transport: bytes in (receive), units of bytes out (takeOutput),
// and a clock that only moves when advance() is called. Not thread-safe; the owner serialises calls.
class Device
{
public:
    // One piece of output: a text line, or one frame of a binary flash answer.
    struct OutUnit
    {
        QByteArray bytes;
        quint64 answer = 0; // > 0: the answer to a command (all units of one answer share it); 0: unsolicited
        bool text = true;   // a "$...*XX\r\n" line
    };

    explicit Device(const Options& options = {});

    Model model() const { return m_model; }
    int slotCount() const { return platformSlots(m_model); }

    // Transport side.
    void receive(const QByteArray& bytes);
    QList<OutUnit> takeOutput();
    bool hasOutput() const { return !m_out.isEmpty(); }
    void advance(qint64 ms);
    qint64 elapsedMs() const { return m_nowMs; }
    qint64 msUntilNextEvent() const; // -1 when nothing is scheduled

    // Control.
    void setLiveIntervalMs(int ms);
    int liveIntervalMs() const { return m_liveIntervalMs; }
    void setMode(Mode mode);
    void overrideNextReply(const QString& mnemonic, const QStringList& params,
                           const QString& replyMnemonic = {});
    bool emitNpr(int platformIndex, bool favourite);
    void setGnx134ChecksumQuirk(bool on) { m_quirk = on; }
    bool gnx134ChecksumQuirk() const { return m_quirk; }
    void sendRawLine(const QString& payload, bool correctChecksum = true);
    void sendRawBytes(const QByteArray& bytes);
    void setClock(const QDateTime& utc);
    void setStalled(bool stalled) { m_stalled = stalled; }
    bool isStalled() const { return m_stalled; }
    // IP writes and clears of this slot are refused (ACK,0) and change nothing; reads still
    // answer. -1: no slot refused.
    void setRefusedSlot(int index) { m_refusedSlot = index; }
    int refusedSlot() const { return m_refusedSlot; }

    // Snapshots, in wire order.
    QStringList receivedLines() const { return m_received; }
    void clearReceived() { m_received.clear(); }
    QStringList softwareSetup() const;
    QStringList hardwareSetup() const { return m_hw; }
    QDateTime clock() const;
    QStringList platformSlot(int index) const;
    Mode mode() const { return m_mode; }
    QString applicationVersion() const { return m_appVersion; }
    QString bootloaderVersion() const { return m_blVersion; }
    QString fpgaVersion() const { return m_fpgaVersion; }
    QString serialPart1() const { return m_serial1; }
    QString serialPart2() const { return m_serial2; }
    QByteArray flashBytes() const;                  // GNX234: the records; GNX134: all platforms' dumps
    QByteArray platformFlashBytes(int index) const; // GNX134: one platform's dump
    int flashRecordCount() const;
    qint64 liveReportsSent() const { return m_liveReports; } // by the live timer
    QByteArray readFlash(qint64 start, qint64 length) const; // the physical memory, erased bytes included
    qint64 flashCapacity() const;

    // Persistence: setups, slots, flash, clock offset, mode and versions.
    QJsonObject toJson() const;
    bool fromJson(const QJsonObject& state, QString* error = nullptr);
    quint64 revision() const { return m_revision; } // changes with every change worth saving

private:
    struct StoredRecord
    {
        QString id;
        QByteArray bytes;
    };
    struct Track
    {
        double lat = 0, lon = 0; // 1/60000 degree
        quint32 nominalFrequency = 0;
        double meanDirection = -1;
    };
    struct Upload
    {
        bool unlocked = false, erased = false, locked = false, endSeen = false;
        quint32 nextAddress = 0;
        int records = 0;
        QString version;
    };

    void handleLine(const QByteArray& line);
    void dispatch(const QString& mnemonic, const QStringList& params);
    void reply(const QString& mnemonic, const QStringList& params);
    void ack(bool accepted);
    void emitUnsolicited(const QByteArray& bytes, bool text = true);
    void changed() { ++m_revision; }

    void cmdTest();
    void cmdSetupSw(const QStringList& p);
    void cmdSetupHw(const QStringList& p);
    void cmdIp(const QStringList& p);
    void cmdIfp();
    void cmdRfp(const QStringList& p);
    void cmdDfp(const QStringList& p);
    void cmdLig();
    void cmdGsn();
    void cmdUpload(const QString& mnemonic, const QStringList& p);

    void seedPlatforms(int count);
    void seedFlash(int count);
    QStringList freeSlotParams(int index) const;
    bool validSlotWrite(const QStringList& p) const;
    void clearSlotFlash(int index, const QString& id);
    Track& track(int key);
    RxReport makeReport(int slot, bool favourite, int foreign, const QDateTime& time);
    QByteArray payloadFor(const QStringList* slot, const QString& platformId, double lat, double lon);
    QStringList slotParams(int index, const QString& id, const QString& label, int format, int period) const;
    void startScenario(std::shared_ptr<const Scenario> scenario, quint32 seed, int flashRecords);
    RxReport makeScenarioReport(int slot, const QDateTime& time);
    void store(const RxReport& report);
    void liveTick();
    void drift();
    int bearingTo(double lat, double lon) const;
    qint64 usedFlash(int list) const;

    Model m_model;
    Mode m_mode;
    QRandomGenerator m_rng;
    qint64 m_nowMs = 0;
    QDateTime m_clockBase;
    qint64 m_clockSetAtMs = 0;
    int m_liveIntervalMs = 0;
    qint64 m_nextLiveAtMs = -1;
    bool m_quirk = false;
    bool m_stalled = false;
    int m_refusedSlot = -1;

    QByteArray m_inBuffer;
    QList<OutUnit> m_out;
    quint64 m_answerSeq = 0;
    QStringList m_received;
    struct Override
    {
        QString replyMnemonic;
        QStringList params;
    };
    QHash<QString, Override> m_overrides;

    QString m_serial1, m_serial2, m_hwRevision, m_blVersion, m_appVersion, m_fpgaVersion;
    QStringList m_sw; // without the five clock fields: audio..offset, then band, allToFavorites (GNX234)
    QStringList m_hw;
    QVector<QStringList> m_slots;         // empty = free
    QVector<QList<StoredRecord>> m_flash; // GNX234: one list; GNX134: one per slot
    QHash<int, Track> m_tracks;           // by slot, or by 1000 + foreign platform number
    QStringList m_foreignIds;
    double m_lat = 0, m_lon = 0, m_heading = 0, m_temperature = 28, m_millivolts = 12300;
    Upload m_upload;
    quint64 m_revision = 0;
    qint64 m_liveReports = 0;
    QSet<QString> m_longitudeWarned; // platforms whose flash records could not hold the longitude
    std::shared_ptr<const Scenario> m_scenario;
    std::mt19937 m_noiseRng;
    QDateTime m_scenarioStart; // the receiver at the start of its path
    int m_nextScenarioSlot = 0;
};

} // namespace gnxsim
