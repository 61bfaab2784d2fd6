#include "cli/MqttStation.h"

#include "cli/CliError.h"
#include "mrl/utils/Exception.h"

#include <QDateTime>
#include <QDir>
#include <QEventLoop>
#include <QJsonDocument>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace OrviaGonioManager::Cli {

namespace {

constexpr int kWindow = 256;          // messages in flight at most
constexpr int kRefreshMs = 60 * 1000; // the status, even when nothing changes
constexpr int kStopWaitMs = 5000;     // for the broker to take "offline"

QByteArray compact(const QJsonObject& o)
{
    return QJsonDocument(o).toJson(QJsonDocument::Compact);
}

QString now()
{
    return QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs);
}

} // namespace

MqttStation::MqttStation(const Options& options, const QString& serial, const QString& boot)
    : options_(options), serial_(serial), boot_(boot),
      lock_(QDir(options.spoolDir).filePath(serial + QStringLiteral(".lock")))
{
    const QByteArray base = (options.client.url.prefix + QLatin1Char('/') + serial).toUtf8();
    rxTopic_ = base + "/rx";
    statusTopic_ = base + "/status";
    openSpool();
    spool_->onLoss = [this](qint64 messages, qint64 bytes) {
        say(QStringLiteral("spool full: %1 messages lost so far, %2% of its %3 MB; the oldest go first")
                .arg(messages)
                .arg(bytes * 100 / options_.spoolMaxBytes)
                .arg(double(options_.spoolMaxBytes) / (1024 * 1024), 0, 'g', 4));
    };
    refresh_.setInterval(kRefreshMs);
    connect(&refresh_, &QTimer::timeout, this, &MqttStation::publishStatus);
}

MqttStation::~MqttStation() = default;

void MqttStation::openSpool()
{
    const QString dir = QDir(options_.spoolDir).filePath(serial_);
    try {
        Stream::Spool::makeDirectory(options_.spoolDir);
    } catch (const MRL::Utils::Exception& e) {
        throw CliError{EXIT_STREAM, e.message()};
    }
    lock_.setStaleLockTime(0);
    if (!lock_.tryLock(0)) {
        if (lock_.error() == QLockFile::LockFailedError) {
            qint64 pid = 0;
            QString host, app;
            lock_.getLockInfo(&pid, &host, &app);
            throw CliError{
                EXIT_STREAM,
                QStringLiteral("the spool %1 is in use by another gnxctl (pid %2)").arg(dir).arg(pid)};
        }
        // Not held by anyone: the lock file itself cannot be made.
        const int fd = ::open(QFile::encodeName(lock_.fileName()).constData(), O_WRONLY | O_CREAT, 0640);
        const QString why =
            fd < 0 ? QString::fromLocal8Bit(std::strerror(errno)) : QStringLiteral("cannot lock");
        if (fd >= 0)
            ::close(fd);
        throw CliError{EXIT_STREAM, QStringLiteral("cannot use the spool %1: %2").arg(dir, why)};
    }
    try {
        spool_ = std::make_unique<Stream::Spool>(dir, options_.spoolMaxBytes);
    } catch (const MRL::Utils::Exception& e) {
        throw CliError{EXIT_STREAM, e.message()};
    }
}

void MqttStation::say(const QString& text)
{
    std::fprintf(stderr, "gnxctl: %s\n", text.toLocal8Bit().constData());
    std::fflush(stderr);
}

