#pragma once
// A PostgreSQL server of a test's own: initdb in a temporary directory, on 127.0.0.1 and a free
// port, trusting the local user "ogm"; stopped and removed with the object. PostgreSQL refuses to
// run as root, so as root its programs run as the "postgres" user, which owns the data directory.
#include "common/FreePort.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QTemporaryDir>

#include <pwd.h>
#include <unistd.h>

namespace TestSupport {

class PostgresServer
{
public:
    static QString binDir() { return QStringLiteral("/usr/lib/postgresql/15/bin"); }

    // Why no server can be started here, or nothing.
    static QString missing()
    {
        for (const char* program : {"initdb", "pg_ctl", "postgres"}) {
            if (!QFile::exists(binDir() + QLatin1Char('/') + QLatin1String(program)))
                return QStringLiteral("%1/%2 is missing (Debian package postgresql)")
                    .arg(binDir(), QLatin1String(program));
        }
        return {};
    }

    ~PostgresServer()
    {
        if (started_)
            run(QStringLiteral("pg_ctl"),
                {QStringLiteral("-D"), data_, QStringLiteral("-m"), QStringLiteral("immediate"),
                 QStringLiteral("-w"), QStringLiteral("stop")});
    }

    // moreOptions: server settings after the test's own, e.g. "-c fsync=on" for a benchmark.
    bool start(QString* error, const QString& moreOptions = {})
    {
        if (!dir_.isValid()) {
            *error = QStringLiteral("no temporary directory");
            return false;
        }
        data_ = dir_.filePath(QStringLiteral("pg"));
        QDir().mkpath(data_);
        if (::geteuid() == 0) {
            const passwd* user = ::getpwnam("postgres");
            if (!user) {
                *error =
                    QStringLiteral("running as root and there is no user \"postgres\" to run PostgreSQL");
                return false;
            }
            QFile::setPermissions(dir_.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner |
                                                   QFile::ExeGroup | QFile::ExeOther);
            if (::chown(QFile::encodeName(data_).constData(), user->pw_uid, user->pw_gid) != 0) {
                *error = QStringLiteral("cannot give %1 to the user postgres").arg(data_);
                return false;
            }
        }
        port_ = freePort();
        const QString log = data_ + QStringLiteral("/server.log");
        if (!run(QStringLiteral("initdb"),
                 {QStringLiteral("-D"), data_, QStringLiteral("-U"), QStringLiteral("ogm"),
                  QStringLiteral("-A"), QStringLiteral("trust"), QStringLiteral("-E"), QStringLiteral("UTF8"),
                  QStringLiteral("--no-sync")},
                 error))
            return false;
        const QString options = QStringLiteral("-c listen_addresses=127.0.0.1 -p %1 -k %2 -c fsync=off %3")
                                    .arg(port_)
                                    .arg(data_, moreOptions);
        started_ = run(QStringLiteral("pg_ctl"),
                       {QStringLiteral("-D"), data_, QStringLiteral("-l"), log, QStringLiteral("-o"), options,
                        QStringLiteral("-w"), QStringLiteral("start")},
                       error);
        return started_;
    }

    QString url(const QString& database) const
    {
        return QStringLiteral("postgresql://ogm@127.0.0.1:%1/%2").arg(port_).arg(database);
    }
    int port() const { return port_; }

    bool createDatabase(const QString& name, QString* error)
    {
        bool ok = false;
        {
            QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QPSQL"), QStringLiteral("pg-admin"));
            db.setHostName(QStringLiteral("127.0.0.1"));
            db.setPort(port_);
            db.setUserName(QStringLiteral("ogm"));
            db.setDatabaseName(QStringLiteral("postgres"));
            if (!db.open()) {
                *error = db.lastError().text();
            } else {
                QSqlQuery q(db);
                ok = q.exec(QStringLiteral("CREATE DATABASE %1").arg(name));
                if (!ok)
                    *error = q.lastError().text();
            }
        }
        QSqlDatabase::removeDatabase(QStringLiteral("pg-admin"));
        return ok;
    }

private:
    bool run(const QString& program, QStringList arguments, QString* error = nullptr)
    {
        QProcess p;
        QString path = binDir() + QLatin1Char('/') + program;
        if (::geteuid() == 0) {
            arguments.prepend(path);
            arguments = QStringList{QStringLiteral("-u"), QStringLiteral("postgres"), QStringLiteral("--")} +
                        arguments;
            path = QStringLiteral("runuser");
        }
        p.setWorkingDirectory(dir_.path());
        p.start(path, arguments);
        const bool ok =
            p.waitForFinished(60000) && p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0;
        if (!ok && error)
            *error = QStringLiteral("%1 failed: %2%3")
                         .arg(program, QString::fromLocal8Bit(p.readAllStandardError()), p.errorString());
        return ok;
    }

    QTemporaryDir dir_;
    QString data_;
    int port_ = 0;
    bool started_ = false;
};

} // namespace TestSupport
