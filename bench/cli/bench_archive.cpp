// gnxctl archive: messages a second from a local mosquitto into SQLite and into PostgreSQL (its
// server with fsync on, so that a commit is on disk). Two cases per engine:
// - backlog: BENCH_ARCHIVE_COUNT messages (default 50,000) wait in the broker, then the archiver
//   starts and keeps them all; timed from its start to its end (--count);
// - live: the archiver runs while mosquitto_pub sends them; timed from the first message sent
//   to the last one kept.
// The broker's max_inflight_messages (BENCH_ARCHIVE_INFLIGHT, default 20 as mosquitto's) bounds
// how many messages one commit can take.
#include "common/Broker.h"
#include "common/PostgresServer.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

#include <cstdio>

namespace {

QByteArray lines(int count)
{
    QJsonObject o =
        QJsonDocument::fromJson(
            R"({"band":0,"boot":"1b9556ab7e8e7a44","direction":320,"extraCode":2,"flagBit0":true,)"
            R"("flagBit1":true,"flagBit2":false,"frequency":401633700,"gnxDirection":255,)"
            R"("gnxLatitude":43.59,"gnxLongitude":1.23,"label":"Float 02","level":-119,"mjd":61368,)"
            R"("origin":"live","payload":"28A686001B492D","payloadLatitude":44.40116666666667,)"
            R"("payloadLongitude":0.23283333333333334,"period":170,"platform":"33BBA",)"
            R"("platformId":"33BBA","platformIndex":1,"station":"hill-3","v1FlashValue":0})")
            .object();
    QByteArray all;
    for (int seq = 1; seq <= count; ++seq) {
        o["seq"] = seq;
        o["secondsOfDay"] = seq % 86400;
        all += QJsonDocument(o).toJson(QJsonDocument::Compact) + '\n';
    }
    return all;
}

bool run(const QString& program, const QStringList& args, const QByteArray& input = {})
{
    QProcess p;
    p.setProcessChannelMode(QProcess::ForwardedChannels);
    p.start(program, args);
    p.write(input);
    p.closeWriteChannel();
    return p.waitForFinished(-1) && p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0;
}

struct Figures
{
    double backlog = 0;
    double live = 0;
};

Figures measure(const QString& db, int count, int inflight, const QString& id)
{
    Figures f;
    const QByteArray messages = lines(count);
    TestSupport::Broker broker;
    broker.configure(QStringLiteral("max_queued_messages 0\nmax_inflight_messages %1\n").arg(inflight));
    if (!broker.start())
        return f;
    const QStringList pub{"-p", QString::number(broker.port()), "-q", "1", "-t", "bench/0099-429/rx", "-l"};
    const QStringList archive{"archive", "--mqtt", broker.url("bench"), "--db", db, "--client-id", id, "-q"};

    // The session first, so that the broker keeps what comes before the archiver.
    run("mosquitto_sub",
        {"-p", QString::number(broker.port()), "-c", "-i", id, "-q", "1", "-t", "bench/+/rx", "-E"});
    run("mosquitto_pub", pub, messages);
    QElapsedTimer clock;
    clock.start();
    if (!run(GNXCTL_PATH, archive + QStringList{"--count", QString::number(count)}))
        return f;
    f.backlog = count / (clock.nsecsElapsed() / 1e9);

    // Live: new rows, under a second receiver's topic.
    QStringList livePub = pub;
    livePub[5] = "bench/0102-017/rx";
    QProcess archiver;
    archiver.setProcessChannelMode(QProcess::ForwardedChannels);
    archiver.start(GNXCTL_PATH, archive + QStringList{"--count", QString::number(count)});
    archiver.waitForStarted();
    clock.restart();
    run("mosquitto_pub", livePub, messages);
    if (!archiver.waitForFinished(-1) || archiver.exitCode() != 0)
        return f;
    f.live = count / (clock.nsecsElapsed() / 1e9);
    return f;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int count = qEnvironmentVariableIsSet("BENCH_ARCHIVE_COUNT")
                          ? qEnvironmentVariableIntValue("BENCH_ARCHIVE_COUNT")
                          : 50000;
    const int inflight = qEnvironmentVariableIsSet("BENCH_ARCHIVE_INFLIGHT")
                             ? qEnvironmentVariableIntValue("BENCH_ARCHIVE_INFLIGHT")
                             : 20;
    QTemporaryDir dir;
    std::printf("gnxctl archive, %d messages, broker max_inflight_messages %d\n", count, inflight);
    std::printf("%-34s %12s %12s\n", "store", "backlog/s", "live/s");
    const Figures sqlite = measure(dir.filePath("bench.sqlite"), count, inflight, "bench-sqlite");
    std::printf("%-34s %12.0f %12.0f\n", "SQLite (WAL, synchronous FULL)", sqlite.backlog, sqlite.live);
    TestSupport::PostgresServer postgres;
    QString error;
    if (!postgres.start(&error, QStringLiteral("-c fsync=on")) || !postgres.createDatabase("bench", &error)) {
        std::printf("%-34s %s\n", "PostgreSQL", qPrintable(error));
        return 0;
    }
    const Figures pg = measure(postgres.url("bench"), count, inflight, "bench-postgres");
    std::printf("%-34s %12.0f %12.0f\n", "PostgreSQL 15 (fsync on)", pg.backlog, pg.live);
    std::printf("target: 5000 a second\n");
    return 0;
}
