// Main window: reconnecting to the same receiver when it comes back. Off by default, so that a
// removed receiver simply ends its session; the choice is kept in the user's own settings, apart
// from the program's settings file.
#include "ui/MainWindow.h"
#include "ui/UserSettings.h"

#include <QAction>
#include <QDebug>
#include <QSerialPortInfo>
#include <QSettings>
#include <QTimer>
#include <QToolBar>

namespace OrviaGonioManager::Ui {

namespace {

const QString kReconnectKey = QStringLiteral("reconnectAutomatically");
constexpr qint64 kReconnectWindowMs = 10 * 60 * 1000;

} // namespace

void MainWindow::setUpReconnect()
{
    // A row of its own: the receivers' row needs the window's whole width for long port labels.
    addToolBarBreak(Qt::TopToolBarArea);
    auto* toolBar = addToolBar(QStringLiteral("Session"));
    toolBar->setObjectName(QStringLiteral("sessionToolBar"));
    reconnectAction_ = toolBar->addAction(QStringLiteral("Reconnect automatically"));
    reconnectAction_->setCheckable(true);
    reconnectAction_->setToolTip(QStringLiteral(
        "Connect again to the receiver that was pulled out when it comes back within 10 minutes"));
    reconnectAction_->setChecked(userSettings().value(kReconnectKey, false).toBool());
    connect(reconnectAction_, &QAction::toggled, this,
            [](bool on) { userSettings().setValue(kReconnectKey, on); });
    setUpBearings(toolBar);
    setUpKeepMessages(toolBar);
}

// The USB serial number names a receiver wherever it is plugged in; without one, its port does.
QString MainWindow::portIdentity(const QString& portName)
{
    const QSerialPortInfo info(portName);
    if (!info.isNull() && !info.serialNumber().isEmpty())
        return QStringLiteral("serial:") + info.serialNumber();
    return portName;
}

void MainWindow::rememberLostReceiver()
{
    if (!reconnectAction_->isChecked() || connectedIdentity_.isEmpty())
        return;
    lostIdentity_ = connectedIdentity_;
    lostClock_.start();
}

// Called once the port's action exists.
void MainWindow::reconnectIfLost(const QString& portName)
{
    if (lostIdentity_.isEmpty() || !reconnectAction_->isChecked() || !connectedPort_.isEmpty())
        return;
    if (lostClock_.elapsed() > kReconnectWindowMs) {
        lostIdentity_.clear();
        return;
    }
    if (portIdentity(portName) != lostIdentity_)
        return;
    lostIdentity_.clear();
    // Not inside the port scan that reported it.
    QTimer::singleShot(0, this, [this, portName] {
        QAction* action = portActions_.value(portName);
        if (!action || !connectedPort_.isEmpty())
            return;
        action->trigger();
        if (connectedPort_ == portName)
            qInfo().noquote() << QStringLiteral("Reconnected to %1").arg(portName);
    });
}

} // namespace OrviaGonioManager::Ui
