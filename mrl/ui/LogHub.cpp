#include "mrl/ui/LogHub.h"

#include <QAtomicPointer>
#include <QCoreApplication>
#include <QPointer>

namespace MRL::Ui {

namespace {
QAtomicPointer<LogHub> g_hub;
QtMessageHandler g_previous = nullptr;

void handler(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    if (g_previous)
        g_previous(type, context, text);
    if (LogHub* hub = g_hub.loadAcquire()) {
        const QDateTime now = QDateTime::currentDateTime();
        emit hub->sigMessage(now, int(type), text);
        emit hub->sigCategorisedMessage(now, int(type), text, QString::fromLatin1(context.category));
    }
}
} // namespace

LogHub::LogHub()
{
    qRegisterMetaType<QDateTime>();
    g_hub.storeRelease(this);
    g_previous = qInstallMessageHandler(handler);
}

LogHub::~LogHub()
{
    g_hub.storeRelease(nullptr);
    qInstallMessageHandler(g_previous);
}

LogHub* LogHub::instance()
{
    static QPointer<LogHub> hub;
    if (!hub) {
        hub = new LogHub;
        hub->setParent(QCoreApplication::instance());
    }
    return hub;
}

} // namespace MRL::Ui
