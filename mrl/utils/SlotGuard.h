#pragma once

#include <QString>
#include <functional>

namespace MRL::Utils {

class Exception;

// Qt promises nothing when an exception unwinds through its event dispatch, so every slot
// body that may throw runs inside guard(). The handler decides how the failure is shown;
// by default it is logged as critical.
class SlotGuard
{
public:
    using Handler = std::function<void(const QString& message)>;

    // Runs fn; returns false when it threw (the failure has then been reported).
    static bool run(const std::function<void()>& fn);
    static void report(const QString& message);
    static void setHandler(Handler handler);
};

} // namespace MRL::Utils