void MqttStation::start()
{
    Stream::MqttClient::Options client = options_.client;
    client.clientId = QStringLiteral("gnxctl-%1-%2").arg(serial_, boot_);
    client.willTopic = statusTopic_;
    client.willPayload = compact({{QStringLiteral("state"), QStringLiteral("lost")},
                                  {QStringLiteral("serialNumber"), serial_},
                                  {QStringLiteral("station"), options_.station},
                                  {QStringLiteral("boot"), boot_}});
    client_ = std::make_unique<Stream::MqttClient>(client);
    connect(client_.get(), &Stream::MqttClient::sigConnected, this, &MqttStation::connected);
    connect(client_.get(), &Stream::MqttClient::sigDisconnected, this, &MqttStation::disconnected);
    connect(client_.get(), &Stream::MqttClient::sigAcked, this, &MqttStation::acked);
    connect(client_.get(), &Stream::MqttClient::sigFault, this, [this](const QString& reason, bool final) {
        fault_ = reason;
        if (reason == lostReason_)
            return; // said already, as the loss
        say(final ? QStringLiteral("MQTT broker: %1; this will not cure itself%2")
                        .arg(reason, options_.client.maxRefusals > 0
                                         ? QStringLiteral(", the station ends after %1 such refusals")
                                               .arg(options_.client.maxRefusals)
                                         : QStringLiteral(", tried again (--retry-forever)"))
                  : QStringLiteral("MQTT broker: %1; trying again").arg(reason));
        emit sigChanged();
    });
    connect(client_.get(), &Stream::MqttClient::sigRefused, this, [this](const QString& reason) {
        emit sigFailed(QStringLiteral("the MQTT broker refused the station: %1").arg(reason));
    });
    const auto& url = options_.client.url;
    say(QStringLiteral("connecting to the MQTT broker %1:%2").arg(url.host).arg(url.port));
    try {
        client_->start();
    } catch (const MRL::Utils::Exception& e) {
        throw CliError{EXIT_STREAM, e.message()};
    }
    refresh_.start();
}

void MqttStation::connected()
{
    fault_.clear();
    lostReason_.clear();
    const auto& url = options_.client.url;
    say(QStringLiteral("connected to the MQTT broker %1:%2").arg(url.host).arg(url.port));
    if (url.tls && options_.client.insecure)
        say(QStringLiteral("warning: the broker's certificate is not checked (--mqtt-insecure)"));
    publishStatus();
    pump();
    emit sigChanged();
}

void MqttStation::disconnected(const QString& reason)
{
    lostReason_ = reason;
    say(QStringLiteral("MQTT broker lost (%1); trying again, %2 messages waiting in the spool")
            .arg(reason)
            .arg(spool_->waiting()));
    // What was in flight is sent again from the spool: duplicates carry their seq.
    inflight_.clear();
    pending_.clear();
    spool_->rewind();
    emit sigChanged();
}

void MqttStation::receiverOnline(const QJsonObject& identification)
{
    identification_ = identification;
    if (state_ != QLatin1String("online"))
        say(QStringLiteral("receiver %1 online").arg(serial_));
    state_ = QStringLiteral("online");
    publishStatus();
    emit sigChanged();
}

void MqttStation::receiverLost()
{
    say(QStringLiteral("receiver %1 lost; waiting for it").arg(serial_));
    state_ = QStringLiteral("no-receiver");
    publishStatus();
    emit sigChanged();
}

void MqttStation::publish(QJsonObject rx)
{
    rx.insert(QStringLiteral("station"), options_.station);
    rx.insert(QStringLiteral("boot"), boot_);
    const qint64 seq = spool_->append([&rx](qint64 seq) {
        rx.insert(QStringLiteral("seq"), seq);
        return compact(rx);
    });
    // A full disk loses the new message, said once; what is spooled still goes.
    if (seq == 0 && !diskFull_) {
        diskFull_ = true;
        say(QStringLiteral("warning: %1; new messages are lost until there is room, the spooled ones are "
                           "still sent")
                .arg(spool_->diskError()));
        emit sigChanged();
    } else if (seq > 0 && diskFull_) {
        diskFull_ = false;
        say(QStringLiteral("the spool writes again; %1 messages lost so far").arg(spool_->lostMessages()));
        emit sigChanged();
    }
    last_ = rx;
    pump();
}

void MqttStation::pump()
{
    if (!client_ || !client_->isConnected())
        return;
    const int room = kWindow - int(pending_.size());
    if (room <= 0)
        return;
    for (const Stream::Spool::Record& r : spool_->next(room)) {
        const int mid = client_->publish(rxTopic_, r.payload, false);
        if (mid < 0) {
            spool_->rewind(); // sent again once the broker is back
            inflight_.clear();
            pending_.clear();
            return;
        }
        inflight_[mid] = r.seq;
        pending_[r.seq] = false;
    }
}

