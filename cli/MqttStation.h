#pragma once

#include "stream/MqttClient.h"
#include "stream/Spool.h"

#include <QJsonObject>
#include <QLockFile>
#include <QTimer>

#include <map>
#include <memory>

namespace OrviaGonioManager::Cli {

// One receiver's messages on their way to a broker: each goes to the spool first and leaves it
// once the broker has acknowledged it; the retained status tells online, no-receiver, offline (a
// clean stop), failed (stopped by a fault, with its reason) and, through the last will, lost.
class MqttStation : public QObject
{
    Q_OBJECT

public:
    struct Options
    {
        Stream::MqttClient::Options client; // the will and the client id are set here
        QString station;
        QString spoolDir; // the receiver's own spool is a folder of it, named by its serial number
        qint64 spoolMaxBytes = 512LL * 1024 * 1024;
    };

    // Opens the spool; throws CliError when it is in use or cannot be written.
    MqttStation(const Options& options, const QString& serial, const QString& boot);
    ~MqttStation() override;

    void start();
    // The receiver answers: its identification (model, mode, versions) goes in the status.
    void receiverOnline(const QJsonObject& identification);
    void receiverLost();
    // Spools one message (the JSON Lines object) and sends what the broker can take.
    void publish(QJsonObject rx);
    // Publishes "offline" (or "failed" with the reason), waits a little for the broker to take it,
    // and puts the spool on disk.
    void stop(const QString& failedReason = {});
    // The state and what waits, for the service manager.
    QString summary() const;
    static void say(const QString& text);

signals:
    // A fault that ends the station: the broker refuses it for good, or the spool cannot be used.
    void sigFailed(const QString& reason);
    void sigChanged();

private:
    void publishStatus();
    void pump();
    void acked(int mid);
    void connected();
    void disconnected(const QString& reason);
    void openSpool();
    // Runs events until done() or ms have passed.
    bool waitFor(const std::function<bool()>& done, int ms);

    Options options_;
    QString serial_;
    QString boot_;
    QByteArray rxTopic_;
    QByteArray statusTopic_;
    QLockFile lock_;
    std::unique_ptr<Stream::Spool> spool_;
    std::unique_ptr<Stream::MqttClient> client_;
    std::map<int, qint64> inflight_; // message id -> number
    std::map<qint64, bool> pending_; // sent numbers -> acknowledged
    QString state_;                  // none until the receiver first answers
    QString reason_;                 // why the station failed
    bool diskFull_ = false;          // the last message found no room on disk
    QString fault_;                  // why the broker cannot be used, until it connects
    QString lostReason_;             // how the last connection ended
    QJsonObject identification_;
    QJsonObject last_; // the last message
    qint64 published_ = 0;
    int statusMid_ = -1;
    bool statusAcked_ = false;
    QTimer refresh_;
};

} // namespace OrviaGonioManager::Cli
