#include "mrl/ui/DateTimeWidget.h"

#include <QDateTimeEdit>
#include <QHBoxLayout>

namespace MRL::Ui {

DateTimeWidget::DateTimeWidget(QWidget* parent) : QWidget(parent), edit_(new QDateTimeEdit(this))
{
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(edit_);
    edit_->setTimeSpec(Qt::UTC);
    edit_->setDisplayFormat(QStringLiteral("yyyy-MM-dd HH:mm 'UTC'"));
    edit_->setCalendarPopup(true);
    edit_->setDateTime(QDateTime(QDate(2000, 1, 1), QTime(0, 0), Qt::UTC));
    connect(edit_, &QDateTimeEdit::dateTimeChanged, this, [this] {
        if (!settingValue_)
            emit sigDateTimeChanged();
    });
}

Utils::DateTime DateTimeWidget::dateTime() const
{
    return Utils::DateTime(edit_->dateTime().toUTC());
}

void DateTimeWidget::setDateTime(const Utils::DateTime& dateTime)
{
    settingValue_ = true;
    edit_->setDateTime(dateTime.toQDateTime());
    settingValue_ = false;
}

} // namespace MRL::Ui