void MqttStation::acked(int mid)
{
    if (mid == statusMid_) {
        statusAcked_ = true;
        return;
    }
    const auto it = inflight_.find(mid);
    if (it == inflight_.end())
        return; // a copy from before a reconnection
    pending_[it->second] = true;
    inflight_.erase(it);
    qint64 upTo = 0;
    while (!pending_.empty() && pending_.begin()->second) {
        upTo = pending_.begin()->first;
        pending_.erase(pending_.begin());
        ++published_;
    }
    if (upTo > 0)
        spool_->ack(upTo);
    pump();
}

void MqttStation::publishStatus()
{
    if (!client_ || !client_->isConnected() || state_.isEmpty())
        return; // published again on connection
    QJsonObject o = identification_;
    o.insert(QStringLiteral("state"), state_);
    if (!reason_.isEmpty())
        o.insert(QStringLiteral("reason"), reason_);
    o.insert(QStringLiteral("serialNumber"), serial_);
    o.insert(QStringLiteral("station"), options_.station);
    o.insert(QStringLiteral("boot"), boot_);
    o.insert(QStringLiteral("time"), now());
    const bool heard = !last_.isEmpty();
    o.insert(QStringLiteral("latitude"), heard ? last_.value(QStringLiteral("gnxLatitude")) : QJsonValue());
    o.insert(QStringLiteral("longitude"), heard ? last_.value(QStringLiteral("gnxLongitude")) : QJsonValue());
    o.insert(QStringLiteral("heading"), heard ? last_.value(QStringLiteral("gnxDirection")) : QJsonValue());
    o.insert(QStringLiteral("lastMessage"), heard ? last_.value(QStringLiteral("time")) : QJsonValue());
    o.insert(QStringLiteral("published"), published_);
    o.insert(QStringLiteral("waiting"), spool_->waiting());
    o.insert(QStringLiteral("lost"), spool_->lostMessages());
    statusAcked_ = false;
    statusMid_ = client_->publish(statusTopic_, compact(o), true);
}

bool MqttStation::waitFor(const std::function<bool()>& done, int ms)
{
    QEventLoop wait;
    QTimer::singleShot(ms, &wait, &QEventLoop::quit);
    connect(client_.get(), &Stream::MqttClient::sigAcked, &wait, [&] {
        if (done())
            wait.quit();
    });
    connect(client_.get(), &Stream::MqttClient::sigDisconnected, &wait, &QEventLoop::quit);
    if (!done())
        wait.exec();
    return done();
}

QString MqttStation::summary() const
{
    const QString broker = client_ && client_->isConnected() ? QStringLiteral("broker connected")
                           : fault_.isEmpty()                ? QStringLiteral("broker not connected")
                                              : QStringLiteral("broker not connected (%1)").arg(fault_);
    return QStringLiteral("%1, %2, %3 waiting, %4 lost")
        .arg(state_.isEmpty() ? QStringLiteral("starting") : state_, broker)
        .arg(spool_->waiting())
        .arg(spool_->lostMessages());
}

void MqttStation::stop(const QString& failedReason)
{
    refresh_.stop();
    state_ = failedReason.isEmpty() ? QStringLiteral("offline") : QStringLiteral("failed");
    reason_ = failedReason;
    if (client_ && client_->isConnected()) {
        // What is spooled goes first, then "offline"; a slow broker gets a few seconds for each.
        waitFor([this] { return spool_->waiting() == 0; }, kStopWaitMs);
        publishStatus();
        waitFor([this] { return statusAcked_; }, kStopWaitMs);
    }
    if (client_)
        client_->stop();
    spool_->flush();
    say(QStringLiteral("stopped; %1 messages published, %2 waiting in the spool")
            .arg(published_)
            .arg(spool_->waiting()));
}

} // namespace OrviaGonioManager::Cli
