#include "com/GnxLink.h"

#include "app/Settings.h"
#include "com/GnxFrame.h"
#include "com/UartLink.h"
#include "mrl/utils/Exception.h"

#include <QCoreApplication>
#include <QDebug>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QSerialPortInfo>
#include <QThread>
#include <QTimer>

#include <optional>
#include <utility>

namespace OrviaGonioManager::Com {

namespace {

constexpr int kFlashReadStep = 16384;

[[noreturn]] void fail(const QString& message)
{
    throw MRL::Utils::Exception(message, 2);
}

// Sets a flag for the lifetime of a scope, exceptions included.
class FlagScope
{
public:
    explicit FlagScope(bool& flag) : flag_(flag) { flag_ = true; }
    ~FlagScope() { flag_ = false; }

private:
    bool& flag_;
};

} // namespace

GnxLink::GnxLink(QObject* parent) : QObject(parent), linkThread_(new QThread(this))
{
    linkThread_->setObjectName(QStringLiteral("GnxLink"));
    qRegisterMetaType<GnxCmd_t>("GnxLink::GnxCmd_t");
    qRegisterMetaType<GnxVersion_t>("GnxLink::GnxVersion_t");
    qRegisterMetaType<GnxMessageType_t>("GnxLink::GnxMessageType_t");
    qRegisterMetaType<RxOrigin_t>("GnxLink::RxOrigin_t");
    qRegisterMetaType<OrviaRxMessage_t>("OrviaGonioManager::Com::OrviaRxMessage_t");

    requestTimer_.setSingleShot(true);
    requestTimer_.setTimerType(Qt::PreciseTimer);
    connect(&requestTimer_, &QTimer::timeout, this, &GnxLink::slotTimeout);
}

GnxLink::~GnxLink()
{
    closeConnection();
    linkThread_->quit();
    linkThread_->wait();
}

// --- connection ----------------------------------------------------------------------------

void GnxLink::openConnection(const QSerialPortInfo& portInfo)
{
    prepareThread();
    startLink(new UartLink(portInfo));
}

void GnxLink::openConnection(const QString& portNameOrPath)
{
    prepareThread();
    startLink(new UartLink(portNameOrPath));
}

// A previous connection's thread may still be winding down; its link goes with it.
void GnxLink::prepareThread()
{
    closeConnection();
    if (linkThread_->isRunning()) {
        linkThread_->quit();
        linkThread_->wait();
    }
    // Stale calls from the previous link are dropped now, while no link is set.
    QCoreApplication::sendPostedEvents(this, QEvent::MetaCall);
    linkThread_->start(QThread::InheritPriority);
}

void GnxLink::startLink(UartLink* link)
{
    version_ = GNX_UNDEFINEDVERSION;
    linkCompromised_ = false;
    // Wakes a waiting request whenever the link changes state; the link calls it in its thread.
    link->setStateListener([this] {
        QMetaObject::invokeMethod(
            this, [] {}, Qt::QueuedConnection);
    });
    link->moveToThread(linkThread_);

    connect(this, &GnxLink::sigOpenConnection, link, &UartLink::slotOpenConnection, Qt::QueuedConnection);
    connect(this, &GnxLink::sigSetLiveRxEnabled, link, &UartLink::slotSetLiveRxEnabled, Qt::QueuedConnection);
    connect(this, &GnxLink::sigSendRequest, link, &UartLink::sendQueuedRequest, Qt::QueuedConnection);
    connect(this, &GnxLink::sigSendManualGnxCmd, link, &UartLink::slotSendManualGnxCmd, Qt::QueuedConnection);
    connect(this, &GnxLink::sigCloseConnection, link, &UartLink::slotCloseConnection, Qt::QueuedConnection);
    connect(link, &UartLink::sigReplyReceived, this, &GnxLink::slotReplyReceived, Qt::QueuedConnection);
    connect(link, &UartLink::sigBinaryRfpDataReceived, this, &GnxLink::slotBinaryRfpDataReceived,
            Qt::QueuedConnection);
    connect(link, &UartLink::sigBinaryProgress, this, &GnxLink::slotBinaryProgress, Qt::QueuedConnection);
    connect(link, &UartLink::sigRxReceived, this, &GnxLink::slotRxReceived, Qt::QueuedConnection);
    connect(link, &UartLink::sigErrorOccured, this, &GnxLink::slotErrorOccured, Qt::QueuedConnection);

    link_ = link;
    emit sigOpenConnection();
}

void GnxLink::closeConnection()
{
    if (!link_)
        return;
    requestTimer_.stop();
    version_ = GNX_UNDEFINEDVERSION;
    UartLink* link = link_;
    emit sigCloseConnection();
    // Nothing more from or to this link; what it already sent is dropped.
    disconnect(this, nullptr, link, nullptr);
    disconnect(link, nullptr, this, nullptr);
    link->deleteLater();
    link_ = nullptr;
    linkThread_->quit();

    if (requestPending_) {
        requestResult_ = 2;
        errorMessage_ = QStringLiteral("Connection closed");
        requestPending_ = false;
    }
}

QString GnxLink::portName() const
{
    return link_ ? link_->portName() : QString();
}

bool GnxLink::isPortLost() const
{
    return link_ && link_->isPortLost();
}

void GnxLink::setLiveRxEnabled(bool enabled)
{
    emit sigSetLiveRxEnabled(enabled);
}

int GnxLink::maxPlatformsNumber() const
{
    switch (version_) {
    case GNX_V1:
        return 16;
    case GNX_V2:
        return 64;
    default:
        return 0;
    }
}

// --- request engine ------------------------------------------------------------------------

// One pass of the GUI event loop, sleeping until something arrives; user input stays queued.
void GnxLink::pumpEvents()
{
    FlagScope waiting(waiting_);
    QCoreApplication::processEvents(QEventLoop::ExcludeUserInputEvents | QEventLoop::WaitForMoreEvents);
}

void GnxLink::waitForLink()
{
    if (!link_)
        fail(QStringLiteral("UART link not available"));
    if (waiting_)
        fail(QStringLiteral("sendBlockingRequest recursively called"));
    for (;;) {
        if (link_->hasFailed())
            fail(QStringLiteral("UART link not available"));
        const UartLink::LinkStatus_t status = link_->status();
        if (status == UartLink::UART_READY)
            return;
        if (status == UartLink::UART_ERROR_TIMEOUT)
            fail(QStringLiteral("UART link timeout"));
        pumpEvents();
        if (!link_)
            fail(QStringLiteral("UART link not available"));
    }
}

bool GnxLink::isUsable() const
{
    return link_ && !link_->hasFailed() && link_->status() != UartLink::UART_ERROR_TIMEOUT;
}

void GnxLink::sendBlockingRequest(GnxCmd_t gnxCmd, const QStringList& params)
{
    if (recording_) {
        recordedCommands_.append(QLatin1Char('$') + GnxFrame::seal(GnxFrame::commandLine(gnxCmd, params)));
        return;
    }
    waitForLink();

    requestPending_ = true;
    requestResult_ = 0;
    emit sigSendRequest(gnxCmd, params, version_);
    // Twice the link's own time-out: the link normally reports first.
    requestTimer_.start(2 * Utils::Settings::instance().gnxCommandTimeoutMs);
    while (requestPending_)
        pumpEvents();
    requestTimer_.stop();

    if (requestResult_ == 1)
        fail(QStringLiteral("Error in reply: %1").arg(errorMessage_));
    if (requestResult_ == 2)
        fail(QStringLiteral("Link Error: %1").arg(errorMessage_));
}

void GnxLink::sendRequestAndCheck(GnxCmd_t gnxCmd, int paramsCount, const QStringList& params,
                                  QList<int> acceptedCounts)
{
    QStringList padded = params;
    while (padded.size() < paramsCount)
        padded.append(QString());
    sendBlockingRequest(gnxCmd, padded);
    // A recorded command has no reply to check.
    if (recording_)
        return;
    if (acceptedCounts.isEmpty())
        acceptedCounts = {paramsCount};
    if (acceptedCounts.contains(int(replyValues_.size())))
        return;
    fail(QStringLiteral("Unable to read reply of command %1 setup: bad parameters number.")
             .arg(GnxFrame::mnemonic(gnxCmd)));
}

bool GnxLink::isFromCurrentLink() const
{
    // Direct calls (no sender) are accepted; a queued call from a closed link is not.
    const QObject* from = sender();
    return from == nullptr || from == link_.data();
}

void GnxLink::slotReplyReceived(QStringList replyValues, bool isError)
{
    if (!isFromCurrentLink())
        return;
    if (isError) {
        requestResult_ = 1;
        errorMessage_ = replyValues.value(0);
        if (!requestPending_)
            qWarning().noquote() << QStringLiteral("Error in unexpected message: %1").arg(errorMessage_);
    } else {
        requestResult_ = 0;
        replyValues_ = replyValues;
    }
    if (!requestPending_)
        emit sigUnexpectedReply(replyValues, isError);
    requestPending_ = false;
}

void GnxLink::slotBinaryProgress(qint64 bytes)
{
    if (isFromCurrentLink() && flashBlockDone_ >= 0 && requestPending_)
        emit sigFlashProgress(qMin(flashBlockDone_ + qMin<qint64>(bytes, kFlashReadStep), flashTotal_),
                              flashTotal_);
}

void GnxLink::slotBinaryRfpDataReceived(QByteArray rfpData, bool isError)
{
    if (!isFromCurrentLink())
        return;
    if (isError) {
        requestResult_ = 1;
        errorMessage_ = QString::fromUtf8(rfpData);
        if (!requestPending_)
            qWarning().noquote() << QStringLiteral("Error in unexpected message: %1").arg(errorMessage_);
    } else {
        requestResult_ = 0;
        binaryData_ = rfpData;
    }
    requestPending_ = false;
}

void GnxLink::slotErrorOccured(QString message)
{
    if (!isFromCurrentLink())
        return;
    requestResult_ = 2;
    errorMessage_ = message;
    requestPending_ = false;
    // The owner tears the connection down on the first report; later ones add nothing.
    if (link_ && !linkCompromised_) {
        linkCompromised_ = true;
        emit sigLinkCompromised(link_->portName(), message);
    }
}

void GnxLink::slotTimeout()
{
    requestResult_ = 2;
    errorMessage_ = QStringLiteral("Request interrupted");
    requestPending_ = false;
}

// --- manual commands -----------------------------------------------------------------------

void GnxLink::sendManualCommand(const QString& userCmd)
{
    waitForLink();
    const GnxFrame::ManualCommand command = GnxFrame::parseManualCommand(userCmd);
    for (const QString& warning : command.warnings)
        qWarning().noquote() << warning;
    if (command.request)
        sendBlockingRequest(command.cmd, command.params);
    else
        emit sigSendManualGnxCmd(command.line);
}

QStringList GnxLink::exchangeManualCommand(const QString& userCmd)
{
    const GnxFrame::ManualCommand command = GnxFrame::parseManualCommand(userCmd);
    if (command.request || recording_) {
        sendManualCommand(userCmd);
        return replyValues_;
    }
    std::optional<QPair<QStringList, bool>> answer;
    const QMetaObject::Connection taken =
        connect(this, &GnxLink::sigUnexpectedReply, this, [&](const QStringList& values, bool isError) {
            if (!answer)
                answer.emplace(values, isError);
        });
    bool late = false;
    QTimer deadline;
    deadline.setSingleShot(true);
    connect(&deadline, &QTimer::timeout, this, [&] { late = true; });
    sendManualCommand(userCmd);
    deadline.start(Utils::Settings::instance().gnxCommandTimeoutMs);
    while (!answer && !late && isUsable())
        pumpEvents();
    disconnect(taken);
    if (!answer)
        fail(isUsable() ? QStringLiteral("No answer to \"%1\"").arg(userCmd)
                        : QStringLiteral("Link Error: %1").arg(errorMessage_));
    QStringList values = answer->first;
    bool refused = answer->second;
    QString answered = values.join(QLatin1Char(','));
    // The link knows no reply to a line it did not frame: one under the line's own mnemonic is its answer.
    static const QRegularExpression unknown(QStringLiteral("^Unknown GNX message type in \"(.*)\"\\.$"));
    if (const QRegularExpressionMatch m = unknown.match(values.value(0)); refused && m.hasMatch()) {
        answered = m.captured(1);
        const GnxFrame::DecodedLine reply = GnxFrame::decodeLine(answered);
        const QString sent = command.line.mid(command.line.startsWith(QLatin1Char('$')) ? 1 : 0)
                                 .section(QLatin1Char('*'), 0, 0)
                                 .section(QLatin1Char(','), 0, 0);
        if (reply.accepted() && reply.mnemonic == sent) {
            values = QStringList{reply.mnemonic} + reply.params;
            refused = false;
        }
    }
    if (!command.warnings.isEmpty())
        fail(QStringLiteral("%1; the line went out as typed and the receiver answered %2")
                 .arg(command.warnings.join(QStringLiteral("; ")), answered));
    if (refused)
        fail(QStringLiteral("The receiver refused \"%1\": it answered %2").arg(userCmd, answered));
    return values;
}

// --- flash memory --------------------------------------------------------------------------

QByteArray GnxLink::readFlashMemory()
{
    sendBlockingRequest(CMD_IFP);
    const qint64 start = replyValues_.value(0).trimmed().toLongLong();
    const qint64 end = replyValues_.value(1).trimmed().toLongLong();
    qInfo().noquote() << QStringLiteral("Read %1 bytes of data from flash memory...").arg(end - start);

    readCancelled_ = false;
    partialRead_.clear();
    const qint64 total = qMax<qint64>(end - start, 0);
    emit sigFlashProgress(0, total);
    QByteArray data;
    flashTotal_ = total;
    const auto outside = qScopeGuard([this] { flashBlockDone_ = -1; });
    for (qint64 position = start; position < end && !readCancelled_; position += kFlashReadStep) {
        binaryData_.clear();
        flashBlockDone_ = position - start;
        try {
            sendBlockingRequest(CMD_RFP, {QString::number(position), QString::number(kFlashReadStep)});
        } catch (const MRL::Utils::Exception&) {
            partialRead_ = data; // the blocks read so far are the user's
            throw;
        }
        data += binaryData_;
        flashBlockDone_ = -1; // a late progress report of this block is stale
        emit sigFlashProgress(qMin(position + kFlashReadStep - start, total), total);
    }
    return data;
}

QByteArray GnxLink::readPlatformFlashMemory(int platformIndex)
{
    qInfo().noquote()
        << QStringLiteral("Read data from flash memory for platform at index %1...").arg(platformIndex);
    binaryData_.clear();
    sendBlockingRequest(CMD_RFP, {QString::number(platformIndex)});
    return binaryData_;
}

void GnxLink::deletePlatformFlashMemory(int platformIndex)
{
    qInfo().noquote()
        << QStringLiteral("Delete data from flash memory for platform at index %1...").arg(platformIndex);
    sendBlockingRequest(CMD_DFP, {QString::number(platformIndex)});
}

void GnxLink::deleteFlashMemory()
{
    qInfo().noquote() << QStringLiteral("Delete data from flash memory...");
    sendBlockingRequest(CMD_DFP);
}

// --- recording -----------------------------------------------------------------------------

void GnxLink::startRecording()
{
    recordedCommands_.clear();
    recording_ = true;
}

QStringList GnxLink::takeRecordedCommands()
{
    recording_ = false;
    return std::exchange(recordedCommands_, {});
}

} // namespace OrviaGonioManager::Com
