#pragma once

#include "com/GnxFrame.h"
#include "com/GnxLink.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>
#include <QSerialPort>
#include <QSerialPortInfo>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <atomic>
#include <functional>
#include <optional>

namespace OrviaGonioManager::Com {

// The serial port of one receiver: frames commands, waits for their answers under a reply
// timer, checks and splits answer lines, keeps the link alive between commands and passes
// unsolicited NPR/NPRF reports up. Lives in the worker thread of its GnxLink; everything
// reaches it through queued connections.
class UartLink : public QObject
{
    Q_OBJECT

public:
    enum LinkStatus_t
    {
        UART_INIT = 0,
        UART_WAITING_REPLY,
        UART_WAITING_RFP_REPLY,
        UART_WAITING_RFP_BINARY_REPLY,
        UART_READY,
        UART_ERROR_TIMEOUT,
    };
    Q_ENUM(LinkStatus_t)

    // A line longer than this without a line end is dropped.
    static constexpr int kMaxLineBytes = 64 * 1024;
    // A flash answer larger than this is refused.
    static constexpr qint64 kMaxRfpBytes = 64 * 1024 * 1024;
    static constexpr int kRfpBlockBytes = 128;
    static constexpr int kRfpTrailerBytes = 5;
    // The debug lines of the link's own keep-alive exchange are logged under this category: a log
    // view can hide them without hiding the same command typed by the user.
    static constexpr const char* kKeepAliveLogCategory = "ogm.link.keepalive";

    explicit UartLink(const QSerialPortInfo& portInfo, QObject* parent = nullptr);
    // A port named by its path or name: pseudo-terminals and ports a user names have no
    // QSerialPortInfo of their own.
    explicit UartLink(const QString& portNameOrPath, QObject* parent = nullptr);
    ~UartLink() override;

    // Safe from any thread.
    LinkStatus_t status() const { return status_.load(); }
    QString portName() const { return portName_; }
    // True once the port failed to open or was lost; the link is then of no further use.
    bool hasFailed() const { return failed_.load(); }
    bool isPortOpen() const { return portOpen_.load(); }
    // True once the port itself failed (unplugged, hung up), as opposed to a silent device.
    bool isPortLost() const { return portLost_.load(); }

    // For fuzzing and tests: the link taken as open on no port at all, fed by receive(). What it
    // writes goes nowhere.
    void openWithoutPort() { setStatus(UART_READY); }
    // Bytes as the port delivers them: the reception state machine, text lines and binary flash
    // answers alike.
    void receive(const QByteArray& bytes);

    // Called in the link's thread after every status change and on failure, so that a waiter
    // in another thread can look at status() again. Set before the link is moved to its thread.
    void setStateListener(std::function<void()> listener) { stateListener_ = std::move(listener); }

    // slotSendRequest as the requester queues it: a command that crosses a failure of the link is
    // refused without an exception, which nothing in this thread could catch; the failure reports
    // itself, and any other refusal is reported as an error.
    void sendQueuedRequest(GnxLink::GnxCmd_t gnxCmd, QStringList params, GnxLink::GnxVersion_t gnxVersion);

signals:
    void sigReplyReceived(QStringList replyValues, bool isError);
    void sigBinaryRfpDataReceived(QByteArray rfpData, bool isError);
    // Data bytes of the binary flash answer received so far, every tenth of a second at most.
    void sigBinaryProgress(qint64 bytes);
    void sigRxReceived(GnxLink::GnxMessageType_t gnxMessageType, QStringList replyValues);
    void sigErrorOccured(QString message);

public slots:
    void slotOpenConnection();
    void slotSetLiveRxEnabled(bool enabled);
    void slotSendRequest(GnxLink::GnxCmd_t gnxCmd, QStringList params = {},
                         GnxLink::GnxVersion_t gnxVersion = GnxLink::GNX_UNDEFINEDVERSION);
    void slotSendManualGnxCmd(QString userCmd);
    void slotCloseConnection();
    void slotKeepAlive();
    void slotReadyRead();
    void slotTimeout();

private:
    void init();
    void setStatus(LinkStatus_t status);
    bool isKeepAliveTransition(LinkStatus_t from, LinkStatus_t to) const;
    bool isKeepAliveAnswer(const QString& line) const;
    void notifyListener();
    int replyTimeoutMs() const;
    void startKeepAlive();
    void setDtr(bool enabled);
    void onPortError(QSerialPort::SerialPortError error);
    void dropPort(const QString& message);

    void sendDeferred();
    bool dropToFrameStart();
    // A runaway line is logged by its head only.
    static QString shortened(const QByteArray& bytes);
    static constexpr int kLoggedLineChars = 80;
    void processLines();
    void handleLine(const QString& line);
    bool decode(const QString& line, GnxFrame::DecodedLine& decoded);
    void handleUnsolicited(const QString& line);
    void dispatchUnsolicited(const QString& line, const QString& mnemonic, const QStringList& params);
    void handleReply(const QString& line);
    void handleTextRfpLine(const QStringList& params);

    void parseBinary(const QByteArray& bytes);
    bool parseBinaryFrame();
    bool skipToFrameHeader();
    void finishBinary();
    void failBinary(const QString& message);

    QSerialPortInfo portInfo_;
    std::atomic<LinkStatus_t> status_{UART_INIT};
    QSerialPort serialPort_{this};
    QTimer keepAliveTimer_{this};
    QTimer replyTimer_{this};
    GnxLink::GnxCmd_t lastCommand_ = GnxLink::CMD_KEEPALIVE_INTERNAL;
    QString lastFrame_;
    QByteArray binaryBuffer_;
    QByteArray rfpData_;
    QElapsedTimer binaryProgressClock_;
    QByteArray currentBlock_;
    bool blockCountKnown_ = false;
    qint32 blocksRemaining_ = -1;
    bool headerSeen_ = false;
    bool blockTaken_ = false;

    QString lastSent_;     // the whole frame, named when the device refuses it
    QString portName_;     // as reported to the user
    QString portLocation_; // what the port is opened with
    QByteArray lineBuffer_;
    bool seekingFrameStart_ = true; // until the first "$" after opening
    bool dtrWarned_ = false;
    std::atomic<bool> failed_{false};
    std::atomic<bool> portOpen_{false};
    std::atomic<bool> portLost_{false};
    std::function<void()> stateListener_;

    struct DeferredRequest
    {
        GnxLink::GnxCmd_t cmd;
        QStringList params;
        GnxLink::GnxVersion_t version;
    };
    std::optional<DeferredRequest> deferred_;
};

} // namespace OrviaGonioManager::Com
