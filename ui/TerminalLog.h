#pragma once

#include <QDateTime>
#include <QObject>
#include <QPointer>
#include <QString>

#include <deque>

class QAction;
class QMenu;

namespace MRL::Ui {
class UiLogger;
}

namespace OrviaGonioManager::Ui {

// The log view of the Terminal tab, fed through here instead of straight from the message
// stream, with a context menu: hide the lines of one logging category (the link's keep-alive
// exchange), pause (new lines are held and shown on resuming), clear, and copy as text.
class TerminalLog : public QObject
{
    Q_OBJECT

public:
    // Takes over the view's feed; lines logged under hiddenCategory are the ones "Hide keep-alive
    // lines" hides.
    TerminalLog(MRL::Ui::UiLogger* view, const QString& hiddenCategory, QObject* parent = nullptr);

    QMenu* menu() const { return menu_; }
    QAction* hideAction() const { return hide_; }
    QAction* pauseAction() const { return pause_; }
    QAction* clearAction() const { return clear_; }
    QAction* copyAction() const { return copy_; }
    // What "Copy" puts on the clipboard: the selected lines, or all when none is selected, one
    // per line, their cells separated by tabs.
    QString copyText() const;

public slots:
    void append(QDateTime time, int type, QString text, QString category);

private:
    struct Line
    {
        quint64 seq;
        QDateTime time;
        int type;
        QString text;
        bool hideable;
    };

    void setPaused(bool paused);
    void clear();
    void copy();
    bool shows(const Line& line) const;
    void show(const Line& line);
    // Shows the kept lines numbered from "from" up to, not including, "until", in the order they came.
    void showRange(quint64 from, quint64 until);
    void rebuild();

    QPointer<MRL::Ui::UiLogger> view_; // goes before this object when the window is taken down
    const QString hiddenCategory_;
    QMenu* menu_;
    QAction* hide_;
    QAction* pause_;
    QAction* clear_;
    QAction* copy_;
    // The newest lines of each kind, as many as the view keeps: a view rebuilt from them, whether
    // it hides the hideable ones or not, is the one that would have been there all along.
    std::deque<Line> lines_;
    std::deque<Line> hideableLines_;
    quint64 nextSeq_ = 0;
    quint64 heldFrom_ = 0; // while paused, the first line not shown
};

} // namespace OrviaGonioManager::Ui
