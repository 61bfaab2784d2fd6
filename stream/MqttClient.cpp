#include "stream/MqttClient.h"

#include "mrl/utils/Exception.h"
#include "stream/MqttWords.h"

#include <QFileInfo>

#include <mosquitto.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace OrviaGonioManager::Stream {

namespace {

constexpr int kKeepAliveSeconds = 30;
constexpr int kFirstRetryMs = 500;
constexpr int kAnswerMs = 10000; // for the broker to answer a connection
constexpr int kLoopMs = 100;     // how soon the network thread sees stop()
constexpr int kProbeMs = 2000;

const char* kSystemCerts = "/etc/ssl/certs";

QString sslReason(unsigned long error)
{
    const char* reason = ERR_reason_error_string(error);
    return reason ? QString::fromUtf8(reason) : QStringLiteral("error %1").arg(error);
}

// Whether host:port completes a TLS handshake: tells a TLS port from a broker that hangs up.
bool speaksTls(const QByteArray& host, int port)
{
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.constData(), QByteArray::number(port).constData(), &hints, &found) != 0)
        return false;
    const int fd = ::socket(found->ai_family, found->ai_socktype, found->ai_protocol);
    const timeval timeout{kProbeMs / 1000, 0};
    bool tls = false;
    if (fd >= 0 && ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) == 0 &&
        ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) == 0 &&
        ::connect(fd, found->ai_addr, found->ai_addrlen) == 0) {
        SSL_CTX* ctx = SSL_CTX_new(TLS_client_method());
        SSL* ssl = ctx ? SSL_new(ctx) : nullptr;
        if (ssl) {
            SSL_set_fd(ssl, fd);
            tls = SSL_connect(ssl) == 1;
            if (tls)
                SSL_shutdown(ssl);
            SSL_free(ssl);
        }
        SSL_CTX_free(ctx);
        ERR_clear_error();
    }
    if (fd >= 0)
        ::close(fd);
    ::freeaddrinfo(found);
    return tls;
}

// Why the network or libmosquitto failed: errno's text when there is one.
QString why(int rc, int error)
{
    if (rc == MOSQ_ERR_ERRNO || error != 0)
        return QString::fromUtf8(std::strerror(error));
    if (rc == MOSQ_ERR_CONN_LOST)
        return QStringLiteral("closed by the broker");
    QString text = QString::fromUtf8(mosquitto_strerror(rc));
    if (text.endsWith(QLatin1Char('.')))
        text.chop(1);
    return text;
}

bool isAddress(const QByteArray& host)
{
    unsigned char buffer[sizeof(in6_addr)];
    return ::inet_pton(AF_INET, host.constData(), buffer) == 1 ||
           ::inet_pton(AF_INET6, host.constData(), buffer) == 1;
}

} // namespace

// The SSL context given to libmosquitto: OpenSSL checks the chain and the host name, and its
// callbacks keep what each handshake showed, which libmosquitto does not pass on.
struct MqttClient::Tls
{
    SSL_CTX* ctx = nullptr;
    // The current attempt, written in OpenSSL's callbacks, in the network thread.
    long verifyError = X509_V_OK;
    bool serverSpoke = false; // a TLS handshake message came from the broker
    unsigned long error = 0;  // OpenSSL's error when the handshake failed

    ~Tls() { SSL_CTX_free(ctx); }
    void reset()
    {
        verifyError = X509_V_OK;
        serverSpoke = false;
        error = 0;
    }
    static Tls* of(const SSL* ssl) { return static_cast<Tls*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl))); }

    static int onVerify(int ok, X509_STORE_CTX* store)
    {
        const auto* ssl =
            static_cast<const SSL*>(X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
        Tls* tls = of(ssl);
        if (!ok && tls->verifyError == X509_V_OK)
            tls->verifyError = X509_STORE_CTX_get_error(store);
        return ok;
    }
    static void onInfo(const SSL* ssl, int where, int ret)
    {
        // ret -1 is a handshake waiting for the network; a failure leaves its error queued.
        if ((where & SSL_CB_CONNECT_EXIT) && ret <= 0 && ERR_peek_error() != 0 && of(ssl)->error == 0)
            of(ssl)->error = ERR_peek_error();
    }
    static void onMessage(int write, int, int type, const void*, size_t, SSL* ssl, void*)
    {
        if (!write && type == SSL3_RT_HANDSHAKE)
            of(ssl)->serverSpoke = true;
    }
};

