#include "com/UartLink.h"

#include "app/Settings.h"
#include "mrl/utils/Exception.h"

#include <QDebug>
#include <QLoggingCategory>
#include <QMetaEnum>

#include <cctype>

namespace OrviaGonioManager::Com {

namespace {

constexpr qint32 kBaudRate = 115200;

const Utils::Settings& settings()
{
    return Utils::Settings::instance();
}

Q_LOGGING_CATEGORY(keepAliveLog, UartLink::kKeepAliveLogCategory)

// A debug line, under the keep-alive's category when it belongs to that exchange.
QDebug debugLine(bool keepAlive)
{
    return QMessageLogger()
        .debug(keepAlive ? keepAliveLog() : *QLoggingCategory::defaultCategory())
        .noquote();
}

template <typename Enum> QString keyOf(Enum value)
{
    return QString::fromLatin1(QMetaEnum::fromType<Enum>().valueToKey(int(value)));
}

bool isAckCommand(GnxLink::GnxCmd_t cmd)
{
    switch (cmd) {
    case GnxLink::CMD_ATBL:
    case GnxLink::CMD_ERRF:
    case GnxLink::CMD_WRDA:
    case GnxLink::CMD_WRSC:
    case GnxLink::CMD_REBO:
        return true;
    default:
        return false;
    }
}

} // namespace

UartLink::UartLink(const QSerialPortInfo& portInfo, QObject* parent)
    : QObject(parent), portInfo_(portInfo), portName_(portInfo.portName()),
      portLocation_(portInfo.systemLocation())
{
    init();
}

UartLink::UartLink(const QString& portNameOrPath, QObject* parent)
    : QObject(parent), portName_(portNameOrPath), portLocation_(portNameOrPath)
{
    init();
}

QString UartLink::shortened(const QByteArray& bytes)
{
    if (bytes.size() <= kLoggedLineChars)
        return QString::fromLatin1(bytes);
    return QString::fromLatin1(bytes.left(kLoggedLineChars)) + QStringLiteral("...");
}

UartLink::~UartLink()
{
    slotCloseConnection();
}

void UartLink::init()
{
    qRegisterMetaType<GnxLink::GnxCmd_t>("GnxLink::GnxCmd_t");
    qRegisterMetaType<GnxLink::GnxVersion_t>("GnxLink::GnxVersion_t");
    qRegisterMetaType<GnxLink::GnxMessageType_t>("GnxLink::GnxMessageType_t");
    qRegisterMetaType<GnxLink::GnxCmd_t>();
    qRegisterMetaType<GnxLink::GnxVersion_t>();
    qRegisterMetaType<GnxLink::GnxMessageType_t>();

    keepAliveTimer_.setSingleShot(true);
    replyTimer_.setSingleShot(true);
    // A coarse timer may fire 5% early: a time-out is never declared before its time.
    replyTimer_.setTimerType(Qt::PreciseTimer);
    connect(&keepAliveTimer_, &QTimer::timeout, this, &UartLink::slotKeepAlive);
    connect(&replyTimer_, &QTimer::timeout, this, &UartLink::slotTimeout);
    connect(&serialPort_, &QSerialPort::errorOccurred, this, &UartLink::onPortError);
}

// --- state ---------------------------------------------------------------------------------

void UartLink::setStatus(LinkStatus_t status)
{
    const LinkStatus_t from = status_.load();
    if (settings().printUartDebugInfo)
        debugLine(isKeepAliveTransition(from, status))
            << QStringLiteral("From %1 to %2").arg(keyOf(from), keyOf(status));
    status_.store(status);
    notifyListener();
}

// Into and out of the wait for the keep-alive's answer; a time-out is a failure, not routine.
bool UartLink::isKeepAliveTransition(LinkStatus_t from, LinkStatus_t to) const
{
    return lastCommand_ == GnxLink::CMD_KEEPALIVE_INTERNAL && to != UART_ERROR_TIMEOUT &&
           (from == UART_WAITING_REPLY || to == UART_WAITING_REPLY);
}

// The line the reply handler will take as the keep-alive's answer (a typed TEST is a request of
// its own command, never this).
bool UartLink::isKeepAliveAnswer(const QString& line) const
{
    if (status() != UART_WAITING_REPLY || lastCommand_ != GnxLink::CMD_KEEPALIVE_INTERNAL)
        return false;
    const GnxFrame::DecodedLine decoded = GnxFrame::decodeLine(line);
    return decoded.status == GnxFrame::DecodedLine::Ok && decoded.mnemonic == lastFrame_;
}

void UartLink::notifyListener()
{
    if (stateListener_)
        stateListener_();
}

int UartLink::replyTimeoutMs() const
{
    return lastCommand_ == GnxLink::CMD_KEEPALIVE_INTERNAL ? settings().keepAliveTimeoutMs
                                                           : settings().gnxCommandTimeoutMs;
}

void UartLink::startKeepAlive()
{
    const int period = settings().keepAlivePeriodMs;
    if (period > 0)
        keepAliveTimer_.start(period);
}

// --- port ----------------------------------------------------------------------------------

void UartLink::slotOpenConnection()
{
    if (serialPort_.isOpen())
        return;
    serialPort_.setPortName(portLocation_);
    serialPort_.setBaudRate(kBaudRate, QSerialPort::AllDirections);
    if (!serialPort_.open(QIODevice::ReadWrite)) {
        failed_.store(true);
        notifyListener();
        emit sigErrorOccured(
            QStringLiteral("Port %1 cannot be open (error %2)").arg(portName_, keyOf(serialPort_.error())));
        return;
    }
    serialPort_.clear(QSerialPort::AllDirections);
    serialPort_.clearError();
    lineBuffer_.clear();
    seekingFrameStart_ = true;
    setDtr(true);
    connect(&serialPort_, &QSerialPort::readyRead, this, &UartLink::slotReadyRead, Qt::UniqueConnection);
    portOpen_.store(true);
    setStatus(UART_READY);
    startKeepAlive();
}

void UartLink::slotCloseConnection()
{
    deferred_.reset();
    keepAliveTimer_.stop();
    replyTimer_.stop();
    if (serialPort_.isOpen())
        serialPort_.close();
    portOpen_.store(false);
}

void UartLink::slotSetLiveRxEnabled(bool enabled)
{
    if (serialPort_.isOpen())
        setDtr(enabled);
}

// Pseudo-terminals have no modem lines; that is no reason to give up the link.
void UartLink::setDtr(bool enabled)
{
    if (serialPort_.setDataTerminalReady(enabled))
        return;
    if (!dtrWarned_) {
        dtrWarned_ = true;
        qWarning().noquote() << QStringLiteral("Port %1 cannot set its DTR line (%2): live reception is not "
                                               "switched on this port.")
                                    .arg(portName_, keyOf(serialPort_.error()));
    }
    serialPort_.clearError();
}

void UartLink::onPortError(QSerialPort::SerialPortError error)
{
    switch (error) {
    case QSerialPort::NoError:
    case QSerialPort::UnsupportedOperationError: // DTR on a pseudo-terminal, reported by setDtr()
    case QSerialPort::NotOpenError:
        return;
    case QSerialPort::ReadError:
    case QSerialPort::WriteError:
    case QSerialPort::ResourceError:
        dropPort(QStringLiteral("Port %1 lost (error %2: %3)")
                     .arg(portName_, keyOf(error), serialPort_.errorString()));
        return;
    default:
        if (serialPort_.isOpen())
            qWarning().noquote() << QStringLiteral("Port %1: %2").arg(portName_, serialPort_.errorString());
        return;
    }
}

// A vanished device makes the port report the same error endlessly until it is closed: close
// it once, outside the port's own notification, and report once.
void UartLink::dropPort(const QString& message)
{
    if (portLost_.exchange(true))
        return;
    failed_.store(true);
    keepAliveTimer_.stop();
    replyTimer_.stop();
    QMetaObject::invokeMethod(
        this,
        [this, message] {
            slotCloseConnection();
            notifyListener();
            emit sigErrorOccured(message);
        },
        Qt::QueuedConnection);
}

// --- sending -------------------------------------------------------------------------------

void UartLink::slotSendRequest(GnxLink::GnxCmd_t gnxCmd, QStringList params, GnxLink::GnxVersion_t gnxVersion)
{
    // The keep-alive timer may have fired after the requester saw the link ready: the command
    // goes out as soon as the keep-alive is answered.
    if (status() == UART_WAITING_REPLY && lastCommand_ == GnxLink::CMD_KEEPALIVE_INTERNAL &&
        gnxCmd != GnxLink::CMD_KEEPALIVE_INTERNAL && !hasFailed() && !deferred_) {
        deferred_ = DeferredRequest{gnxCmd, params, gnxVersion};
        return;
    }
    if (status() != UART_READY || hasFailed())
        throw MRL::Utils::Exception(QStringLiteral("UartLink is not available"), 2);

    lastCommand_ = gnxCmd;
    lastFrame_ = GnxFrame::mnemonic(gnxCmd);
    const QString frame = GnxFrame::seal(GnxFrame::commandLine(gnxCmd, params));
    lastSent_ = QLatin1Char('$') + frame;

    if (gnxCmd == GnxLink::CMD_RFP) {
        rfpData_.clear();
        binaryBuffer_.clear();
        currentBlock_.clear();
        blockCountKnown_ = false;
        blocksRemaining_ = -1;
        headerSeen_ = false;
        blockTaken_ = false;
        binaryProgressClock_.start();
        setStatus(gnxVersion == GnxLink::GNX_V1 ? UART_WAITING_RFP_REPLY : UART_WAITING_RFP_BINARY_REPLY);
    } else {
        setStatus(UART_WAITING_REPLY);
    }

    keepAliveTimer_.stop();
    replyTimer_.start(replyTimeoutMs());

    if (settings().printAtCmdDebugInfo && gnxCmd != GnxLink::CMD_KEEPALIVE_INTERNAL)
        qDebug().noquote() << QStringLiteral("Send $%1").arg(frame);
    serialPort_.write('$' + frame.toLatin1() + "\r\n");
}

void UartLink::sendQueuedRequest(GnxLink::GnxCmd_t gnxCmd, QStringList params,
                                 GnxLink::GnxVersion_t gnxVersion)
{
    try {
        slotSendRequest(gnxCmd, params, gnxVersion);
    } catch (const MRL::Utils::Exception& e) {
        if (!hasFailed())
            emit sigErrorOccured(e.message());
    }
}

void UartLink::slotSendManualGnxCmd(QString userCmd)
{
    if (settings().printAtCmdDebugInfo)
        qDebug().noquote() << QStringLiteral("Send %1").arg(userCmd);
    serialPort_.write(userCmd.toLatin1() + "\r\n");
}

void UartLink::slotKeepAlive()
{
    // A command may have been sent since the timer was armed.
    if (status() != UART_READY || hasFailed())
        return;
    slotSendRequest(GnxLink::CMD_KEEPALIVE_INTERNAL, {}, GnxLink::GNX_UNDEFINEDVERSION);
}

void UartLink::sendDeferred()
{
    if (!deferred_ || status() != UART_READY)
        return;
    const DeferredRequest request = *deferred_;
    deferred_.reset();
    slotSendRequest(request.cmd, request.params, request.version);
}

void UartLink::slotTimeout()
{
    deferred_.reset();
    emit sigErrorOccured(QStringLiteral("Uart link timeout"));
    setStatus(UART_ERROR_TIMEOUT);
    if (lastCommand_ == GnxLink::CMD_KEEPALIVE_INTERNAL)
        throw MRL::Utils::Exception(QStringLiteral("UART link timeout on KeepAlive"), 2);
}

// --- receiving lines -----------------------------------------------------------------------

void UartLink::slotReadyRead()
{
    receive(serialPort_.readAll());
}

void UartLink::receive(const QByteArray& bytes)
{
    if (status() == UART_WAITING_RFP_BINARY_REPLY) {
        parseBinary(bytes);
        return;
    }
    lineBuffer_ += bytes;
    if (seekingFrameStart_ && !dropToFrameStart())
        return;
    processLines();
}

// Clearing the port at opening can cut a line the device was writing; its tail, taken for a
// garbled answer, would end the first request and leave its true answer unclaimed.
bool UartLink::dropToFrameStart()
{
    qsizetype first = 0;
    while (first < lineBuffer_.size() && std::isspace(static_cast<unsigned char>(lineBuffer_.at(first))))
        ++first;
    if (first == lineBuffer_.size() || lineBuffer_.at(first) == '$') {
        seekingFrameStart_ = first == lineBuffer_.size(); // blank lines are still lines
        return true;
    }
    const qsizetype start = lineBuffer_.indexOf('$', first);
    const qsizetype cut = start < 0 ? lineBuffer_.size() : start;
    if (settings().printAtCmdDebugInfo)
        qDebug().noquote() << QStringLiteral("Skip %1").arg(
            QString::fromLatin1(lineBuffer_.left(cut)).trimmed());
    lineBuffer_.remove(0, cut);
    seekingFrameStart_ = start < 0;
    return !seekingFrameStart_;
}

void UartLink::processLines()
{
    int end = -1;
    while (status() != UART_WAITING_RFP_BINARY_REPLY && (end = lineBuffer_.indexOf('\n')) >= 0) {
        const QByteArray raw = lineBuffer_.left(end);
        lineBuffer_.remove(0, end + 1);
        handleLine(QString::fromLatin1(raw).trimmed());
        sendDeferred();
    }
    if (lineBuffer_.size() > kMaxLineBytes) {
        qWarning().noquote() << GnxFrame::undecodableWarning(shortened(lineBuffer_));
        lineBuffer_.clear();
    }
}

void UartLink::handleLine(const QString& line)
{
    if (settings().printAtCmdDebugInfo)
        debugLine(isKeepAliveAnswer(line)) << QStringLiteral("Receive %1").arg(line);
    if (line.isEmpty()) {
        qWarning().noquote() << QStringLiteral("Empty line");
        return;
    }
    const LinkStatus_t current = status();
    if (current == UART_WAITING_REPLY || current == UART_WAITING_RFP_REPLY)
        handleReply(line);
    else
        handleUnsolicited(line);
}

bool UartLink::decode(const QString& line, GnxFrame::DecodedLine& decoded)
{
    decoded = GnxFrame::decodeLine(line);
    switch (decoded.status) {
    case GnxFrame::DecodedLine::Ok:
        return true;
    case GnxFrame::DecodedLine::AcceptedNprChecksum:
        qWarning().noquote() << GnxFrame::nprChecksumWarning(decoded.mnemonic);
        return true;
    case GnxFrame::DecodedLine::Undecodable:
        qWarning().noquote() << GnxFrame::undecodableWarning(line);
        return false;
    case GnxFrame::DecodedLine::BadChecksum:
        emit sigErrorOccured(GnxFrame::badChecksumError(line, decoded));
        return false;
    }
    return false;
}

void UartLink::handleUnsolicited(const QString& line)
{
    replyTimer_.stop();
    GnxFrame::DecodedLine decoded;
    if (decode(line, decoded))
        dispatchUnsolicited(line, decoded.mnemonic, decoded.params);
}

void UartLink::dispatchUnsolicited(const QString& line, const QString& mnemonic, const QStringList& params)
{
    if (mnemonic == QLatin1String("NPR"))
        emit sigRxReceived(GnxLink::GNXMSG_NPR, params);
    else if (mnemonic == QLatin1String("NPRF"))
        emit sigRxReceived(GnxLink::GNXMSG_NPRF, params);
    else
        emit sigReplyReceived({QStringLiteral("Unknown GNX message type in \"%1\".").arg(line)}, true);
}

void UartLink::handleReply(const QString& line)
{
    const LinkStatus_t previous = status();
    replyTimer_.stop();
    startKeepAlive();
    setStatus(UART_READY);

    GnxFrame::DecodedLine decoded;
    if (!decode(line, decoded))
        return;

    if (decoded.mnemonic == QLatin1String("NPR") || decoded.mnemonic == QLatin1String("NPRF")) {
        // A report crossed the answer: the command is still awaited.
        dispatchUnsolicited(line, decoded.mnemonic, decoded.params);
        keepAliveTimer_.stop();
        replyTimer_.start(replyTimeoutMs());
        setStatus(previous);
        return;
    }

    // Upload commands are answered by ACK and an error code; so is, by its shape, any reply that
    // carries no value after its mnemonic.
    if (isAckCommand(lastCommand_) || decoded.params.isEmpty()) {
        bool ok = false;
        const int code = decoded.params.value(0).toInt(&ok);
        if (decoded.mnemonic != QLatin1String("ACK") || !ok || code == 0)
            emit sigReplyReceived({QStringLiteral("Invalid command: \"%1\"").arg(lastSent_)}, true);
        else
            emit sigReplyReceived(decoded.params, false);
        return;
    }

    if (decoded.mnemonic == lastFrame_) {
        if (lastCommand_ == GnxLink::CMD_KEEPALIVE_INTERNAL)
            return;
        if (lastCommand_ == GnxLink::CMD_RFP && previous == UART_WAITING_RFP_REPLY)
            handleTextRfpLine(decoded.params);
        else
            emit sigReplyReceived(decoded.params, false);
        return;
    }

    emit sigReplyReceived({QStringLiteral("Unrelated message: \"%1\"").arg(line)}, true);
}

// GNX134 flash answer: "$RFP,<block>,<hex data>" lines, closed by block number 0.
void UartLink::handleTextRfpLine(const QStringList& params)
{
    bool ok = false;
    const int block = params.value(0).toInt(&ok);
    if (!ok || block == 0) {
        emit sigBinaryRfpDataReceived(rfpData_, false);
        return;
    }
    const QByteArray data = QByteArray::fromHex(params.value(1).toLatin1());
    if (rfpData_.size() + data.size() > kMaxRfpBytes) {
        failBinary(QStringLiteral("Flash memory answer larger than %1 bytes").arg(kMaxRfpBytes));
        return;
    }
    rfpData_ += data;
    keepAliveTimer_.stop();
    replyTimer_.start(settings().gnxCommandTimeoutMs);
    setStatus(UART_WAITING_RFP_REPLY);
}

} // namespace OrviaGonioManager::Com
