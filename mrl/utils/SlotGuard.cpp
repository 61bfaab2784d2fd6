#include "mrl/utils/SlotGuard.h"

#include "mrl/utils/Exception.h"

#include <QDebug>
#include <QString>

namespace MRL::Utils {

namespace {
SlotGuard::Handler& handler()
{
    static SlotGuard::Handler h;
    return h;
}
} // namespace

bool SlotGuard::run(const std::function<void()>& fn)
{
    try {
        fn();
        return true;
    } catch (const Exception& e) {
        report(e.message());
    } catch (const std::exception& e) {
        report(QString::fromUtf8(e.what()));
    } catch (...) {
        report(QStringLiteral("Unknown exception"));
    }
    return false;
}

void SlotGuard::report(const QString& message)
{
    if (handler())
        handler()(message);
    else
        qCritical().noquote() << message;
}

void SlotGuard::setHandler(Handler h)
{
    handler() = std::move(h);
}

} // namespace MRL::Utils
