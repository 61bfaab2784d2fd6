#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

class QLineEdit;

namespace OrviaGonioManager::Ui {

// The commands sent from a line edit, walked with Up and Down in it and kept in the user's own
// settings across runs: the newest kMaxEntries, no entry twice in a row.
class CommandHistory : public QObject
{
    Q_OBJECT

public:
    static constexpr int kMaxEntries = 100;

    explicit CommandHistory(QLineEdit* edit, QObject* parent = nullptr);

    // A command that went out; ends any walk through the history.
    void add(const QString& command);
    QStringList entries() const { return entries_; }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void older();
    void newer();
    void save() const;

    QLineEdit* edit_;
    QStringList entries_; // oldest first
    // Where the walk stands: an entry, or entries_.size() for the line being typed.
    qsizetype position_ = 0;
    QString draft_; // the line being typed when the walk began
};

} // namespace OrviaGonioManager::Ui
