#include "cli/Gnxctl.h"

#include <QCoreApplication>

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("gnxctl"));
    QCoreApplication::setOrganizationName(QStringLiteral("Orvia"));
    return OrviaGonioManager::Cli::Gnxctl().run(QCoreApplication::arguments());
}
