#pragma once
// A real mosquitto on 127.0.0.1 and a free port, with a configuration written here, and TLS
// listeners on demand with certificates made here by openssl; and a mosquitto_sub that collects
// what it receives, one "topic payload" a line.
#include "common/FreePort.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>

#include <pwd.h>
#include <unistd.h>

namespace TestSupport {

class Broker
{
public:
    // With a user, the broker takes that user and password only.
    explicit Broker(const QString& user = {}, const QString& password = {}) : port_(freePort())
    {
        QString conf = QStringLiteral("listener %1 127.0.0.1\npersistence true\npersistence_location %2/\n"
                                      "log_dest stderr\nuser %3\n")
                           .arg(port_)
                           .arg(dir_.path(), QString::fromLocal8Bit(::getpwuid(::getuid())->pw_name));
        if (user.isEmpty()) {
            conf += QStringLiteral("allow_anonymous true\n");
        } else {
            const QString passwords = dir_.filePath(QStringLiteral("passwords"));
            QFile(passwords).open(QIODevice::WriteOnly);
            QProcess::execute(QStringLiteral("mosquitto_passwd"),
                              {QStringLiteral("-b"), passwords, user, password});
            conf += QStringLiteral("allow_anonymous false\npassword_file %1\n").arg(passwords);
        }
        conf_ = conf;
    }
    ~Broker() { stop(); }

    int port() const { return port_; }
    QString url(const QString& prefix = QStringLiteral("test")) const
    {
        return QStringLiteral("mqtt://127.0.0.1:%1/%2").arg(port_).arg(prefix);
    }

    // More configuration lines, e.g. "max_queued_messages 0\n". Before start().
    void configure(const QString& lines) { conf_ += lines; }
    // Another listener, TLS with this certificate and key; its port. Before start().
    int addTlsListener(const QString& cert, const QString& key)
    {
        const int port = freePort();
        conf_ += QStringLiteral("listener %1 127.0.0.1\ncertfile %2\nkeyfile %3\n").arg(port).arg(cert, key);
        return port;
    }

    // Returns once the broker listens.
    bool start()
    {
        QFile file(dir_.filePath(QStringLiteral("mosquitto.conf")));
        file.open(QIODevice::WriteOnly);
        file.write(conf_.toUtf8());
        file.close();
        process_.setProcessChannelMode(QProcess::MergedChannels);
        process_.start(QStringLiteral("mosquitto"),
                       {QStringLiteral("-c"), dir_.filePath(QStringLiteral("mosquitto.conf"))});
        QByteArray log;
        while (process_.waitForReadyRead(10000)) {
            log += process_.readAll();
            if (log.contains(" running"))
                return true;
        }
        qWarning("mosquitto did not start: %s", log.constData());
        return false;
    }
    // A clean stop: the broker saves its sessions and their queued messages.
    void stop()
    {
        if (process_.state() == QProcess::NotRunning)
            return;
        process_.terminate();
        process_.waitForFinished(10000);
    }

private:
    QTemporaryDir dir_;
    int port_;
    QString conf_;
    QProcess process_;
};

// A CA and what it signs, made by openssl in a directory of their own: file(name) is
// <name>.crt, key(name) <name>.key.
class Certificates
{
public:
    QString file(const QString& name) const { return dir_.filePath(name + QStringLiteral(".crt")); }
    QString key(const QString& name) const { return dir_.filePath(name + QStringLiteral(".key")); }

