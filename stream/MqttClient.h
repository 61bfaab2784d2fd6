#pragma once

#include "stream/MqttUrl.h"

#include <QObject>

struct mosquitto;

namespace OrviaGonioManager::Stream {

// A publisher on libmosquitto. Its network loop runs in libmosquitto's own thread, which
// reconnects with growing delays capped at a minute; what it reports comes back as signals in
// this object's thread. Messages go with QoS 1: sigAcked tells when the broker has one.
class MqttClient : public QObject
{
    Q_OBJECT

public:
    struct Options
    {
        MqttUrl url;
        QString clientId;
        QString user; // none when empty
        QString password;
        QString caFile; // the system's store when empty
        bool insecure = false;
        QByteArray willTopic; // retained, QoS 1
        QByteArray willPayload;
    };

    explicit MqttClient(const Options& options, QObject* parent = nullptr);
    ~MqttClient() override;

    // Throws MRL::Utils::Exception when the client cannot be set up (a bad CA file, say).
    void start();
    bool isConnected() const { return connected_; }
    // The message's id, or -1 when it could not be queued.
    int publish(const QByteArray& topic, const QByteArray& payload, bool retain);
    // A clean end: the broker does not send the will.
    void stop();

signals:
    void sigConnected();
    void sigDisconnected(const QString& reason);
    void sigRefused(const QString& reason); // the broker will not take this client as it is
    void sigAcked(int mid);

private:
    static void onConnect(mosquitto*, void* self, int rc);
    static void onDisconnect(mosquitto*, void* self, int rc);
    static void onPublish(mosquitto*, void* self, int mid);
    void check(int rc, const QString& what) const;

    Options options_;
    mosquitto* mosq_ = nullptr;
    bool connected_ = false;
    bool looping_ = false;
};

} // namespace OrviaGonioManager::Stream
