#pragma once

#include <QObject>
#include <QString>

class QMainWindow;
class QToolBar;

namespace MRL::Ui {

// A help tool bar whose About box shows the application's name, version, build date-time
// and icons.
class Help : public QObject
{
    Q_OBJECT

public:
    Help(QMainWindow* window, const QString& iconResource, const QString& logoResource,
         const QString& buildDateTime);

    QToolBar* setupUiToolbar();
    QString aboutText() const;

public slots:
    void slotAbout();

private:
    QMainWindow* window_;
    QString iconResource_;
    QString logoResource_;
    QString buildDateTime_;
};

} // namespace MRL::Ui
