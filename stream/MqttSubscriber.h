#pragma once

#include "stream/MqttBrokerOptions.h"

#include <QByteArray>
#include <QObject>
#include <QStringList>
#include <QTimer>

class QTcpSocket;

namespace OrviaGonioManager::Stream {

// A subscriber that acknowledges a QoS 1 message only when told to, so that the caller can keep
// it first. MQTT 3.1.1 written directly on Qt Network: the MQTT libraries at hand (libmosquitto,
// Paho C) send the PUBACK by themselves (see MqttSubscriber.cpp). A persistent session (clean
// session off) under a fixed client id: what is not acknowledged is sent again by the broker
// after a reconnection or a restart. Retries start at 0.5 s and double up to 5 s, with jitter.
class MqttSubscriber : public QObject
{
    Q_OBJECT

public:
    struct Options : MqttBrokerOptions
    {
        QStringList topics; // subscribed at QoS 1
    };

    explicit MqttSubscriber(const Options& options, QObject* parent = nullptr);
    ~MqttSubscriber() override;

    void start();
    // A clean end: DISCONNECT, so that the broker drops the will.
    void stop();
    bool isConnected() const { return subscribed_; }
    // Acknowledges a message that came in connection; one of an older connection is left to the
    // broker, which sends it again.
    void acknowledge(quint16 packetId, quint64 connection);
    // Sends what was acknowledged since the last flush, in one write.
    void flush();
    // QoS 0: for the subscriber's own status.
    void publish(const QByteArray& topic, const QByteArray& payload, bool retain);

signals:
    // Subscribed; sessionPresent: the broker had kept the session.
    void sigConnected(bool sessionPresent);
    void sigMessage(const QByteArray& topic, const QByteArray& payload, quint16 packetId, quint64 connection);
    // Why the broker cannot be used, each time the reason changes. final: another try would
    // only repeat it.
    void sigFault(const QString& reason, bool final);
    void sigDisconnected(const QString& reason);
    // maxRefusals final refusals in a row: the subscriber has stopped trying.
    void sigRefused(const QString& reason);

private:
    void connectNow();
    void onConnected();
    void onReadyRead();
    // False when the connection was dropped for a protocol fault.
    bool handle(quint8 header, const QByteArray& body);
    void lose(const QString& reason, bool final = false);
    void retryLater();
    void write(const QByteArray& packet);

    Options options_;
    QTcpSocket* socket_ = nullptr;
    QTimer retry_;
    QTimer answer_;    // the broker's CONNACK, or a PINGRESP
    QTimer keepAlive_; // sends PINGREQ
    QByteArray in_;
    QByteArray acks_;
    QString lastFault_;
    QString tlsFault_;
    bool tlsFinal_ = false;
    bool stopping_ = false;
    bool subscribed_ = false;
    bool answered_ = false; // CONNACK received on this connection
    bool sessionPresent_ = false;
    quint64 connection_ = 0;
    int retryMs_ = 0;
    int refusals_ = 0;
};

} // namespace OrviaGonioManager::Stream
