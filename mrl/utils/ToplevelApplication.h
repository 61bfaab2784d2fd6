#pragma once

#include <QApplication>
#include <QPointer>

namespace MRL::Utils {

// The application object. notify() is the last safety net: an exception escaping an event
// handler in any thread is logged as critical and the program goes on.
class ToplevelApplication : public QApplication
{
    Q_OBJECT

public:
    ToplevelApplication(int& argc, char** argv);

    void setMainClass(QObject* mainClass) { mainClass_ = mainClass; }
    QObject* mainClass() const { return mainClass_; }

    bool notify(QObject* receiver, QEvent* event) override;

private:
    QPointer<QObject> mainClass_;
};

} // namespace MRL::Utils