    // A self-signed CA.
    bool makeCa(const QString& name)
    {
        return openssl({QStringLiteral("req"), QStringLiteral("-x509"), QStringLiteral("-newkey"),
                        QStringLiteral("ec"), QStringLiteral("-pkeyopt"),
                        QStringLiteral("ec_paramgen_curve:P-256"), QStringLiteral("-nodes"),
                        QStringLiteral("-keyout"), key(name), QStringLiteral("-out"), file(name),
                        QStringLiteral("-days"), QStringLiteral("2"), QStringLiteral("-subj"),
                        QStringLiteral("/CN=") + name});
    }
    // A server certificate for subjectAltName (e.g. "IP:127.0.0.1", "DNS:localhost"), signed by ca.
    bool makeServer(const QString& name, const QString& ca, const QString& subjectAltName)
    {
        const QString csr = dir_.filePath(name + QStringLiteral(".csr"));
        const QString ext = dir_.filePath(name + QStringLiteral(".ext"));
        QFile extFile(ext);
        if (!extFile.open(QIODevice::WriteOnly))
            return false;
        extFile.write(QStringLiteral("subjectAltName=%1\n").arg(subjectAltName).toUtf8());
        extFile.close();
        return openssl({QStringLiteral("req"), QStringLiteral("-newkey"), QStringLiteral("ec"),
                        QStringLiteral("-pkeyopt"), QStringLiteral("ec_paramgen_curve:P-256"),
                        QStringLiteral("-nodes"), QStringLiteral("-keyout"), key(name),
                        QStringLiteral("-out"), csr, QStringLiteral("-subj"),
                        QStringLiteral("/CN=") + name}) &&
               openssl({QStringLiteral("x509"), QStringLiteral("-req"), QStringLiteral("-in"), csr,
                        QStringLiteral("-CA"), file(ca), QStringLiteral("-CAkey"), key(ca),
                        QStringLiteral("-CAcreateserial"), QStringLiteral("-out"), file(name),
                        QStringLiteral("-days"), QStringLiteral("2"), QStringLiteral("-extfile"), ext});
    }

private:
    bool openssl(const QStringList& args)
    {
        QProcess p;
        p.setWorkingDirectory(dir_.path());
        p.setProcessChannelMode(QProcess::MergedChannels);
        p.start(QStringLiteral("openssl"), args);
        if (p.waitForFinished(30000) && p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0)
            return true;
        qWarning("openssl %s: %s", qPrintable(args.join(QLatin1Char(' '))), p.readAll().constData());
        return false;
    }

    QTemporaryDir dir_;
};

// mosquitto_sub, which ends when its broker does; start() again after a broker restart (with
// "-c -i ID", the broker kept its messages meanwhile).
class Subscriber
{
public:
    Subscriber(int port, const QString& topic, const QStringList& extra = {})
        : port_(port), args_(QStringList{QStringLiteral("-p"), QString::number(port), QStringLiteral("-t"),
                                         topic, QStringLiteral("-t"), QStringLiteral("ready"),
                                         QStringLiteral("-q"), QStringLiteral("1"), QStringLiteral("-v")} +
                             extra)
    {
        start();
    }
    void start()
    {
        lines();
        if (process_.state() != QProcess::NotRunning) {
            process_.kill(); // its session, kept by the broker, holds what comes meanwhile
            process_.waitForFinished();
            lines();
        }
        process_.start(QStringLiteral("mosquitto_sub"), args_);
        process_.waitForStarted();
        // Subscribed once a message of its own comes back.
        const qsizetype seen = buffer_.count("ready x");
        for (int tries = 0; tries < 50 && buffer_.count("ready x") == seen; ++tries) {
            QProcess::execute(QStringLiteral("mosquitto_pub"),
                              {QStringLiteral("-p"), QString::number(port_), QStringLiteral("-t"),
                               QStringLiteral("ready"), QStringLiteral("-m"), QStringLiteral("x")});
            process_.waitForReadyRead(200);
            lines();
        }
    }
    ~Subscriber()
    {
        process_.kill();
        process_.waitForFinished();
    }
    // Every line so far.
    QList<QByteArray> lines()
    {
        if (process_.isOpen())
            buffer_ += process_.readAllStandardOutput();
        QList<QByteArray> all = buffer_.split('\n');
        all.removeLast(); // the part of a line still coming
        return all;
    }
    QProcess& process() { return process_; }

private:
    int port_;
    QStringList args_;
    QProcess process_;
    QByteArray buffer_;
};

} // namespace TestSupport