// How one connection attempt ended.
struct MqttClient::Attempt
{
    QString reason;
    bool final = false;
};

MqttClient::MqttClient(const Options& options, QObject* parent) : QObject(parent), options_(options)
{
    mosquitto_lib_init();
}

MqttClient::~MqttClient()
{
    stop();
    if (mosq_)
        mosquitto_destroy(mosq_);
    tls_.reset();
    mosquitto_lib_cleanup();
}

QString MqttClient::checkOptions(const Options& options)
{
    if (!options.url.tls && !options.caFile.isEmpty())
        return QStringLiteral("--mqtt-ca needs an mqtts:// URL");
    if (!options.url.tls && options.insecure)
        return QStringLiteral("--mqtt-insecure needs an mqtts:// URL");
    if (!options.caFile.isEmpty() && !QFileInfo(options.caFile).isReadable())
        return QStringLiteral("cannot read the CA file %1").arg(options.caFile);
    if (options.user.isEmpty() && !options.password.isEmpty())
        return QStringLiteral("a password without a user name");
    return {};
}

void MqttClient::check(int rc, const QString& what) const
{
    if (rc != MOSQ_ERR_SUCCESS)
        throw MRL::Utils::Exception(
            QStringLiteral("MQTT: %1 (%2)").arg(what, QString::fromUtf8(mosquitto_strerror(rc))), 2);
}

void MqttClient::start()
{
    const QString problem = checkOptions(options_);
    if (!problem.isEmpty())
        throw MRL::Utils::Exception(QStringLiteral("MQTT: %1").arg(problem), 2);
    mosq_ = mosquitto_new(options_.clientId.toUtf8().constData(), true, this);
    if (!mosq_)
        throw MRL::Utils::Exception(QStringLiteral("MQTT: cannot create the client"), 2);
    mosquitto_int_option(mosq_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
    mosquitto_connect_callback_set(mosq_, &MqttClient::onConnect);
    mosquitto_publish_callback_set(mosq_, &MqttClient::onPublish);
    mosquitto_max_inflight_messages_set(mosq_, 0); // the caller bounds what is in flight
    // Our thread runs the loop; publish() from this one only queues and wakes it.
    check(mosquitto_threaded_set(mosq_, true), QStringLiteral("cannot set up threads"));
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
        tls_ = std::make_unique<Tls>();
        tls_->ctx = SSL_CTX_new(TLS_client_method());
        if (!tls_->ctx)
            throw MRL::Utils::Exception(QStringLiteral("MQTT: cannot set up TLS"), 2);
        SSL_CTX_set_app_data(tls_->ctx, tls_.get());
        SSL_CTX_set_min_proto_version(tls_->ctx, TLS1_2_VERSION);
        SSL_CTX_set_info_callback(tls_->ctx, &Tls::onInfo);
        SSL_CTX_set_msg_callback(tls_->ctx, &Tls::onMessage);
        if (options_.insecure) {
            SSL_CTX_set_verify(tls_->ctx, SSL_VERIFY_NONE, nullptr);
        } else {
            const QByteArray ca = options_.caFile.toLocal8Bit();
            if (SSL_CTX_load_verify_locations(tls_->ctx, ca.isEmpty() ? nullptr : ca.constData(),
                                              ca.isEmpty() ? kSystemCerts : nullptr) != 1) {
                const QString why = sslReason(ERR_get_error());
                ERR_clear_error();
                throw MRL::Utils::Exception(QStringLiteral("MQTT: cannot use the certificates %1 (%2)")
                                                .arg(ca.isEmpty() ? kSystemCerts : options_.caFile, why),
                                            2);
            }
            // OpenSSL checks the name, so that a mismatch has its own verify result.
            X509_VERIFY_PARAM* param = SSL_CTX_get0_param(tls_->ctx);
            const QByteArray host = options_.url.host.toUtf8();
            if (isAddress(host))
                X509_VERIFY_PARAM_set1_ip_asc(param, host.constData());
            else
                X509_VERIFY_PARAM_set1_host(param, host.constData(), size_t(host.size()));
            SSL_CTX_set_verify(tls_->ctx, SSL_VERIFY_PEER, &Tls::onVerify);
        }
        check(mosquitto_int_option(mosq_, MOSQ_OPT_SSL_CTX_WITH_DEFAULTS, 0),
              QStringLiteral("cannot set up TLS"));
        check(mosquitto_void_option(mosq_, MOSQ_OPT_SSL_CTX, tls_->ctx), QStringLiteral("cannot set up TLS"));
    }
    stopping_ = false;
    thread_ = std::thread([this] { run(); });
}

