#include "ui/CommandHistory.h"
#include "ui/UserSettings.h"

#include <QKeyEvent>
#include <QLineEdit>
#include <QSettings>

namespace OrviaGonioManager::Ui {

namespace {

const QString kHistoryKey = QStringLiteral("terminal/commandHistory");

} // namespace

CommandHistory::CommandHistory(QLineEdit* edit, QObject* parent) : QObject(parent), edit_(edit)
{
    // The file may have been edited by hand: the same rules as for commands sent.
    for (const QString& command : userSettings().value(kHistoryKey).toStringList())
        if (!command.isEmpty() && (entries_.isEmpty() || entries_.last() != command))
            entries_ << command;
    if (entries_.size() > kMaxEntries)
        entries_.remove(0, entries_.size() - kMaxEntries);
    position_ = entries_.size();
    edit_->installEventFilter(this);
    // A recalled command the user edits becomes the line being typed, so that walking on does
    // not lose the edit.
    connect(edit_, &QLineEdit::textEdited, this, [this] { position_ = entries_.size(); });
}

void CommandHistory::add(const QString& command)
{
    if (!command.isEmpty() && (entries_.isEmpty() || entries_.last() != command)) {
        entries_ << command;
        if (entries_.size() > kMaxEntries)
            entries_.removeFirst();
        save();
    }
    position_ = entries_.size();
    draft_.clear();
}

bool CommandHistory::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == edit_ && event->type() == QEvent::KeyPress) {
        const auto* key = static_cast<QKeyEvent*>(event);
        const Qt::KeyboardModifiers modifiers = key->modifiers() & ~Qt::KeypadModifier;
        if (modifiers == Qt::NoModifier && key->key() == Qt::Key_Up) {
            older();
            return true;
        }
        if (modifiers == Qt::NoModifier && key->key() == Qt::Key_Down) {
            newer();
            return true;
        }
    }
    return QObject::eventFilter(watched, event);
}

void CommandHistory::older()
{
    if (position_ == 0)
        return;
    if (position_ == entries_.size())
        draft_ = edit_->text();
    edit_->setText(entries_.at(--position_));
}

void CommandHistory::newer()
{
    if (position_ >= entries_.size())
        return;
    ++position_;
    edit_->setText(position_ == entries_.size() ? draft_ : entries_.at(position_));
}

void CommandHistory::save() const
{
    userSettings().setValue(kHistoryKey, entries_);
}

} // namespace OrviaGonioManager::Ui
