// Main window, "Terminal" tab: typed commands and their history, the log view's menu, and
// configuration scripts.
#include "ui/MainWindow.h"

#include "com/ScriptFile.h"
#include "com/UartLink.h"
#include "mrl/ui/Dialogs.h"
#include "mrl/utils/Exception.h"
#include "ui/CommandHistory.h"
#include "ui/TerminalLog.h"
#include "ui_MainWindow.h"
#include "utils/JobProgress.h"
#include "utils/OutputFile.h"

#include <QSignalBlocker>

namespace OrviaGonioManager::Ui {

namespace {

const QString scriptCaption = QStringLiteral("Select GNX Script");
const QString scriptFilter = QStringLiteral("GNX Script Files (*.gnx *.txt);;All files (*)");

// Collects what the window issues instead of sending it, for as long as it lives: the link
// never stays in recording mode, whatever happens in between. The window's read-backs are held
// off meanwhile, since a read while recording would only add its request to the script.
class ScriptRecording
{
public:
    ScriptRecording(Com::GnxLink& link, bool& guiRefreshing)
        : link_(link), guiRefreshing_(guiRefreshing), savedRefreshing_(guiRefreshing)
    {
        guiRefreshing_ = true;
        link_.startRecording();
    }
    ~ScriptRecording()
    {
        if (link_.isRecording())
            link_.takeRecordedCommands();
        guiRefreshing_ = savedRefreshing_;
    }
    ScriptRecording(const ScriptRecording&) = delete;
    ScriptRecording& operator=(const ScriptRecording&) = delete;

    QStringList take() { return link_.takeRecordedCommands(); }

private:
    Com::GnxLink& link_;
    bool& guiRefreshing_;
    const bool savedRefreshing_;
};

// The row of the platforms table that shows this slot; -1 when the slot is free.
int platformRow(const QTableWidget& table, int index)
{
    for (int row = 0; row < table.rowCount(); ++row) {
        const QTableWidgetItem* item = table.item(row, 0);
        bool ok = false;
        if (item && item->data(Qt::DisplayRole).toString().toInt(&ok) == index && ok)
            return row;
    }
    return -1;
}

} // namespace

void MainWindow::setUpTerminal()
{
    // The link logs its own keep-alive exchange under a category of its own: a TEST typed by the
    // user is a request like any other and stays in sight.
    terminalLog_ = new TerminalLog(ui_->tableWidgetLogger,
                                   QString::fromLatin1(Com::UartLink::kKeepAliveLogCategory), this);
    commandHistory_ = new CommandHistory(ui_->lineEditTerminalCommand, this);
}

// The line leaves the edit, for the history, once the link has it (framed as a request or as
// typed); one that never left, with no usable link, stays to be sent again.
void MainWindow::slotSendManualGnxCmd()
{
    const QString command = ui_->lineEditTerminalCommand->text();
    bool handed = false;
    const auto taken = [&handed] { handed = true; };
    const QMetaObject::Connection asRequest = connect(gnxLink_, &Com::GnxLink::sigSendRequest, this, taken);
    const QMetaObject::Connection asLine = connect(gnxLink_, &Com::GnxLink::sigSendManualGnxCmd, this, taken);
    guard([&] { gnxLink_->sendManualCommand(command); });
    disconnect(asRequest);
    disconnect(asLine);
    if (!handed)
        return;
    commandHistory_->add(command);
    ui_->lineEditTerminalCommand->clear();
}

void MainWindow::slotTerminalSaveScript()
{
    guard([&] {
        const QString fileName =
            MRL::Ui::Dialogs::instance().getSaveFileName(this, scriptCaption, scriptFilter);
        if (fileName.isEmpty())
            return;
        Utils::OutputFile file;
        Com::ScriptFile::open(file, fileName);

        QStringList frames;
        {
            ScriptRecording recording(*gnxLink_, guiRefreshing_);
            slotSetSetupSoftware();
            slotSetSetupHardware();
            QTableWidget* table = ui_->tableWidgetPlatforms;
            const Utils::JobScope job(*job_, QStringLiteral("Script save"), table->rowCount(),
                                      QStringLiteral("platforms"));
            int done = 0;
            for (int index = 0; index < gnxLink_->maxPlatformsNumber(); ++index) {
                const int row = platformRow(*table, index);
                if (row < 0)
                    continue;
                {
                    // Shown once, by the explicit call below.
                    const QSignalBlocker blocker(table);
                    table->selectRow(row);
                }
                slotDisplayPlatformsInfo();
                slotSavePlatformsInfo();
                if (!job_->advance(++done))
                    return; // a script cut short is not written
            }
            frames = recording.take();
        }
        Com::ScriptFile::write(file, fileName, frames);
    });
}

void MainWindow::slotTerminalScript()
{
    guard([&] {
        const QString fileName =
            MRL::Ui::Dialogs::instance().getOpenFileName(this, scriptCaption, scriptFilter);
        if (fileName.isEmpty())
            return;
        const QStringList lines = Com::ScriptFile::readLines(fileName);
        const Utils::JobScope job(*job_, QStringLiteral("Script"), Com::ScriptFile::commandCount(lines),
                                  QStringLiteral("lines"));
        Com::ScriptFile::play(
            *gnxLink_, lines, fileName, [this](const QString& message) { showException(message); },
            [this](int sent) { return job_->advance(sent); });
    });
}

} // namespace OrviaGonioManager::Ui
