#include "app/Startup.h"

#include "BuildInfo.h"
#include "mrl/utils/DateTime.h"

#include <QCommandLineParser>
#include <QCoreApplication>

namespace OrviaGonioManager {

void registerMetaTypes()
{
    MRL::Utils::DateTime::registerMetaType();
}

void configureCommandLine(QCommandLineParser& parser)
{
    parser.setApplicationDescription(QStringLiteral("%1, a Marlen application.").arg(OGM_APP_NAME));
    parser.addHelpOption();
    QCoreApplication::setApplicationName(QStringLiteral(OGM_APP_NAME));
    QCoreApplication::setOrganizationName(QStringLiteral(OGM_ORG_NAME));
    QCoreApplication::setApplicationVersion(QStringLiteral(OGM_VERSION));
    parser.addVersionOption();
}

bool displayConfigured()
{
#if defined(Q_OS_UNIX) && !defined(Q_OS_DARWIN) && !defined(Q_OS_ANDROID)
    return !qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM") || !qEnvironmentVariableIsEmpty("DISPLAY") ||
           !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
#else
    return true;
#endif
}

} // namespace OrviaGonioManager
