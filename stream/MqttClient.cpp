#include "stream/MqttClient.h"

#include "mrl/utils/Exception.h"

#include <mosquitto.h>

namespace OrviaGonioManager::Stream {

namespace {

constexpr int kKeepAliveSeconds = 30;
constexpr unsigned kRetryFirstSeconds = 1;
constexpr unsigned kRetryMaxSeconds = 60;

// Refusals that another try would only repeat.
bool isFinal(int connack)
{
    return connack == 1 || connack == 2 || connack == 4 || connack == 5;
}

} // namespace

MqttClient::MqttClient(const Options& options, QObject* parent) : QObject(parent), options_(options)
{
    mosquitto_lib_init();
}

MqttClient::~MqttClient()
{
    stop();
    if (mosq_)
        mosquitto_destroy(mosq_);
    mosquitto_lib_cleanup();
}

void MqttClient::check(int rc, const QString& what) const
{
    if (rc != MOSQ_ERR_SUCCESS)
        throw MRL::Utils::Exception(
            QStringLiteral("MQTT: %1 (%2)").arg(what, QString::fromUtf8(mosquitto_strerror(rc))), 2);
}

void MqttClient::start()
{
    mosq_ = mosquitto_new(options_.clientId.toUtf8().constData(), true, this);
    if (!mosq_)
        throw MRL::Utils::Exception(QStringLiteral("MQTT: cannot create the client"), 2);
    mosquitto_int_option(mosq_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
    mosquitto_connect_callback_set(mosq_, &MqttClient::onConnect);
    mosquitto_disconnect_callback_set(mosq_, &MqttClient::onDisconnect);
    mosquitto_publish_callback_set(mosq_, &MqttClient::onPublish);
    mosquitto_max_inflight_messages_set(mosq_, 0); // the caller bounds what is in flight
    check(mosquitto_reconnect_delay_set(mosq_, kRetryFirstSeconds, kRetryMaxSeconds, true),
          QStringLiteral("cannot set the retry delays"));
    if (!options_.user.isEmpty())
        check(mosquitto_username_pw_set(mosq_, options_.user.toUtf8().constData(),
                                        options_.password.isEmpty() ? nullptr
                                                                    : options_.password.toUtf8().constData()),
              QStringLiteral("cannot set the credentials"));
    if (!options_.willTopic.isEmpty())
        check(mosquitto_will_set(mosq_, options_.willTopic.constData(), int(options_.willPayload.size()),
                                 options_.willPayload.constData(), 1, true),
              QStringLiteral("cannot set the last will"));
    if (options_.url.tls) {
        const QByteArray ca = options_.caFile.toLocal8Bit();
        check(mosquitto_tls_set(mosq_, ca.isEmpty() ? nullptr : ca.constData(),
                                ca.isEmpty() ? "/etc/ssl/certs" : nullptr, nullptr, nullptr, nullptr),
              QStringLiteral("cannot use the certificates %1")
                  .arg(ca.isEmpty() ? "/etc/ssl/certs" : options_.caFile));
        if (options_.insecure) {
            check(mosquitto_tls_opts_set(mosq_, 0, nullptr, nullptr),
                  QStringLiteral("cannot turn off checks"));
            check(mosquitto_tls_insecure_set(mosq_, true), QStringLiteral("cannot turn off checks"));
        }
    }
    // A broker that is not there yet is tried again by the loop.
    mosquitto_connect_async(mosq_, options_.url.host.toUtf8().constData(), options_.url.port,
                            kKeepAliveSeconds);
    check(mosquitto_loop_start(mosq_), QStringLiteral("cannot start the network thread"));
    looping_ = true;
}

int MqttClient::publish(const QByteArray& topic, const QByteArray& payload, bool retain)
{
    int mid = -1;
    if (!mosq_ || mosquitto_publish(mosq_, &mid, topic.constData(), int(payload.size()), payload.constData(),
                                    1, retain) != MOSQ_ERR_SUCCESS)
        return -1;
    return mid;
}

void MqttClient::stop()
{
    if (!looping_)
        return;
    looping_ = false;
    mosquitto_disconnect(mosq_);
    mosquitto_loop_stop(mosq_, !connected_);
    connected_ = false;
}

void MqttClient::onConnect(mosquitto*, void* self, int rc)
{
    auto* client = static_cast<MqttClient*>(self);
    const QString reason = QString::fromUtf8(mosquitto_connack_string(rc));
    QMetaObject::invokeMethod(
        client,
        [client, rc, reason] {
            if (rc == 0) {
                client->connected_ = true;
                emit client->sigConnected();
            } else if (isFinal(rc)) {
                emit client->sigRefused(reason);
            } else {
                emit client->sigDisconnected(reason);
            }
        },
        Qt::QueuedConnection);
}

void MqttClient::onDisconnect(mosquitto*, void* self, int rc)
{
    auto* client = static_cast<MqttClient*>(self);
    const QString reason =
        QString::fromUtf8(rc == MOSQ_ERR_CONN_LOST ? "connection lost" : mosquitto_strerror(rc));
    QMetaObject::invokeMethod(
        client,
        [client, rc, reason] {
            const bool was = client->connected_;
            client->connected_ = false;
            if (rc != 0 && was)
                emit client->sigDisconnected(reason);
        },
        Qt::QueuedConnection);
}

void MqttClient::onPublish(mosquitto*, void* self, int mid)
{
    auto* client = static_cast<MqttClient*>(self);
    QMetaObject::invokeMethod(
        client, [client, mid] { emit client->sigAcked(mid); }, Qt::QueuedConnection);
}

} // namespace OrviaGonioManager::Stream
