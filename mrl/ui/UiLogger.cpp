#include "mrl/ui/UiLogger.h"

#include <QHeaderView>

namespace MRL::Ui {

UiLogger::UiLogger(QWidget* parent) : QTableWidget(0, 3, parent)
{
    setHorizontalHeaderLabels({tr("Time"), tr("Level"), tr("Message")});
    horizontalHeader()->setStretchLastSection(true);
    verticalHeader()->setVisible(false);
    verticalHeader()->setDefaultSectionSize(fontMetrics().height() + 4);
    setEditTriggers(QAbstractItemView::NoEditTriggers);
    setSelectionBehavior(QAbstractItemView::SelectRows);
    setWordWrap(false);
}

void UiLogger::setMaximumNumberOfRows(int rows)
{
    maxRows_ = qMax(1, rows);
    trim();
}

void UiLogger::messageBatchEnd()
{
    resizeColumnToContents(0);
    resizeColumnToContents(1);
    if (follow_)
        scrollToBottom();
}

QString UiLogger::levelText(int type)
{
    switch (QtMsgType(type)) {
    case QtDebugMsg:
        return QStringLiteral("Debug");
    case QtInfoMsg:
        return QStringLiteral("Info");
    case QtWarningMsg:
        return QStringLiteral("Warning");
    case QtCriticalMsg:
        return QStringLiteral("Critical");
    case QtFatalMsg:
        return QStringLiteral("Fatal");
    }
    return QString();
}

void UiLogger::slotAppendMessage(QDateTime time, int type, QString text)
{
    const int row = rowCount();
    insertRow(row);
    setItem(row, 0, new QTableWidgetItem(time.toString(QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz"))));
    setItem(row, 1, new QTableWidgetItem(levelText(type)));
    auto* item = new QTableWidgetItem(text);
    if (type == QtCriticalMsg || type == QtFatalMsg)
        item->setForeground(Qt::red);
    else if (type == QtWarningMsg)
        item->setForeground(QColor(0xb0, 0x60, 0x00));
    setItem(row, 2, item);
    trim();
    if (follow_)
        scrollToBottom();
}

void UiLogger::trim()
{
    const int excess = rowCount() - maxRows_;
    for (int i = 0; i < excess; ++i)
        removeRow(0);
}

} // namespace MRL::Ui
