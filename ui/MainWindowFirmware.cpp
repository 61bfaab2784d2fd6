// Main window: switching between application and bootloader modes, firmware upload.
#include "ui/MainWindow.h"

#include "mrl/ui/Dialogs.h"
#include "mrl/utils/Exception.h"
#include "ui_MainWindow.h"
#include "utils/FirmwareFile.h"

#include <QFile>
#include <QFileInfo>
#include <QProgressBar>

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
        const Utils::FirmwareFile firmware =
            Utils::FirmwareFile::parse(file.readAll(), fileName, int(gnxLink_->version()));

        if (!MRL::Ui::Dialogs::confirm(
                this, QStringLiteral("Update firmware?"),
                QStringLiteral(
                    "Are you sure you want to update firmware to %1? This will delete ALL your data.")
                    .arg(firmware.version)))
            return;
        uploadWithProgress(firmware.records);
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
