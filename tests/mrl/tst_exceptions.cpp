#include "common/RecordingDialogs.h"
#include "mrl/ui/LogHub.h"
#include "mrl/ui/MainWindow.h"
#include "mrl/utils/Exception.h"
#include "mrl/utils/ToplevelApplication.h"

#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <QThread>

class Thrower : public QObject
{
    Q_OBJECT

public slots:
    void slotThrow() { throw MRL::Utils::Exception("thrown in worker", 2); }
};

class TestExceptions : public QObject
{
    Q_OBJECT

private slots:
    void slotExceptionIsShownAndLogged()
    {
        RecordingDialogs dialogs;
        MRL::Ui::MainWindow window;
        QSignalSpy logged(MRL::Ui::LogHub::instance(), &MRL::Ui::LogHub::sigMessage);
        QPushButton button;
        int after = 0;
        connect(&button, &QPushButton::clicked, &window,
                [&] { window.guard([] { throw MRL::Utils::Exception("Unable to do it", 2); }); });
        connect(&button, &QPushButton::clicked, &window, [&] { ++after; });
        button.click();
        QCOMPARE(dialogs.criticals, QStringList{"Unable to do it"});
        QCOMPARE(after, 1); // the program went on
        bool critical = false;
        for (const auto& args : logged)
            critical |= args.at(1).toInt() == QtCriticalMsg && args.at(2).toString() == "Unable to do it";
        QVERIFY(critical);
    }

    void workerThreadExceptionIsLogged()
    {
        QSignalSpy logged(MRL::Ui::LogHub::instance(), &MRL::Ui::LogHub::sigMessage);
        QThread thread;
        Thrower thrower;
        thrower.moveToThread(&thread);
        thread.start();
        QMetaObject::invokeMethod(&thrower, "slotThrow", Qt::QueuedConnection);
        QTRY_VERIFY([&] {
            for (const auto& args : logged)
                if (args.at(2).toString() == "thrown in worker")
                    return args.at(1).toInt() == QtCriticalMsg;
            return false;
        }());
        // The worker's event loop survived and still runs slots.
        bool ran = false;
        QMetaObject::invokeMethod(
            &thrower, [&] { ran = true; }, Qt::BlockingQueuedConnection);
        QVERIFY(ran);
        thread.quit();
        thread.wait();
    }

    void whatCarriesTheMessage()
    {
        const MRL::Utils::Exception e(QString::fromUtf8("45°C"));
        QCOMPARE(QString::fromUtf8(e.what()), QString::fromUtf8("45°C"));
    }
};

int main(int argc, char** argv)
{
    MRL::Utils::ToplevelApplication app(argc, argv);
    TestExceptions t;
    return QTest::qExec(&t, argc, argv);
}
#include "tst_exceptions.moc"
