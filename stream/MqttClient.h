#pragma once

#include "stream/MqttBrokerOptions.h"

#include <QObject>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

struct mosquitto;

namespace OrviaGonioManager::Stream {

// A publisher on libmosquitto. Its own network thread makes every connection attempt, so that each
// failure's cause is known: a refused or unreachable broker, an unknown host, a certificate that does
// not verify, the wrong protocol on the port, a refusal by the broker. Retries start at 0.5 s and
// double up to 5 s, with jitter. What the thread sees comes back as signals in this object's
// thread. Messages go with QoS 1: sigAcked tells when the broker has one.
class MqttClient : public QObject
{
    Q_OBJECT

public:
    using Options = MqttBrokerOptions;

    explicit MqttClient(const Options& options, QObject* parent = nullptr);
    ~MqttClient() override;

    // What is wrong with options before anything is tried (an error text), or empty.
    static QString checkOptions(const Options& options);

    // Throws MRL::Utils::Exception when the client cannot be set up (a bad CA file, say).
    void start();
    bool isConnected() const { return connected_; }
    // Final refusals in a row since the last connection.
    int refusals() const { return refusals_.load(); }
    // The message's id, or -1 when it could not be queued (not connected).
    int publish(const QByteArray& topic, const QByteArray& payload, bool retain);
    // A clean end: the broker does not send the will.
    void stop();

signals:
    void sigConnected();
    // Why the broker cannot be used, each time the reason changes (again after a connection).
    // final: a refusal that another try would only repeat (credentials, authorisation,
    // a certificate that does not verify or names another host).
    void sigFault(const QString& reason, bool final);
    // An established connection is lost (what was in flight may not have arrived).
    void sigDisconnected(const QString& reason);
    // maxRefusals final refusals in a row: the client has stopped trying.
    void sigRefused(const QString& reason);
    void sigAcked(int mid);

private:
    struct Attempt;
    struct Tls;

    void run();
    // One connection attempt: true once the broker has accepted, else attempt.reason is set.
    bool connectOnce(Attempt& attempt);
    // Runs the connection until it is lost or stop() is called.
    void serve();
    bool sleepFor(int ms); // false when stop() came meanwhile
    void report(const QString& reason, bool final);
    static void onConnect(mosquitto*, void* self, int rc);
    static void onPublish(mosquitto*, void* self, int mid);
    void check(int rc, const QString& what) const;

    Options options_;
    mosquitto* mosq_ = nullptr;
    std::unique_ptr<Tls> tls_;
    std::thread thread_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::atomic<bool> stopping_{false};
    std::atomic<bool> online_{false}; // the network thread's view
    int connack_ = -1;                // this attempt's CONNACK code, in the network thread
    bool connected_ = false;          // this object's thread's view
    std::atomic<int> refusals_{0};
    QString lastFault_;
};

} // namespace OrviaGonioManager::Stream