int MqttClient::publish(const QByteArray& topic, const QByteArray& payload, bool retain)
{
    int mid = -1;
    if (!mosq_ || !online_ ||
        mosquitto_publish(mosq_, &mid, topic.constData(), int(payload.size()), payload.constData(), 1,
                          retain) != MOSQ_ERR_SUCCESS)
        return -1;
    return mid;
}

void MqttClient::stop()
{
    if (!thread_.joinable())
        return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    thread_.join();
    connected_ = false;
}

bool MqttClient::sleepFor(int ms)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return !wake_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return stopping_.load(); });
}

void MqttClient::report(const QString& reason, bool final)
{
    QMetaObject::invokeMethod(
        this,
        [this, reason, final] {
            if (reason == lastFault_)
                return;
            lastFault_ = reason;
            emit sigFault(reason, final);
        },
        Qt::QueuedConnection);
}

void MqttClient::run()
{
    int nominalMs = kFirstRetryMs;
    while (!stopping_) {
        Attempt attempt;
        if (connectOnce(attempt)) {
            refusals_ = 0;
            nominalMs = kFirstRetryMs;
            serve();
        } else if (!stopping_) {
            report(attempt.reason, attempt.final);
            refusals_ = attempt.final ? refusals_ + 1 : 0;
            if (attempt.final && options_.maxRefusals > 0 && refusals_ >= options_.maxRefusals) {
                const QString reason = attempt.reason;
                QMetaObject::invokeMethod(
                    this, [this, reason] { emit sigRefused(reason); }, Qt::QueuedConnection);
                return;
            }
        }
        if (stopping_ || !sleepFor(MqttWords::jittered(nominalMs)))
            break;
        nominalMs = std::min(nominalMs * 2, MqttWords::kMaxRetryMs);
    }
}

