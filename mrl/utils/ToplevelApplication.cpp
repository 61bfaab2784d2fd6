#include "mrl/utils/ToplevelApplication.h"

#include "mrl/utils/Exception.h"

#include <QDebug>

namespace MRL::Utils {

ToplevelApplication::ToplevelApplication(int& argc, char** argv) : QApplication(argc, argv) {}

bool ToplevelApplication::notify(QObject* receiver, QEvent* event)
{
    try {
        return QApplication::notify(receiver, event);
    } catch (const Exception& e) {
        qCritical().noquote() << e.message();
    } catch (const std::exception& e) {
        qCritical().noquote() << e.what();
    } catch (...) {
        qCritical().noquote() << "Unknown exception in event handler";
    }
    return false;
}

} // namespace MRL::Utils
