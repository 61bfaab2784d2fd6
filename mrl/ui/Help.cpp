#include "mrl/ui/Help.h"

#include "mrl/ui/Dialogs.h"

#include <QAction>
#include <QCoreApplication>
#include <QIcon>
#include <QMainWindow>
#include <QToolBar>

namespace MRL::Ui {

Help::Help(QMainWindow* window, const QString& iconResource, const QString& logoResource,
           const QString& buildDateTime)
    : QObject(window), window_(window), iconResource_(iconResource), logoResource_(logoResource),
      buildDateTime_(buildDateTime)
{}

QToolBar* Help::setupUiToolbar()
{
    auto* toolBar = new QToolBar(tr("Help"), window_);
    toolBar->setObjectName(QStringLiteral("helpToolBar"));
    auto* about = toolBar->addAction(QIcon(logoResource_), tr("About"));
    connect(about, &QAction::triggered, this, &Help::slotAbout);
    window_->addToolBar(toolBar);
    return toolBar;
}

QString Help::aboutText() const
{
    return QStringLiteral("<p><img src=\"%1\" width=48 height=48> <img src=\"%2\" width=48 height=48></p>"
                          "<h3>%3</h3><p>Version %4</p><p>Built %5</p>")
        .arg(iconResource_, logoResource_, QCoreApplication::applicationName(),
             QCoreApplication::applicationVersion(), buildDateTime_);
}

void Help::slotAbout()
{
    Dialogs::instance().about(window_, tr("About %1").arg(QCoreApplication::applicationName()), aboutText());
}

} // namespace MRL::Ui
