#pragma once

// Shared by the link tests: an application object that survives exceptions thrown from slots
// (as the real one does), a capture of logged messages, and a settings sandbox.

#include "app/Settings.h"
#include "mrl/utils/Exception.h"

#include <QCoreApplication>
#include <QDir>
#include <QMutex>
#include <QMutexLocker>
#include <QStringList>
#include <QTemporaryDir>
#include <QTest>

namespace TestSupport {

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
            QMutexLocker lock(&mutex_);
            caught_.append(e.message());
        }
        return false;
    }

    static QStringList caught()
    {
        QMutexLocker lock(&mutex_);
        return caught_;
    }
    static void clearCaught()
    {
        QMutexLocker lock(&mutex_);
        caught_.clear();
    }

private:
    static inline QMutex mutex_;
    static inline QStringList caught_;
};

// Collects every message text of a given type while alive (thread-safe).
class MessageLog
{
public:
    MessageLog()
    {
        instance_ = this;
        previous_ = qInstallMessageHandler(&MessageLog::handler);
    }
    ~MessageLog()
    {
        qInstallMessageHandler(previous_);
        instance_ = nullptr;
    }

    QStringList messages(QtMsgType type) const
    {
        QMutexLocker lock(&mutex_);
        QStringList texts;
        for (const auto& entry : entries_) {
            if (entry.first == type)
                texts.append(entry.second);
        }
        return texts;
    }
    QStringList warnings() const { return messages(QtWarningMsg); }
    int count(QtMsgType type, const QString& text) const { return messages(type).count(text); }
    void clear()
    {
        QMutexLocker lock(&mutex_);
        entries_.clear();
    }

private:
    static void handler(QtMsgType type, const QMessageLogContext&, const QString& text)
    {
        if (!instance_)
            return;
        QMutexLocker lock(&instance_->mutex_);
        instance_->entries_.append({type, text});
    }

    static inline MessageLog* instance_ = nullptr;
    QtMessageHandler previous_ = nullptr;
    mutable QMutex mutex_;
    QList<QPair<QtMsgType, QString>> entries_;
};

// Settings load "../OrviaGonioManager.ini" on first use: run from a scratch directory so that
// no real file is read or written, then set the values the test needs.
inline OrviaGonioManager::Utils::Settings& sandboxSettings()
{
    static QTemporaryDir dir;
    static const bool moved = [] {
        QDir(dir.path()).mkdir(QStringLiteral("run"));
        return QDir::setCurrent(dir.filePath(QStringLiteral("run")));
    }();
    Q_UNUSED(moved);
    auto& s = OrviaGonioManager::Utils::Settings::instance();
    s.printUartDebugInfo = false;
    s.printAtCmdDebugInfo = false;
    s.gnxCommandTimeoutMs = 60000;
    s.keepAliveTimeoutMs = 500;
    s.keepAlivePeriodMs = 0;
    s.keepChecksumErrorOnNprGnx134 = false;
    s.nprMessagesFormat = 0;
    return s;
}

} // namespace TestSupport

// Like QTEST_GUILESS_MAIN, with the exception-recording application.
#define OGM_TEST_MAIN(TestObject)                                                                            \
    int main(int argc, char* argv[])                                                                         \
    {                                                                                                        \
        TestSupport::CatchingApplication app(argc, argv);                                                    \
        TestObject tc;                                                                                       \
        QTEST_SET_MAIN_SOURCE_PATH                                                                           \
        return QTest::qExec(&tc, argc, argv);                                                                \
    }
