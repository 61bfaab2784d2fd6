#pragma once

#include "sim/Options.h"

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <QStringList>
#include <memory>

namespace gnxsim {

// A receiver on a pseudo-terminal: opens a pty pair and runs the device model in its own thread.
// Every method is thread-safe (never call them from the emulator's own thread).
class PtySimulator
{
public:
    explicit PtySimulator(const Options& options = {});
    ~PtySimulator(); // stops cleanly

    bool start();
    void stop();
    bool isRunning() const;
    QString slavePath() const; // e.g. /dev/pts/7; empty while unplugged or stopped
    QString errorString() const;
    Options options() const;

    // Every command line received, without "$", "*CS" and the line end, e.g. "SETUPSW,,,,".
    QStringList receivedLines() const;
    void clearReceived();

    void setStalled(bool stalled); // keeps reading, never answers, no live reports
    // IP writes and clears of this slot are refused (ACK,0), the slot unchanged; -1 = none.
    void setRefusedSlot(int index);
    void unplug(); // closes the pty (and removes the link)
    void replug(); // opens a new pty (and repoints the link)
    bool isPlugged() const;

    // One-shot: the next command with this mnemonic is not executed but answered with these
    // parameters, under replyMnemonic (the same mnemonic when empty).
    void overrideNextReply(const QString& mnemonic, const QStringList& params,
                           const QString& replyMnemonic = {});
    void sendRawLine(const QString& payload, bool correctChecksum = true); // framed unsolicited line
    void sendRawBytes(const QByteArray& bytes);
    // One live report now: favourite -> NPRF for slot platformIndex (-1 = any used slot);
    // otherwise NPR for that slot's platform (-1 = a platform that is no favourite).
    bool emitNpr(int platformIndex, bool favourite);
    void setLiveInterval(int ms);         // 0 = no live reports
    void setGnx134ChecksumQuirk(bool on); // NPR lines carry the GNX134 short checksum
    void setMode(Mode mode);
    void setClock(const QDateTime& utc);
    void setFaults(const Faults& faults);
    Faults faults() const;

    // State snapshots: parameter lists in wire order, as the device answers a read.
    QStringList softwareSetup() const;
    QStringList hardwareSetup() const;
    QDateTime clock() const;
    QStringList platformSlot(int index) const; // the 36/39 stored IP parameters; empty when free
    Mode mode() const;
    QString applicationVersion() const;
    QString bootloaderVersion() const;
    QString serialNumber() const;  // "part1-part2"
    QByteArray flashBytes() const; // GNX234: the records; GNX134: every platform's dump in slot order
    QByteArray platformFlashBytes(int index) const; // GNX134
    int flashRecordCount() const;
    qint64 liveReportsSent() const;

    bool saveState(QString* error = nullptr) const; // to Options::statePath

    struct Private;

private:
    std::unique_ptr<Private> d;
};

} // namespace gnxsim
