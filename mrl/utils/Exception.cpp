#include "mrl/utils/Exception.h"

namespace MRL::Utils {

Exception::Exception(const QString& message, int severity)
    : message_(message), utf8_(message.toUtf8()), severity_(severity)
{}

} // namespace MRL::Utils
