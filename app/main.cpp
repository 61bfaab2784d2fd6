#include "app/Startup.h"
#include "mrl/utils/DateTime.h"
#include "mrl/utils/Exception.h"
#include "mrl/utils/ToplevelApplication.h"
#include "ui/MainWindow.h"

#include <QCommandLineParser>
#include <QDebug>
#include <QStyleFactory>
#include <QSysInfo>

#include <vector>

namespace {

// Help and version need no display, but the application object aborts without one: answer
// them from a core application that is gone before the real one is made. Anything else, a
// "-platform" argument among it, is left to the usual processing.
void answerHelpOrVersion(int argc, char* argv[])
{
    std::vector<char*> args(argv, argv + argc + 1); // the core application may reorder them
    QCoreApplication core(argc, args.data());
    QCommandLineParser parser;
    OrviaGonioManager::configureCommandLine(parser);
    if (!parser.parse(QCoreApplication::arguments()))
        return;
    if (parser.isSet(QStringLiteral("version")))
        parser.showVersion();
    if (parser.isSet(QStringLiteral("help")))
        parser.showHelp();
}

} // namespace

int main(int argc, char* argv[])
{
    try {
        MRL::Utils::DateTime::registerMetaType();
        OrviaGonioManager::registerMetaTypes();
        if (QSysInfo::productType() == QLatin1String("windows"))
            QApplication::setStyle(QStyleFactory::create(QStringLiteral("Fusion")));

        if (!OrviaGonioManager::displayConfigured())
            answerHelpOrVersion(argc, argv);

        MRL::Utils::ToplevelApplication app(argc, argv);

        QCommandLineParser parser;
        OrviaGonioManager::configureCommandLine(parser);
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
