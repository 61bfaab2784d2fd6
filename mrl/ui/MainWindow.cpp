#include "mrl/ui/MainWindow.h"

#include "mrl/ui/Dialogs.h"
#include "mrl/ui/LogHub.h"
#include "mrl/ui/UiLogger.h"
#include "mrl/utils/SlotGuard.h"

#include <QCoreApplication>
#include <QDebug>
#include <QPointer>
#include <QTimer>

namespace MRL::Ui {

MainWindow::MainWindow(QWidget* parent) : QMainWindow(parent)
{
    LogHub::instance();
    // Failures caught by guards elsewhere in the program are shown by the window too.
    QPointer<MainWindow> self(this);
    Utils::SlotGuard::setHandler([self](const QString& message) {
        if (self)
            self->showException(message);
        else
            qCritical().noquote() << message;
    });
}

MainWindow::~MainWindow()
{
    Utils::SlotGuard::setHandler({});
}

UiLogger* MainWindow::configureLogger(UiLogger* logger)
{
    logger_ = logger;
    connect(LogHub::instance(), &LogHub::sigMessage, logger, &UiLogger::slotAppendMessage);
    return logger;
}

bool MainWindow::guard(const std::function<void()>& fn)
{
    return Utils::SlotGuard::run(fn);
}

void MainWindow::showException(const QString& message)
{
    qCritical().noquote() << message;
    Dialogs::instance().critical(this, QCoreApplication::applicationName(), message);
}

void MainWindow::slotPostInit() {}

void MainWindow::showEvent(QShowEvent* event)
{
    QMainWindow::showEvent(event);
    if (!postInitDone_) {
        postInitDone_ = true;
        QTimer::singleShot(0, this, [this] { guard([this] { slotPostInit(); }); });
    }
}

} // namespace MRL::Ui
