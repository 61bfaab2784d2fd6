#pragma once

#include "mrl/utils/DateTime.h"

#include <QWidget>

class QDateTimeEdit;

namespace MRL::Ui {

// A UTC date-time editor. sigDateTimeChanged() reports user edits only, never setDateTime().
class DateTimeWidget : public QWidget
{
    Q_OBJECT

public:
    explicit DateTimeWidget(QWidget* parent = nullptr);

    Utils::DateTime dateTime() const;
    void setDateTime(const Utils::DateTime& dateTime);
    QDateTimeEdit* editor() const { return edit_; }

signals:
    void sigDateTimeChanged();

private:
    QDateTimeEdit* edit_;
    bool settingValue_ = false;
};

} // namespace MRL::Ui
