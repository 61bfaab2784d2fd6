#pragma once

// What the window tests share: a work directory the program finds its files in, emulators on
// pseudo-terminals, the main window connected to one of them, and scripted dialogs.
#include "app/Settings.h"
#include "common/RecordingDialogs.h"
#include "mrl/ui/LogHub.h"
#include "sim/PtySimulator.h"
#include "ui/MainWindow.h"
#include "ui_MainWindow.h"

#include <QAction>
#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <functional>
#include <memory>

// Records what the program logs while it lives.
struct LogCapture
{
    LogCapture()
    {
        QObject::connect(MRL::Ui::LogHub::instance(), &MRL::Ui::LogHub::sigMessage, &ctx, record);
    }
    int count(int type, const QString& text) const
    {
        int n = 0;
        for (const auto& m : messages)
            n += (m.first == type && m.second == text) ? 1 : 0;
        return n;
    }
    QObject ctx;
    QList<QPair<int, QString>> messages;
    std::function<void(QDateTime, int, QString)> record = [this](QDateTime, int type, QString text) {
        messages.append({type, text});
    };
};

// Mixed into a test object; its slots call setUpWorkDir() once, resetDialogs() before and
// tearDown() after each case.
class WindowFixture
{
protected:
    using MainWindow = OrviaGonioManager::Ui::MainWindow;
    using Sim = std::unique_ptr<gnxsim::PtySimulator>;

    QTemporaryDir workDir_;
    Sim sim_;
    Sim sim2_;
    std::unique_ptr<MainWindow> window_;
    std::unique_ptr<RecordingDialogs> dialogs_;

    ::Ui::MainWindow* ui() const { return window_->form(); }

    // Settings and the GPS formats file are found relative to the working directory.
    bool setUpWorkDir()
    {
        const QDir dir(workDir_.path());
        // The user's own preferences (QSettings) stay in the work directory too.
        qputenv("XDG_CONFIG_HOME", workDir_.filePath("config").toLocal8Bit());
        // So do the messages the window keeps.
        qputenv("XDG_DATA_HOME", workDir_.filePath("data").toLocal8Bit());
        if (!dir.mkpath("run") || !dir.mkpath("Data") || writeFile("Data/format.vtl", "0\n").isEmpty() ||
            !QDir::setCurrent(workDir_.filePath("run")))
            return false;
        auto& settings = OrviaGonioManager::Utils::Settings::instance();
        settings.keepAlivePeriodMs = 0; // the emulator's command log holds only what the window sends
        settings.gnxCommandTimeoutMs = 5000;
        return true;
    }

    void resetDialogs() { dialogs_ = std::make_unique<RecordingDialogs>(); }

    void tearDown()
    {
        window_.reset();
        sim_.reset();
        sim2_.reset();
        dialogs_.reset();
    }

    // The two generations, as a test's data.
    static void bothModels()
    {
        QTest::addColumn<QString>("model");
        QTest::newRow("gnx134") << "gnx134";
        QTest::newRow("gnx234") << "gnx234";
    }

    static gnxsim::Options simOptions(const QString& model, int platforms = 0, int flashRecords = 0)
    {
        gnxsim::Options options;
        // A serial number of its own per test program: programs run side by side keep to their
        // own session log.
        options.seed = qChecksum(QCoreApplication::applicationName().toLatin1());
        options.model = model == QLatin1String("gnx134") ? gnxsim::Model::Gnx134 : gnxsim::Model::Gnx234;
        options.platforms = platforms;
        options.flashRecords = flashRecords;
        return options;
    }

    static bool startSim(Sim& sim, const gnxsim::Options& options)
    {
        sim = std::make_unique<gnxsim::PtySimulator>(options);
        if (sim->start())
            return true;
        qWarning("emulator: %s", qPrintable(sim->errorString()));
        return false;
    }

    // The window scans the ports named here besides the real ones.
    bool showWindow(const QStringList& ports)
    {
        qputenv("GNX_EXTRA_PORTS", ports.join(':').toLocal8Bit());
        window_ = std::make_unique<MainWindow>();
        window_->show();
        for (const QString& port : ports)
            if (!QTest::qWaitFor([&] { return window_->portAction(port) != nullptr; }, 10000))
                return false;
        return true;
    }

    // Clicks the port's tool bar action, once the window has found the port.
    bool connectTo(const QString& port)
    {
        if (!QTest::qWaitFor([&] { return window_->portAction(port) != nullptr; }, 10000))
            return false;
        window_->portAction(port)->trigger();
        const QString status = ui()->lineEditVersionsStatus->text();
        if (window_->connectedPort() == port && status.startsWith("Connected at "))
            return true;
        qWarning("connected to \"%s\", status \"%s\"", qPrintable(window_->connectedPort()),
                 qPrintable(status));
        return false;
    }

    bool startAndConnect(const gnxsim::Options& options)
    {
        return startSim(sim_, options) && showWindow({sim_->slavePath()}) && connectTo(sim_->slavePath());
    }

    // Writes a file under the work directory; its path, or empty on failure.
    QString writeFile(const QString& name, const QByteArray& content) const
    {
        const QString path = workDir_.filePath(name);
        QFile f(path);
        return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(content) == content.size()
                   ? path
                   : QString();
    }

    static QByteArray readAll(const QString& path)
    {
        QFile f(path);
        f.open(QIODevice::ReadOnly);
        return f.readAll();
    }
};
