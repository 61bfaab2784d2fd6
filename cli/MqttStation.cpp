#include "cli/MqttStation.h"

#include "cli/CliError.h"
#include "mrl/utils/Exception.h"

#include <QDateTime>
#include <QDir>
#include <QEventLoop>
#include <QJsonDocument>

#include <cstdio>

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
    QDir().mkpath(options.spoolDir);
    lock_.setStaleLockTime(0);
    if (!lock_.tryLock(0)) {
        qint64 pid = 0;
        QString host, app;
        lock_.getLockInfo(&pid, &host, &app);
        throw CliError{EXIT_STREAM, QStringLiteral("the spool %1 is in use by another gnxctl (pid %2)")
                                        .arg(QDir(options.spoolDir).filePath(serial))
                                        .arg(pid)};
    }
    try {
        spool_ =
            std::make_unique<Stream::Spool>(QDir(options.spoolDir).filePath(serial), options.spoolMaxBytes);
    } catch (const MRL::Utils::Exception& e) {
        throw CliError{EXIT_STREAM, e.message()};
    }
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
    connect(client_.get(), &Stream::MqttClient::sigRefused, this, &MqttStation::sigRefused);
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
    const auto& url = options_.client.url;
    say(QStringLiteral("connected to the MQTT broker %1:%2").arg(url.host).arg(url.port));
    if (url.tls && options_.client.insecure)
        say(QStringLiteral("warning: the broker's certificate is not checked (--mqtt-insecure)"));
    publishStatus();
    pump();
}

void MqttStation::disconnected(const QString& reason)
{
    say(QStringLiteral("MQTT broker lost (%1); trying again, %2 messages waiting in the spool")
            .arg(reason)
            .arg(spool_->waiting()));
    // What was in flight is sent again from the spool: duplicates carry their seq.
    inflight_.clear();
    pending_.clear();
    spool_->rewind();
}

void MqttStation::receiverOnline(const QJsonObject& identification)
{
    identification_ = identification;
    if (state_ != QLatin1String("online"))
        say(QStringLiteral("receiver %1 online").arg(serial_));
    state_ = QStringLiteral("online");
    publishStatus();
}

void MqttStation::receiverLost()
{
    say(QStringLiteral("receiver %1 lost; waiting for it").arg(serial_));
    state_ = QStringLiteral("no-receiver");
    publishStatus();
}

void MqttStation::publish(QJsonObject rx)
{
    rx.insert(QStringLiteral("station"), options_.station);
    rx.insert(QStringLiteral("boot"), boot_);
    try {
        spool_->append([&rx](qint64 seq) {
            rx.insert(QStringLiteral("seq"), seq);
            return compact(rx);
        });
    } catch (const MRL::Utils::Exception& e) {
        throw CliError{EXIT_STREAM, e.message()};
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

void MqttStation::stop()
{
    refresh_.stop();
    state_ = QStringLiteral("offline");
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
