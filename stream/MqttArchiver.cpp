#include "stream/MqttArchiver.h"

#include "utils/RxJson.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>

namespace OrviaGonioManager::Stream {

namespace {

constexpr int kStatusEveryMs = 60000;
constexpr int kStatusSoonMs = 1000; // changes are told at most once a second

QString jsonText(const QJsonObject& o, const char* name)
{
    return o.value(QLatin1String(name)).toString();
}

} // namespace

struct MqttArchiver::Pending
{
    enum class Kind
    {
        Rx,
        Status,
        Rejected
    } kind = Kind::Rejected;
    QString serial;
    Utils::RxTableModel::Row row;
    QString station;
    QString boot;
    qint64 seq = 0;
    Store::MessageStore::Receiver receiver;
    quint16 packetId = 0;
    quint64 connection = 0;
};

MqttArchiver::MqttArchiver(const Options& options, QObject* parent) : QObject(parent), options_(options)
{
    const QString prefix = options_.mqtt.url.prefix;
    options_.mqtt.topics = {prefix + QStringLiteral("/+/rx"), prefix + QStringLiteral("/+/status")};
    options_.mqtt.willTopic = statusTopic(prefix, options_.mqtt.clientId);
    options_.mqtt.willPayload = statusPayload(QStringLiteral("lost"), {});
    if (options_.maxBatch < 1)
        options_.maxBatch = 1;
    // After the messages that came in one read: the broker sends no more than it may have
    // unacknowledged, so waiting longer would only slow it down.
    commitSoon_.setSingleShot(true);
    commitSoon_.setInterval(0);
    connect(&commitSoon_, &QTimer::timeout, this, &MqttArchiver::commit);
    statusTimer_.setInterval(kStatusSoonMs);
    connect(&statusTimer_, &QTimer::timeout, this, [this, ticks = 0]() mutable {
        ticks = (ticks + 1) % (kStatusEveryMs / kStatusSoonMs);
        if (statusDirty_ || ticks == 0)
            publishStatus(QStringLiteral("online"));
    });
}

MqttArchiver::~MqttArchiver() = default;

QByteArray MqttArchiver::statusTopic(const QString& prefix, const QString& clientId)
{
    return (prefix + QStringLiteral("/archiver/") + clientId + QStringLiteral("/status")).toUtf8();
}

bool MqttArchiver::start(QString* error)
{
    store_ = Store::MessageStore::open(options_.storeUrl, error);
    if (!store_)
        return false;
    subscriber_ = std::make_unique<MqttSubscriber>(options_.mqtt);
    connect(subscriber_.get(), &MqttSubscriber::sigMessage, this, &MqttArchiver::onMessage);
    connect(subscriber_.get(), &MqttSubscriber::sigConnected, this, [this] {
        fault_.clear();
        emit sigSay(QStringLiteral("connected to the MQTT broker %1:%2")
                        .arg(options_.mqtt.url.host)
                        .arg(options_.mqtt.url.port));
        publishStatus(QStringLiteral("online"));
        emit sigChanged();
    });
    connect(subscriber_.get(), &MqttSubscriber::sigFault, this, [this](const QString& reason) {
        fault_ = reason;
        emit sigSay(QStringLiteral("MQTT broker %1:%2: %3")
                        .arg(options_.mqtt.url.host)
                        .arg(options_.mqtt.url.port)
                        .arg(reason));
        emit sigChanged();
    });
    connect(subscriber_.get(), &MqttSubscriber::sigRefused, this, &MqttArchiver::sigRefused);
    emit sigSay(QStringLiteral("connecting to the MQTT broker %1:%2")
                    .arg(options_.mqtt.url.host)
                    .arg(options_.mqtt.url.port));
    subscriber_->start();
    statusTimer_.start();
    return true;
}

void MqttArchiver::stop(const QString& failure)
{
    statusTimer_.stop();
    if (!subscriber_)
        return;
    if (!failed_)
        commit();
    const QString reason = failure.isEmpty() ? storeError_ : failure;
    publishStatus(reason.isEmpty() ? QStringLiteral("offline") : QStringLiteral("failed"), reason);
    subscriber_->stop();
}

QString MqttArchiver::summary() const
{
    QString text = isConnected() ? QStringLiteral("broker connected")
                                 : QStringLiteral("broker not connected") +
                                       (fault_.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(fault_));
    text += QStringLiteral(", %1 stored, %2 already kept, %3 rejected")
                .arg(counts_.stored)
                .arg(counts_.duplicates)
                .arg(counts_.rejected);
    if (counts_.gaps > 0)
        text += QStringLiteral(", %1 gaps (%2 missing)").arg(counts_.gaps).arg(counts_.missing);
    return text;
}

void MqttArchiver::onMessage(const QByteArray& topic, const QByteArray& payload, quint16 packetId,
                             quint64 connection)
{
    if (failed_)
        return; // the store refused: nothing more is taken, nothing acknowledged
    Pending p;
    p.packetId = packetId;
    p.connection = connection;
    if (!read(topic, payload, p)) {
        p.kind = Pending::Kind::Rejected;
        ++counts_.rejected;
        statusDirty_ = true;
    }
    pending_.push_back(std::move(p));
    if (int(pending_.size()) >= options_.maxBatch)
        commit();
    else if (!commitSoon_.isActive())
        commitSoon_.start();
}

bool MqttArchiver::read(const QByteArray& topic, const QByteArray& payload, Pending& p)
{
    const QString name = QString::fromUtf8(topic);
    const QString prefix = options_.mqtt.url.prefix + QLatin1Char('/');
    const QString rest = name.startsWith(prefix) ? name.mid(prefix.size()) : QString();
    p.serial = rest.section(QLatin1Char('/'), 0, 0);
    const QString kind = rest.section(QLatin1Char('/'), 1);
    const auto reject = [&](const QString& why) {
        emit sigSay(QStringLiteral("rejected the message on %1: %2").arg(name, why));
        return false;
    };
    if (p.serial.isEmpty() || (kind != QLatin1String("rx") && kind != QLatin1String("status")))
        return reject(QStringLiteral("not a station's topic"));
    QJsonParseError parse;
    const QJsonDocument doc = QJsonDocument::fromJson(payload, &parse);
    if (parse.error != QJsonParseError::NoError)
        return reject(QStringLiteral("not JSON (%1 at byte %2)").arg(parse.errorString()).arg(parse.offset));
    if (!doc.isObject())
        return reject(QStringLiteral("not a JSON object"));
    const QJsonObject o = doc.object();
    if (kind == QLatin1String("status")) {
        p.kind = Pending::Kind::Status;
        p.receiver.serialNumber = p.serial;
        p.receiver.model = jsonText(o, "model");
        p.receiver.applicationVersion = jsonText(o, "applicationVersion");
        p.receiver.fpgaVersion = jsonText(o, "fpgaVersion");
        p.receiver.bootloaderVersion = jsonText(o, "bootloaderVersion");
        return true;
    }
    QString error;
    QString field;
    auto row = Utils::rxFromJson(o, &error, &field);
    if (!row)
        return reject(QStringLiteral("field \"%1\": %2").arg(field, error));
    const QJsonValue seq = o.value(QLatin1String("seq"));
    if (!seq.isDouble() || seq.toDouble() < 1 || std::floor(seq.toDouble()) != seq.toDouble())
        return reject(seq.isUndefined() ? QStringLiteral("field \"seq\": missing")
                                        : QStringLiteral("field \"seq\": not a whole number from 1"));
    for (const char* text : {"station", "boot"})
        if (o.contains(QLatin1String(text)) && !o.value(QLatin1String(text)).isString())
            return reject(QStringLiteral("field \"%1\": not a text").arg(QLatin1String(text)));
    p.kind = Pending::Kind::Rx;
    p.row = std::move(*row);
    p.station = jsonText(o, "station");
    p.boot = jsonText(o, "boot");
    p.seq = seq.toInteger();
    noteSeq(p.serial, p.boot, p.station, p.seq);
    return true;
}

void MqttArchiver::noteSeq(const QString& serial, const QString& boot, const QString& station, qint64 seq)
{
    if (!last_.contains(serial)) {
        // Where the store left off: a gap across a restart of the archiver is a gap too.
        Last kept;
        kept.seq = store_->latestSeq(serial, &kept.boot);
        last_.insert(serial, kept);
    }
    Last& last = last_[serial];
    if (last.seq > 0 && last.boot == boot && seq > last.seq + 1) {
        const qint64 missing = seq - last.seq - 1;
        ++counts_.gaps;
        counts_.missing += missing;
        const QString seqs = missing == 1 ? QString::number(last.seq + 1)
                                          : QStringLiteral("%1 to %2").arg(last.seq + 1).arg(seq - 1);
        lastGap_ = QStringLiteral("receiver %1 (station %2, boot %3): seq %4 missing")
                       .arg(serial, station.isEmpty() ? QStringLiteral("unnamed") : station, boot, seqs);
        emit sigSay(QStringLiteral("gap in the messages of ") + lastGap_);
        statusDirty_ = true;
    }
    if (last.boot != boot || seq > last.seq) {
        last.boot = boot;
        last.seq = seq;
    }
}

bool MqttArchiver::commit()
{
    commitSoon_.stop();
    if (pending_.empty() || failed_)
        return !failed_;
    qDebug("archive: committing %d messages", int(pending_.size()));
    // One transaction a receiver, in the order the messages came.
    QStringList serials;
    QHash<QString, std::vector<const Pending*>> rx;
    QString error;
    for (const Pending& p : pending_) {
        if (p.kind == Pending::Kind::Status) {
            if (!store_->noteReceiver(p.receiver, &error))
                break;
            ++counts_.statuses;
        } else if (p.kind == Pending::Kind::Rx) {
            if (!rx.contains(p.serial))
                serials << p.serial;
            rx[p.serial].push_back(&p);
        }
    }
    qint64 added = 0;
    qint64 rows = 0;
    for (const QString& serial : serials) {
        if (!error.isEmpty())
            break;
        const std::vector<const Pending*>& list = rx[serial];
        std::vector<Utils::RxTableModel::Row> batch;
        QStringList stations;
        QStringList boots;
        std::vector<qint64> seqs;
        batch.reserve(list.size());
        seqs.reserve(list.size());
        for (const Pending* p : list) {
            batch.push_back(p->row);
            stations << p->station;
            boots << p->boot;
            seqs.push_back(p->seq);
        }
        const int n = store_->addMqttBatch(serial, batch, stations, boots, seqs, &error);
        if (n < 0)
            break;
        added += n;
        rows += qint64(list.size());
    }
    if (!error.isEmpty()) {
        // Nothing of this batch is acknowledged: the broker keeps it for the next run.
        failed_ = true;
        storeError_ = error;
        pending_.clear();
        emit sigStoreFailed(error);
        return false;
    }
    counts_.stored += added;
    counts_.duplicates += rows - added;
    for (const Pending& p : pending_) {
        subscriber_->acknowledge(p.packetId, p.connection);
        if (p.kind != Pending::Kind::Status)
            ++handled_;
    }
    subscriber_->flush();
    pending_.clear();
    statusDirty_ = true;
    emit sigChanged();
    if (options_.count > 0 && handled_ >= options_.count)
        emit sigDone();
    return true;
}

QByteArray MqttArchiver::statusPayload(const QString& state, const QString& reason) const
{
    QJsonObject o{{QStringLiteral("state"), state}, {QStringLiteral("clientId"), options_.mqtt.clientId}};
    if (state != QLatin1String("lost")) {
        o.insert(QStringLiteral("time"),
                 QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyy-MM-ddTHH:mm:ss.zzzZ")));
        o.insert(QStringLiteral("stored"), counts_.stored);
        o.insert(QStringLiteral("duplicates"), counts_.duplicates);
        o.insert(QStringLiteral("rejected"), counts_.rejected);
        o.insert(QStringLiteral("gaps"), counts_.gaps);
        o.insert(QStringLiteral("missing"), counts_.missing);
        o.insert(QStringLiteral("lastGap"), lastGap_.isEmpty() ? QJsonValue() : QJsonValue(lastGap_));
    }
    if (!reason.isEmpty())
        o.insert(QStringLiteral("reason"), reason);
    return QJsonDocument(o).toJson(QJsonDocument::Compact);
}

void MqttArchiver::publishStatus(const QString& state, const QString& reason)
{
    statusDirty_ = false;
    if (subscriber_)
        subscriber_->publish(statusTopic(options_.mqtt.url.prefix, options_.mqtt.clientId),
                             statusPayload(state, reason), true);
}

} // namespace OrviaGonioManager::Stream
