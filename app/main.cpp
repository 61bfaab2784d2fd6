#include "BuildInfo.h"
#include "app/Startup.h"
#include "mrl/utils/DateTime.h"
#include "mrl/utils/Exception.h"
#include "mrl/utils/ToplevelApplication.h"
#include "ui/MainWindow.h"

#include <QCommandLineParser>
#include <QDebug>
#include <QStyleFactory>
#include <QSysInfo>

int main(int argc, char* argv[])
{
    try {
        MRL::Utils::DateTime::registerMetaType();
        OrviaGonioManager::registerMetaTypes();
        if (QSysInfo::productType() == QLatin1String("windows"))
            QApplication::setStyle(QStyleFactory::create(QStringLiteral("Fusion")));

        MRL::Utils::ToplevelApplication app(argc, argv);

        QCommandLineParser parser;
        parser.setApplicationDescription(QStringLiteral("%1, a Marlen application.").arg(OGM_APP_NAME));
        parser.addHelpOption();
        QCoreApplication::setApplicationName(QStringLiteral(OGM_APP_NAME));
        QCoreApplication::setOrganizationName(QStringLiteral(OGM_ORG_NAME));
        QCoreApplication::setApplicationVersion(QStringLiteral(OGM_VERSION));
        parser.addVersionOption();
        parser.process(app);

        OrviaGonioManager::Ui::MainWindow window;
        app.setMainClass(&window);
        QObject::connect(&app, &QGuiApplication::lastWindowClosed, &window,
                         &OrviaGonioManager::Ui::MainWindow::slotLastWindowClosed);
        window.show();
        return app.exec();
    } catch (const MRL::Utils::Exception& e) {
        qCritical().noquote() << e.message();
    } catch (const std::exception& e) {
        qCritical().noquote() << e.what();
    }
    return 1;
}
