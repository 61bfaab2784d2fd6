// Main window: switching between application and bootloader modes, firmware upload.
#include "ui/MainWindow.h"

#include "mrl/ui/Dialogs.h"
#include "mrl/utils/Exception.h"
#include "ui_MainWindow.h"

#include <QFile>
#include <QFileInfo>
#include <QProgressBar>
#include <QRegularExpression>

namespace OrviaGonioManager::Ui {

using MRL::Utils::Exception;

void MainWindow::slotSwitchMode()
{
    guard([&] {
        if (!MRL::Ui::Dialogs::confirm(this, QStringLiteral("Switch mode?"),
                                       QStringLiteral("Are you sure you want to switch to BL/APP mode?")))
            return;
        gnxLink_->switchMode();
        gnxDisconnected(gnxLink_->portName(), QStringLiteral("Please reconnect to GNX"), false);
    });
}

void MainWindow::slotUpdateFirmware()
{
    guard([&] {
        const QString fileName = MRL::Ui::Dialogs::instance().getOpenFileName(
            this, QStringLiteral("Select GNX firmware (VAN format)"),
            QStringLiteral("GNX firmware (*.van);;All files (*)"));
        if (fileName.isEmpty())
            return;
        QFile file(fileName);
        if (!file.open(QIODevice::ReadOnly))
            throw Exception(QStringLiteral("Unable to open GNX firmware file %1").arg(fileName), 2);
        QList<QByteArray> lines = file.readAll().split('\r');
        if (lines.size() < 2)
            throw Exception(
                QStringLiteral("Unable to read GNX firmware file %1: not enought data").arg(fileName), 2);

        static const QRegularExpression firstLine(QStringLiteral(
            "^VANTOR GONIO_V(?<gonioVersion>[0-9]+) FIRMWARE VERSION : (?<firmwareVersion>.+)$"));
        const auto match = firstLine.match(QString::fromUtf8(lines.first()).trimmed());
        if (!match.hasMatch())
            throw Exception(QStringLiteral("Unable to decode first line of file %1.").arg(fileName), 2);
        const QString gonioVersion = match.captured(QStringLiteral("gonioVersion"));
        if (gonioVersion.toUInt() != uint(gnxLink_->version()))
            throw Exception(QStringLiteral("Incompatible GNX version (%1 vs %2).")
                                .arg(gonioVersion)
                                .arg(int(gnxLink_->version())),
                            2);

        if (!MRL::Ui::Dialogs::confirm(
                this, QStringLiteral("Update firmware?"),
                QStringLiteral(
                    "Are you sure you want to update firmware to %1? This will delete ALL your data.")
                    .arg(match.captured(QStringLiteral("firmwareVersion")))))
            return;
        lines.removeFirst();
        uploadWithProgress(lines);
        gnxDisconnected(gnxLink_->portName(), QStringLiteral("Please reconnect to GNX"), false);
    });
}

void MainWindow::uploadWithProgress(const QList<QByteArray>& records)
{
    progressBar_->setRange(0, qMax(1, int(records.size())));
    progressBar_->setValue(0);
    progressBar_->setVisible(true);
    const auto progress =
        connect(gnxLink_, &Com::GnxLink::sigFirmwareProgress, progressBar_, [this](int sent, int total) {
            progressBar_->setMaximum(qMax(1, total));
            progressBar_->setValue(sent);
        });
    struct Cleanup
    {
        MainWindow* w;
        QMetaObject::Connection c;
        ~Cleanup()
        {
            QObject::disconnect(c);
            w->progressBar_->setVisible(false);
        }
    } cleanup{this, progress};
    gnxLink_->uploadFirmware(records);
}

} // namespace OrviaGonioManager::Ui
