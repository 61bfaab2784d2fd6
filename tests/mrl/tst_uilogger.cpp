#include "mrl/ui/LogHub.h"
#include "mrl/ui/UiLogger.h"

#include <QTest>
#include <QThread>

using MRL::Ui::UiLogger;

class TestUiLogger : public QObject
{
    Q_OBJECT

private slots:
    void rowLimit_data()
    {
        QTest::addColumn<int>("limit");
        QTest::addColumn<int>("messages");
        QTest::newRow("under") << 10 << 3;
        QTest::newRow("exactly") << 5 << 5;
        QTest::newRow("over") << 1000 << 1205;
    }

    void rowLimit()
    {
        QFETCH(int, limit);
        QFETCH(int, messages);
        UiLogger logger;
        logger.setMaximumNumberOfRows(limit);
        for (int i = 0; i < messages; ++i)
            logger.slotAppendMessage(QDateTime::currentDateTime(), QtInfoMsg, QString::number(i));
        QCOMPARE(logger.rowCount(), qMin(limit, messages));
        // The newest rows are kept.
        QCOMPARE(logger.item(logger.rowCount() - 1, 2)->text(), QString::number(messages - 1));
    }

    void messagesFromAnotherThreadArrive()
    {
        UiLogger logger;
        connect(MRL::Ui::LogHub::instance(), &MRL::Ui::LogHub::sigMessage, &logger,
                &UiLogger::slotAppendMessage);
        QThread* thread = QThread::create([] {
            for (int i = 0; i < 50; ++i)
                qWarning().noquote() << "from worker" << i;
        });
        thread->start();
        QTRY_COMPARE(logger.rowCount(), 50);
        thread->wait();
        delete thread;
        QCOMPARE(logger.item(0, 1)->text(), QString("Warning"));
        QCOMPARE(logger.item(49, 2)->text(), QString("from worker 49"));
    }
};

QTEST_MAIN(TestUiLogger)
#include "tst_uilogger.moc"
