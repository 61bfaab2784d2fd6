// Why not a library: a message must be acknowledged only once its row is committed, and many
// messages go in one commit.
// - libmosquitto (2.0) sends the PUBACK before it calls the message callback.
// - Paho C (1.3.12, MQTTAsync) sends it when the messageArrived callback returns, whatever it
//   returns: returning 0 only makes Paho call it again, and the PUBACK has gone already. Seen with
//   a subscriber whose callback sleeps 3 s then returns 1, or returns 0: mosquitto -v logs
//   "Received PUBACK" at the callback's first return in both cases. Holding the callback back
//   does delay the PUBACK, but Paho hands over one message at a time, so every message would need
//   a commit of its own (a disk flush each: a few hundred a second instead of thousands).
// So the packets are written here: PUBLISH is read, PUBACK goes when acknowledge() says so.
#include "stream/MqttSubscriber.h"
#include "stream/MqttWords.h"

#include <QSslConfiguration>
#include <QSslSocket>
#include <QtEndian>

namespace OrviaGonioManager::Stream {

namespace {

constexpr int kKeepAliveSeconds = 30;
constexpr int kFirstRetryMs = 500;
constexpr int kAnswerMs = 10000; // for the broker to answer a connection or a ping

enum Packet : quint8
{
    CONNECT = 1,
    CONNACK = 2,
    PUBLISH = 3,
    PUBACK = 4,
    PUBREL = 6,
    SUBSCRIBE = 8,
    SUBACK = 9,
    PINGREQ = 12,
    PINGRESP = 13,
    DISCONNECT = 14,
};

void addString(QByteArray& out, const QByteArray& text)
{
    out.append(char(text.size() >> 8)).append(char(text.size() & 0xff)).append(text);
}

QByteArray packet(quint8 header, const QByteArray& body)
{
    QByteArray out(1, char(header));
    qsizetype length = body.size();
    do {
        char digit = char(length % 128);
        length /= 128;
        if (length > 0)
            digit = char(digit | 0x80);
        out.append(digit);
    } while (length > 0);
    return out + body;
}

// In the words OpenSSL uses, as the station says them.
QString certificateFault(const QSslError& e, const QString& host)
{
    switch (e.error()) {
    case QSslError::HostNameMismatch:
        return QStringLiteral("host name mismatch: the broker's certificate is not for %1").arg(host);
    case QSslError::UnableToGetLocalIssuerCertificate:
    case QSslError::UnableToGetIssuerCertificate:
        return QStringLiteral("TLS certificate not trusted: unable to get local issuer certificate");
    case QSslError::SelfSignedCertificate:
        return QStringLiteral("TLS certificate not trusted: self-signed certificate");
    case QSslError::SelfSignedCertificateInChain:
        return QStringLiteral("TLS certificate not trusted: self-signed certificate in certificate chain");
    case QSslError::CertificateExpired:
        return QStringLiteral("TLS certificate not trusted: certificate has expired");
    default:
        return QStringLiteral("TLS certificate not trusted: %1").arg(e.errorString());
    }
}

} // namespace

MqttSubscriber::MqttSubscriber(const Options& options, QObject* parent) : QObject(parent), options_(options)
{
    retry_.setSingleShot(true);
    connect(&retry_, &QTimer::timeout, this, &MqttSubscriber::connectNow);
    answer_.setSingleShot(true);
    answer_.setInterval(kAnswerMs);
    connect(&answer_, &QTimer::timeout, this,
            [this] { lose(QStringLiteral("no answer from the broker within %1 s").arg(kAnswerMs / 1000)); });
    keepAlive_.setInterval(kKeepAliveSeconds * 1000 / 2);
    connect(&keepAlive_, &QTimer::timeout, this, [this] {
        write(packet(PINGREQ << 4, {}));
        if (!answer_.isActive())
            answer_.start();
    });
}

MqttSubscriber::~MqttSubscriber()
{
    stop();
}

void MqttSubscriber::start()
{
    stopping_ = false;
    retryMs_ = kFirstRetryMs;
    connectNow();
}

void MqttSubscriber::stop()
{
    stopping_ = true;
    retry_.stop();
    answer_.stop();
    keepAlive_.stop();
    if (!socket_)
        return;
    // Acknowledgements go out even before the subscription is answered: the broker sends what it
    // kept for the session as soon as it accepts the connection.
    if (answered_ && socket_->state() == QAbstractSocket::ConnectedState) {
        flush();
        write(packet(DISCONNECT << 4, {}));
        socket_->flush();
        socket_->disconnectFromHost();
        if (socket_->state() != QAbstractSocket::UnconnectedState)
            socket_->waitForDisconnected(2000);
    }
    subscribed_ = false;
    socket_->disconnect(this);
    socket_->abort();
    socket_->deleteLater();
    socket_ = nullptr;
}

void MqttSubscriber::connectNow()
{
    if (stopping_)
        return;
    in_.clear();
    acks_.clear();
    tlsFault_.clear();
    tlsFinal_ = false;
    answered_ = false;
    ++connection_;
    if (options_.url.tls) {
        auto* ssl = new QSslSocket(this);
        QSslConfiguration conf = QSslConfiguration::defaultConfiguration();
        if (!options_.caFile.isEmpty())
            conf.setCaCertificates(QSslCertificate::fromPath(options_.caFile));
        if (options_.insecure)
            conf.setPeerVerifyMode(QSslSocket::VerifyNone);
        ssl->setSslConfiguration(conf);
        connect(ssl, &QSslSocket::sslErrors, this, [this, ssl](const QList<QSslError>& errors) {
            if (options_.insecure) {
                ssl->ignoreSslErrors();
                return;
            }
            tlsFinal_ = true;
            tlsFault_ = certificateFault(errors.first(), options_.url.host);
        });
        connect(ssl, &QSslSocket::encrypted, this, &MqttSubscriber::onConnected);
        socket_ = ssl;
    } else {
        socket_ = new QTcpSocket(this);
        connect(socket_, &QTcpSocket::connected, this, &MqttSubscriber::onConnected);
    }
    socket_->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    connect(socket_, &QTcpSocket::readyRead, this, &MqttSubscriber::onReadyRead);
    connect(socket_, &QTcpSocket::errorOccurred, this, [this](QAbstractSocket::SocketError error) {
        if (!tlsFault_.isEmpty())
            return lose(tlsFault_, tlsFinal_);
        switch (error) {
        case QAbstractSocket::ConnectionRefusedError:
            return lose(QStringLiteral("connection refused"));
        case QAbstractSocket::HostNotFoundError:
            return lose(
                QStringLiteral("host not found: %1 (%2)").arg(options_.url.host, socket_->errorString()));
        case QAbstractSocket::RemoteHostClosedError:
            if (answered_)
                return lose(QStringLiteral("connection lost (closed by the broker)"));
            if (auto* ssl = qobject_cast<QSslSocket*>(socket_); ssl && !ssl->isEncrypted())
                return lose(
                    QStringLiteral("protocol mismatch: the port does not speak TLS (the broker closed "
                                   "the connection); is it an mqtt:// one?"));
            return lose(options_.url.tls
                            ? QStringLiteral("the broker closed the connection before answering")
                            : QStringLiteral("the broker closed the connection before answering; "
                                             "if the port speaks TLS, use an mqtts:// URL"));
        case QAbstractSocket::SslHandshakeFailedError:
            return lose(
                QStringLiteral("protocol mismatch: the port does not speak TLS (%1); is it an mqtt:// one?")
                    .arg(socket_->errorString()));
        default:
            return lose(answered_ ? QStringLiteral("connection lost (%1)").arg(socket_->errorString())
                                  : QStringLiteral("cannot connect: %1").arg(socket_->errorString()));
        }
    });
    answer_.start();
    if (auto* ssl = qobject_cast<QSslSocket*>(socket_))
        ssl->connectToHostEncrypted(options_.url.host, quint16(options_.url.port));
    else
        socket_->connectToHost(options_.url.host, quint16(options_.url.port));
}

void MqttSubscriber::onConnected()
{
    QByteArray body;
    addString(body, "MQTT");
    body.append(char(4)); // 3.1.1
    quint8 flags = 0;     // clean session off: the broker keeps what is not acknowledged
    if (!options_.user.isEmpty())
        flags |= 0x80;
    if (!options_.password.isEmpty())
        flags |= 0x40;
    if (!options_.willTopic.isEmpty())
        flags |= 0x04 | 0x08 | 0x20; // will, QoS 1, retained
    body.append(char(flags)).append(char(0)).append(char(kKeepAliveSeconds));
    addString(body, options_.clientId.toUtf8());
    if (!options_.willTopic.isEmpty()) {
        addString(body, options_.willTopic);
        addString(body, options_.willPayload);
    }
    if (!options_.user.isEmpty())
        addString(body, options_.user.toUtf8());
    if (!options_.password.isEmpty())
        addString(body, options_.password.toUtf8());
    write(packet(CONNECT << 4, body));
}

void MqttSubscriber::onReadyRead()
{
    if (!socket_)
        return;
    in_ += socket_->readAll();
    qsizetype at = 0;
    while (at + 2 <= in_.size()) {
        // The remaining length: up to four bytes of seven bits.
        qsizetype length = 0;
        int shift = 0;
        qsizetype p = at + 1;
        bool complete = false;
        for (; p < in_.size() && shift <= 21; ++p, shift += 7) {
            const quint8 digit = quint8(in_[p]);
            length |= qsizetype(digit & 0x7f) << shift;
            if (!(digit & 0x80)) {
                complete = true;
                ++p;
                break;
            }
        }
        if (!complete) {
            if (shift > 21)
                return lose(QStringLiteral("connection lost (a malformed packet from the broker)"));
            break;
        }
        if (p + length > in_.size())
            break;
        const quint8 header = quint8(in_[at]);
        at = p + length;
        if (!handle(header, in_.mid(p, length)))
            return;
    }
    in_.remove(0, at);
    flush();
}

bool MqttSubscriber::handle(quint8 header, const QByteArray& body)
{
    answer_.stop(); // the broker speaks
    switch (header >> 4) {
    case CONNACK: {
        const int code = body.size() >= 2 ? quint8(body[1]) : -1;
        answered_ = true;
        if (code != 0) {
            lose(MqttWords::connackReason(code), MqttWords::isFinalConnack(code));
            return false;
        }
        refusals_ = 0;
        retryMs_ = kFirstRetryMs;
        keepAlive_.start();
        QByteArray sub(2, 0);
        qToBigEndian(quint16(1), sub.data());
        for (const QString& topic : options_.topics) {
            addString(sub, topic.toUtf8());
            sub.append(char(1));
        }
        write(packet(SUBSCRIBE << 4 | 0x02, sub));
        sessionPresent_ = body.size() >= 1 && (quint8(body[0]) & 1);
        return true;
    }
    case SUBACK:
        for (qsizetype i = 2; i < body.size(); ++i)
            if (quint8(body[i]) == 0x80) {
                lose(QStringLiteral("not authorised to subscribe to %1")
                         .arg(options_.topics.value(int(i - 2))),
                     true);
                return false;
            }
        subscribed_ = true;
        lastFault_.clear();
        emit sigConnected(sessionPresent_);
        return true;
    case PUBLISH: {
        const int qos = (header >> 1) & 3;
        if (body.size() < 2)
            break;
        const int topicLength = qFromBigEndian<quint16>(body.constData());
        qsizetype at = 2 + topicLength;
        quint16 id = 0;
        if (qos > 0) {
            if (body.size() < at + 2)
                break;
            id = qFromBigEndian<quint16>(body.constData() + at);
            at += 2;
        }
        if (body.size() < at)
            break;
        emit sigMessage(body.mid(2, topicLength), body.mid(at), id, qos > 0 ? connection_ : 0);
        return socket_ != nullptr;
    }
    case PUBREL: // not subscribed above QoS 1; answered so that the broker does not wait
        if (body.size() >= 2)
            write(packet(7 << 4, body.left(2)));
        return true;
    default: // PINGRESP, a PUBACK of ours
        return true;
    }
    lose(QStringLiteral("connection lost (a malformed packet from the broker)"));
    return false;
}

void MqttSubscriber::acknowledge(quint16 packetId, quint64 connection)
{
    if (connection != connection_ || !socket_ || packetId == 0)
        return;
    QByteArray body(2, 0);
    qToBigEndian(packetId, body.data());
    acks_ += packet(PUBACK << 4, body);
}

void MqttSubscriber::flush()
{
    if (acks_.isEmpty())
        return;
    write(acks_);
    acks_.clear();
}

void MqttSubscriber::publish(const QByteArray& topic, const QByteArray& payload, bool retain)
{
    if (!subscribed_)
        return;
    QByteArray body;
    addString(body, topic);
    write(packet(PUBLISH << 4 | (retain ? 1 : 0), body + payload));
}

void MqttSubscriber::write(const QByteArray& bytes)
{
    if (socket_ && socket_->state() == QAbstractSocket::ConnectedState)
        socket_->write(bytes);
}

void MqttSubscriber::lose(const QString& reason, bool final)
{
    if (!socket_ || stopping_)
        return;
    const bool wasSubscribed = subscribed_;
    subscribed_ = false;
    answer_.stop();
    keepAlive_.stop();
    socket_->disconnect(this);
    socket_->abort();
    socket_->deleteLater();
    socket_ = nullptr;
    acks_.clear();
    if (wasSubscribed)
        emit sigDisconnected(reason);
    if (reason != lastFault_) {
        lastFault_ = reason;
        emit sigFault(reason, final);
    }
    refusals_ = final ? refusals_ + 1 : 0;
    if (final && options_.maxRefusals > 0 && refusals_ >= options_.maxRefusals) {
        emit sigRefused(reason);
        return;
    }
    retryLater();
}

void MqttSubscriber::retryLater()
{
    retry_.start(MqttWords::jittered(retryMs_));
    retryMs_ = std::min(retryMs_ * 2, MqttWords::kMaxRetryMs);
}

} // namespace OrviaGonioManager::Stream
