#pragma once

// Shared by the link tests: an application object that survives exceptions thrown from slots
// (as the real one does), a capture of logged messages, a settings sandbox, and a link to an
// emulated receiver.

#include "app/Settings.h"
#include "com/GnxLink.h"
#include "mrl/utils/Exception.h"
#include "sim/PtySimulator.h"
#include "utils/GpsFormat.h"

#include <QBuffer>
#include <QCoreApplication>
#include <QDir>
#include <QHash>
#include <QMutex>
#include <QTemporaryDir>
#include <QTest>

#include <functional>
#include <memory>

namespace TestSupport {

// Messages and exceptions come from the link threads too.
inline QMutex mutex;
template <class F> auto locked(F fn)
{
    QMutexLocker lock(&mutex);
    return fn();
}

// Exceptions escaping an event handler in any thread are recorded instead of ending the process.
class CatchingApplication : public QCoreApplication
{
public:
    using QCoreApplication::QCoreApplication;

    bool notify(QObject* receiver, QEvent* event) override
    {
        try {
            return QCoreApplication::notify(receiver, event);
        } catch (const MRL::Utils::Exception& e) {
            locked([&] { caught_.append(e.message()); });
        }
        return false;
    }
    static QStringList caught()
    {
        return locked([] { return caught_; });
    }
    static void clearCaught()
    {
        locked([] { caught_.clear(); });
    }

private:
    static inline QStringList caught_;
};

// Collects every message text, by type, while alive (one at a time).
class MessageLog
{
public:
    MessageLog() : previous_(qInstallMessageHandler(&handler))
    {
        locked([] { entries_.clear(); });
    }
    ~MessageLog() { qInstallMessageHandler(previous_); }

    QStringList messages(QtMsgType type) const
    {
        return locked([&] { return entries_.value(type); });
    }
    QStringList warnings() const { return messages(QtWarningMsg); }
    int count(QtMsgType type, const QString& text) const { return messages(type).count(text); }

private:
    static void handler(QtMsgType type, const QMessageLogContext&, const QString& text)
    {
        locked([&] { entries_[type].append(text); });
    }

    static inline QHash<int, QStringList> entries_;
    const QtMessageHandler previous_;
};

// Settings load "../OrviaGonioManager.ini" on first use: run from a scratch directory so that
// no real file is read or written, then set the values the test needs.
inline OrviaGonioManager::Utils::Settings& sandboxSettings()
{
    static QTemporaryDir dir;
    [[maybe_unused]] static const bool moved =
        QDir(dir.path()).mkdir("run") && QDir::setCurrent(dir.filePath(QStringLiteral("run")));
    auto& s = OrviaGonioManager::Utils::Settings::instance();
    s.printUartDebugInfo = s.printAtCmdDebugInfo = s.keepChecksumErrorOnNprGnx134 = false;
    s.gnxCommandTimeoutMs = 60000;
    s.keepAliveTimeoutMs = 500;
    s.keepAlivePeriodMs = s.nprMessagesFormat = 0;
    return s;
}

// The message of the exception fn throws, or "no exception".
inline QString thrown(const std::function<void()>& fn)
{
    try {
        fn();
    } catch (const MRL::Utils::Exception& e) {
        return e.message();
    }
    return QStringLiteral("no exception");
}

// Replaces the process's one collection of GPS formats by those of a formats file's text.
inline void loadGpsFormats(QByteArray text)
{
    QBuffer buffer(&text);
    buffer.open(QIODevice::ReadOnly);
    OrviaGonioManager::Utils::GpsFormat::instance()->readGpsFormats(buffer);
}

// A receiver emulated on a pseudo-terminal and a link to it, identified unless asked not to, with
// nothing received yet. The link is closed before the emulator goes.
class SimLink
{
protected:
    std::unique_ptr<gnxsim::PtySimulator> sim;
    std::unique_ptr<OrviaGonioManager::Com::GnxLink> link;

    bool startSim(gnxsim::Model model, gnxsim::Mode mode = gnxsim::Mode::App, int platforms = 0,
                  int flashRecords = 0, bool identify = true)
    {
        link.reset();
        gnxsim::Options options;
        options.model = model;
        options.mode = mode;
        options.platforms = platforms;
        options.flashRecords = flashRecords;
        sim = std::make_unique<gnxsim::PtySimulator>(options);
        if (!sim->start()) {
            qWarning("%s", qPrintable(sim->errorString()));
            return false;
        }
        link = std::make_unique<OrviaGonioManager::Com::GnxLink>();
        link->openConnection(sim->slavePath());
        if (identify)
            link->readDeviceInfo();
        sim->clearReceived();
        return true;
    }
    void stopSim()
    {
        if (link)
            link->closeConnection();
        link.reset();
        sim.reset();
    }
};

} // namespace TestSupport

// Like QTEST_GUILESS_MAIN, with the exception-recording application.
#define OGM_TEST_MAIN(TestObject)                                                                            \
    int main(int argc, char* argv[])                                                                         \
    {                                                                                                        \
        TestSupport::CatchingApplication app(argc, argv);                                                    \
        TestObject tc;                                                                                       \
        return QTest::qExec(&tc, argc, argv);                                                                \
    }
