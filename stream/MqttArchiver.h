#pragma once

#include "store/MessageStore.h"
#include "stream/MqttSubscriber.h"

#include <QHash>
#include <QObject>
#include <QTimer>

#include <memory>
#include <vector>

namespace OrviaGonioManager::Stream {

// Keeps what the stations publish in a message store, each message once: it subscribes to
// <prefix>/+/rx and <prefix>/+/status at QoS 1 in a persistent session, commits what has come in
// together (one transaction a receiver), and acknowledges those messages only then. A message
// received again (after a crash, a reconnection) has a (receiver, seq) already kept and adds
// nothing. Used in the thread that made it, which is also the store's.
class MqttArchiver : public QObject
{
    Q_OBJECT

public:
    struct Options
    {
        MqttSubscriber::Options mqtt; // topics and will are set here
        QString storeUrl;
        int maxBatch = 500; // messages a commit at most
        qint64 count = 0;   // sigDone after that many rx messages; 0: never
    };

    struct Counts
    {
        qint64 stored = 0;     // rx messages new to the store
        qint64 duplicates = 0; // rx messages it had already
        qint64 rejected = 0;   // rx or status messages that could not be read
        qint64 statuses = 0;
        qint64 gaps = 0;    // jumps in a receiver's seq within one boot
        qint64 missing = 0; // the seqs those jumps skipped
    };

    explicit MqttArchiver(const Options& options, QObject* parent = nullptr);
    ~MqttArchiver() override;

    // Opens the store; false with error when it cannot be used. Then connects to the broker.
    bool start(QString* error);
    // Commits what has come in, then says goodbye: the retained status "offline", or "failed"
    // with the reason.
    void stop(const QString& failure = {});

    const Counts& counts() const { return counts_; }
    bool isConnected() const { return subscriber_ && subscriber_->isConnected(); }
    // One line for the service's status: connected or not, and the counts.
    QString summary() const;
    // Where the archiver publishes its own status: <prefix>/archiver/<client id>/status, which
    // the stations' <prefix>/+/status does not match.
    static QByteArray statusTopic(const QString& prefix, const QString& clientId);

signals:
    // Something to say on the log: a gap, a message rejected, the broker's state.
    void sigSay(const QString& text);
    // The store refused a commit: the messages stay unacknowledged in the broker.
    void sigStoreFailed(const QString& reason);
    // The broker refused the archiver for good (see MqttSubscriber::sigRefused).
    void sigRefused(const QString& reason);
    void sigChanged();
    // Options::count rx messages are kept.
    void sigDone();

private:
    struct Pending;

    void onMessage(const QByteArray& topic, const QByteArray& payload, quint16 packetId, quint64 connection);
    // Reads one message into pending_ (or counts it as rejected); false when it cannot be read.
    bool read(const QByteArray& topic, const QByteArray& payload, Pending& p);
    void noteSeq(const QString& serial, const QString& boot, const QString& station, qint64 seq);
    bool commit();
    void publishStatus(const QString& state, const QString& reason = {});
    QByteArray statusPayload(const QString& state, const QString& reason) const;

    Options options_;
    std::unique_ptr<Store::MessageStore> store_;
    std::unique_ptr<MqttSubscriber> subscriber_;
    std::vector<Pending> pending_;
    QTimer commitSoon_;
    QTimer statusTimer_;
    bool statusDirty_ = false;
    bool failed_ = false;
    Counts counts_;
    qint64 handled_ = 0; // rx messages committed or rejected
    struct Last
    {
        QString boot;
        qint64 seq = 0;
    };
    QHash<QString, Last> last_; // a receiver's newest boot and seq seen
    QString lastGap_;
    QString fault_;      // the broker's, while not connected
    QString storeError_; // the commit that failed
};

} // namespace OrviaGonioManager::Stream
