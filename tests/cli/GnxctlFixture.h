#pragma once

// gnxctl run as a user runs it, against the emulator over a pseudo-terminal: the emulator, the
// program's runs and what they printed, parsed back.
#include "sim/PtySimulator.h"
#include "sim/Scenario.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

#include <functional>
#include <memory>

struct Run
{
    int code = -1;
    QByteArray out, err;
};

inline QJsonObject jsonObject(const QByteArray& text)
{
    return QJsonDocument::fromJson(text).object();
}

inline QList<QJsonObject> jsonLines(const QByteArray& text)
{
    QList<QJsonObject> objects;
    for (const QByteArray& line : text.split('\n'))
        if (!line.isEmpty())
            objects << jsonObject(line);
    return objects;
}

inline int lineCount(const QByteArray& text)
{
    return int(text.count('\n'));
}

inline QByteArray readFile(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

inline bool writeFile(const QString& path, const QByteArray& data)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly) && f.write(data) == data.size();
}

class GnxctlFixture
{
protected:
    QTemporaryDir dir_;
    std::unique_ptr<gnxsim::PtySimulator> sim_;
    std::shared_ptr<const gnxsim::Scenario> scenario_; // the drive the emulator makes, if any
    QStringList slots_;                                // the favourites before the command

    QString port() const { return dir_.filePath("gnx"); }

    QStringList slotsNow() const
    {
        QStringList s;
        for (int i = 0; i < 8; ++i)
            s << sim_->platformSlot(i).join(',');
        return s;
    }

    bool startSim(const QString& model, int liveMs = 0, bool bootloader = false, int records = 40,
                  int baud = 0, std::shared_ptr<const gnxsim::Scenario> scenario = {})
    {
        gnxsim::Options o;
        o.model = model == "gnx134" ? gnxsim::Model::Gnx134 : gnxsim::Model::Gnx234;
        o.mode = bootloader ? gnxsim::Mode::Bl : gnxsim::Mode::App;
        o.platforms = 4;
        o.flashRecords = records;
        o.liveIntervalMs = liveMs;
        o.linkPath = port();
        o.seed = 7;
        o.baud = baud;
        o.scenario = scenario;
        sim_ = std::make_unique<gnxsim::PtySimulator>(o);
        return sim_->start();
    }

    // Runs gnxctl (or program); watch sees each chunk of standard error (or none) and all the output
    // so far; standard input is the file input, when named.
    Run run(const QStringList& args, const QString& extraPorts = {}, const QString& program = GNXCTL_PATH,
            const std::function<void(const QByteArray&, const QByteArray&)>& watch = {},
            const QString& input = {})
    {
        QProcess p;
        if (!input.isEmpty())
            p.setStandardInputFile(input);
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("GNX_EXTRA_PORTS", extraPorts);
        p.setProcessEnvironment(env);
        Run r;
        QObject::connect(&p, &QProcess::readyReadStandardError, &p, [&] {
            const QByteArray chunk = p.readAllStandardError();
            r.err += chunk;
            if (watch)
                watch(chunk, r.out);
        });
        QObject::connect(&p, &QProcess::readyReadStandardOutput, &p, [&] {
            r.out += p.readAllStandardOutput();
            if (watch)
                watch({}, r.out);
        });
        p.start(program, args);
        if (!p.waitForFinished(60000))
            p.kill();
        r.out += p.readAllStandardOutput();
        r.err += p.readAllStandardError();
        r.code = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
        return r;
    }

    QStringList withPort(const QString& args) const
    {
        return QStringList{"--port", port()} + args.split(' ', Qt::SkipEmptyParts);
    }
};
