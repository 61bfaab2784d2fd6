#include "ui/TerminalLog.h"
#include "ui/UserSettings.h"

#include "mrl/ui/LogHub.h"
#include "mrl/ui/UiLogger.h"

#include <QAction>
#include <QClipboard>
#include <QGuiApplication>
#include <QMenu>
#include <QSet>
#include <QSettings>

#include <algorithm>
#include <limits>

namespace OrviaGonioManager::Ui {

namespace {

const QString kHideKey = QStringLiteral("terminal/hideKeepAliveLines");

} // namespace

TerminalLog::TerminalLog(MRL::Ui::UiLogger* view, const QString& hiddenCategory, QObject* parent)
    : QObject(parent), view_(view), hiddenCategory_(hiddenCategory), menu_(new QMenu(view))
{
    hide_ = menu_->addAction(QStringLiteral("Hide keep-alive lines"));
    hide_->setCheckable(true);
    hide_->setChecked(userSettings().value(kHideKey, false).toBool());
    pause_ = menu_->addAction(QStringLiteral("Pause"));
    pause_->setCheckable(true);
    clear_ = menu_->addAction(QStringLiteral("Clear"));
    copy_ = menu_->addAction(QStringLiteral("Copy"));
    connect(hide_, &QAction::toggled, this, [this](bool hidden) {
        userSettings().setValue(kHideKey, hidden);
        rebuild();
    });
    connect(pause_, &QAction::toggled, this, &TerminalLog::setPaused);
    connect(clear_, &QAction::triggered, this, &TerminalLog::clear);
    connect(copy_, &QAction::triggered, this, &TerminalLog::copy);

    view->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(view, &QWidget::customContextMenuRequested, menu_,
            [this](const QPoint& pos) { menu_->popup(view_->viewport()->mapToGlobal(pos)); });

    // Every line passes here first, so that it can be held, hidden and shown again.
    MRL::Ui::LogHub* hub = MRL::Ui::LogHub::instance();
    disconnect(hub, &MRL::Ui::LogHub::sigMessage, view, &MRL::Ui::UiLogger::slotAppendMessage);
    connect(hub, &MRL::Ui::LogHub::sigCategorisedMessage, this, &TerminalLog::append);
}

void TerminalLog::append(QDateTime time, int type, QString text, QString category)
{
    if (!view_)
        return;
    Line line{nextSeq_++, std::move(time), type, std::move(text), category == hiddenCategory_};
    std::deque<Line>& kept = line.hideable ? hideableLines_ : lines_;
    kept.push_back(line);
    while (kept.size() > size_t(view_->maximumNumberOfRows()))
        kept.pop_front();
    if (!pause_->isChecked() && shows(line))
        show(line);
}

void TerminalLog::setPaused(bool paused)
{
    if (paused) {
        heldFrom_ = nextSeq_;
        return;
    }
    showRange(heldFrom_, std::numeric_limits<quint64>::max());
}

// Held lines go too: they came before the click.
void TerminalLog::clear()
{
    lines_.clear();
    hideableLines_.clear();
    view_->setRowCount(0);
}

void TerminalLog::copy()
{
    QGuiApplication::clipboard()->setText(copyText());
}

QString TerminalLog::copyText() const
{
    QSet<int> selected;
    for (const QModelIndex& index : view_->selectionModel()->selectedIndexes())
        selected.insert(index.row());
    QString text;
    for (int row = 0; row < view_->rowCount(); ++row) {
        if (!selected.isEmpty() && !selected.contains(row))
            continue;
        QStringList cells;
        for (int column = 0; column < view_->columnCount(); ++column) {
            const QTableWidgetItem* item = view_->item(row, column);
            cells << (item ? item->text() : QString());
        }
        text += cells.join(QLatin1Char('\t')) + QLatin1Char('\n');
    }
    return text;
}

bool TerminalLog::shows(const Line& line) const
{
    return !(hide_->isChecked() && line.hideable);
}

void TerminalLog::show(const Line& line)
{
    view_->slotAppendMessage(line.time, line.type, line.text);
}

void TerminalLog::showRange(quint64 from, quint64 until)
{
    const auto after = [](const std::deque<Line>& lines, quint64 seq) {
        return std::lower_bound(lines.begin(), lines.end(), seq,
                                [](const Line& line, quint64 s) { return line.seq < s; });
    };
    auto a = after(lines_, from);
    auto b = after(hideableLines_, from);
    const bool follow = view_->follow();
    view_->setFollow(false); // once at the end, not per line
    view_->setUpdatesEnabled(false);
    for (;;) {
        const bool takeA = a != lines_.end() && (b == hideableLines_.end() || a->seq < b->seq);
        const bool takeB = !takeA && b != hideableLines_.end();
        if (!takeA && !takeB)
            break;
        const Line& line = takeA ? *a++ : *b++;
        if (line.seq >= until)
            break;
        if (shows(line))
            show(line);
    }
    view_->setUpdatesEnabled(true);
    view_->setFollow(follow);
    view_->messageBatchEnd();
}

void TerminalLog::rebuild()
{
    view_->setRowCount(0);
    showRange(0, pause_->isChecked() ? heldFrom_ : std::numeric_limits<quint64>::max());
}

} // namespace OrviaGonioManager::Ui
