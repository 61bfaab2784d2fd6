#pragma once

#include <QDateTime>
#include <QObject>
#include <QString>

namespace MRL::Ui {

// Receives every Qt log message (installed as the message handler) and re-emits it as a
// signal. Messages logged from other threads reach the GUI-thread views by queued delivery.
class LogHub : public QObject
{
    Q_OBJECT

public:
    static LogHub* instance(); // created on first call, in the calling (GUI) thread
    ~LogHub() override;

signals:
    void sigMessage(QDateTime time, int type, QString text);
    // The same message with the name of its logging category ("default" for plain qDebug() and
    // the like), for views that treat some categories apart.
    void sigCategorisedMessage(QDateTime time, int type, QString text, QString category);

private:
    LogHub();
};

} // namespace MRL::Ui
