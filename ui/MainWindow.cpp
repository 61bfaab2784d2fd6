#include "ui/MainWindow.h"

#include "app/Settings.h"
#include "mrl/ui/UiLogger.h"

#include <QCoreApplication>
#include <QDebug>

namespace OrviaGonioManager::Ui {

MainWindow::MainWindow(QWidget* parent) : MRL::Ui::MainWindow(parent)
{
    setWindowTitle(QStringLiteral("%1 - %2").arg(QStringLiteral("Orvia Gonio Manager"),
                                                  QCoreApplication::applicationVersion()));
    auto* logger = configureLogger(new MRL::Ui::UiLogger(this));
    logger->setMaximumNumberOfRows(1000);
    logger->setFollow(true);
    setCentralWidget(logger);
    resize(1000, 700);
    Utils::Settings::instance();
}

void MainWindow::slotLastWindowClosed() {}

void MainWindow::slotPostInit()
{
    qInfo().noquote() << "Ready!";
    logger()->messageBatchEnd();
}

} // namespace OrviaGonioManager::Ui