bool MqttClient::connectOnce(Attempt& attempt)
{
    if (tls_)
        tls_->reset();
    connack_ = -1;
    const QByteArray host = options_.url.host.toUtf8();
    errno = 0;
    int rc = mosquitto_connect_async(mosq_, host.constData(), options_.url.port, kKeepAliveSeconds);
    int error = errno;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kAnswerMs);
    while (rc == MOSQ_ERR_SUCCESS && connack_ < 0 && !stopping_) {
        if (std::chrono::steady_clock::now() > deadline) {
            attempt.reason = QStringLiteral("no answer from the broker within %1 s").arg(kAnswerMs / 1000);
            return false;
        }
        errno = 0;
        rc = mosquitto_loop(mosq_, kLoopMs, 1);
        error = errno;
    }
    if (stopping_)
        return false;
    if (connack_ == 0) {
        online_ = true;
        QMetaObject::invokeMethod(
            this,
            [this] {
                connected_ = true;
                lastFault_.clear();
                emit sigConnected();
            },
            Qt::QueuedConnection);
        return true;
    }
    if (connack_ > 0) {
        attempt.reason = MqttWords::connackReason(connack_);
        attempt.final = MqttWords::isFinalConnack(connack_);
        return false;
    }
    // No CONNACK: the network, TLS, or a broker that does not speak what we do.
    if (rc == MOSQ_ERR_EAI) {
        attempt.reason = QStringLiteral("host not found: %1 (%2)")
                             .arg(options_.url.host, QString::fromUtf8(gai_strerror(error)));
    } else if (rc == MOSQ_ERR_ERRNO && error == ECONNREFUSED) {
        attempt.reason = QStringLiteral("connection refused");
    } else if (tls_ && (rc == MOSQ_ERR_TLS || rc == MOSQ_ERR_CONN_LOST || rc == MOSQ_ERR_ERRNO)) {
        if (tls_->verifyError == X509_V_ERR_HOSTNAME_MISMATCH ||
            tls_->verifyError == X509_V_ERR_IP_ADDRESS_MISMATCH) {
            attempt.reason = QStringLiteral("host name mismatch: the broker's certificate is not for %1")
                                 .arg(options_.url.host);
            attempt.final = true;
        } else if (tls_->verifyError != X509_V_OK) {
            attempt.reason = QStringLiteral("TLS certificate not trusted: %1")
                                 .arg(QString::fromUtf8(X509_verify_cert_error_string(tls_->verifyError)));
            attempt.final = true;
        } else if (!tls_->serverSpoke) {
            attempt.reason =
                QStringLiteral("protocol mismatch: the port does not speak TLS (%1); is it an mqtt:// one?")
                    .arg(tls_->error ? sslReason(tls_->error) : why(rc, error));
        } else {
            attempt.reason = QStringLiteral("TLS handshake failed: %1")
                                 .arg(tls_->error ? sslReason(tls_->error) : why(rc, error));
        }
    } else if (rc == MOSQ_ERR_CONN_LOST || rc == MOSQ_ERR_PROTOCOL ||
               (rc == MOSQ_ERR_ERRNO && (error == ECONNRESET || error == EPIPE))) {
        // A broker hangs up on a client it cannot read; a TLS listener does so on plain MQTT.
        if (speaksTls(host, options_.url.port))
            attempt.reason = QStringLiteral("protocol mismatch: the port speaks TLS; is it an mqtts:// one?");
        else
            attempt.reason =
                QStringLiteral("the broker closed the connection before answering (%1)").arg(why(rc, error));
    } else {
        attempt.reason = QStringLiteral("cannot connect: %1").arg(why(rc, error));
    }
    return false;
}

void MqttClient::serve()
{
    while (!stopping_) {
        errno = 0;
        const int rc = mosquitto_loop(mosq_, kLoopMs, 1);
        const int error = errno;
        if (rc == MOSQ_ERR_SUCCESS)
            continue;
        online_ = false;
        const QString reason = QStringLiteral("connection lost (%1)").arg(why(rc, error));
        QMetaObject::invokeMethod(
            this,
            [this, reason] {
                connected_ = false;
                emit sigDisconnected(reason);
            },
            Qt::QueuedConnection);
        report(reason, false);
        return;
    }
    // A clean end: DISCONNECT goes after what is queued, and the broker drops the will.
    online_ = false;
    mosquitto_disconnect(mosq_);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (mosquitto_loop(mosq_, kLoopMs, 1) == MOSQ_ERR_SUCCESS &&
           std::chrono::steady_clock::now() < deadline) {
    }
}

void MqttClient::onConnect(mosquitto*, void* self, int rc)
{
    static_cast<MqttClient*>(self)->connack_ = rc;
}

void MqttClient::onPublish(mosquitto*, void* self, int mid)
{
    auto* client = static_cast<MqttClient*>(self);
    QMetaObject::invokeMethod(
        client, [client, mid] { emit client->sigAcked(mid); }, Qt::QueuedConnection);
}

} // namespace OrviaGonioManager::Stream
