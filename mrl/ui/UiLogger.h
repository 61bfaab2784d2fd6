#pragma once

#include <QDateTime>
#include <QTableWidget>

namespace MRL::Ui {

// The log table: one row per Qt log message with its time, level and text.
class UiLogger : public QTableWidget
{
    Q_OBJECT

public:
    explicit UiLogger(QWidget* parent = nullptr);

    void setMaximumNumberOfRows(int rows);
    int maximumNumberOfRows() const { return maxRows_; }
    void setFollow(bool follow) { follow_ = follow; }
    bool follow() const { return follow_; }
    // Called after a burst of messages: tidies the columns once instead of per row.
    void messageBatchEnd();

    static QString levelText(int type);

public slots:
    void slotAppendMessage(QDateTime time, int type, QString text);

private:
    void trim();

    int maxRows_ = 1000;
    bool follow_ = true;
};

} // namespace MRL::Ui
