// "Keep messages" against the emulator over a pseudo-terminal, both generations: live reports and
// flash reads land in the message store with every field the RX table has, a second flash read
// adds nothing, nothing is lost when the window closes, "Keep messages" off keeps nothing, and a
// store that cannot be used is said in the log and the status bar while the RX table goes on.
#include "common/WindowFixture.h"
#include "store/MessageStore.h"
#include "store/StoreWriter.h"
#include "ui/UserSettings.h"

#include <QProcess>
#include <QSignalSpy>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QStatusBar>

using OrviaGonioManager::Store::MessageStore;
using OrviaGonioManager::Store::StoreWriter;
using OrviaGonioManager::Ui::userSettings;
using Row = OrviaGonioManager::Utils::RxTableModel::Row;

namespace {

// Every field the store keeps of a row, as one text.
QString fields(const Row& row)
{
    const auto n = [](double v) { return QString::number(v, 'g', 17); };
    const auto& m = row.message;
    const auto& b = row.byNumber;
    QStringList all{row.flash ? "flash" : "live"};
    all << n(m.platformIndex) << n(m.mjd) << n(m.secondsOfDay) << m.platformId << n(m.frequency)
        << n(m.flagBit2) + n(m.flagBit1) + n(m.flagBit0) << n(m.direction) << n(m.v1FlashValue) << n(m.band)
        << n(m.extraCode) << n(m.level) << n(m.period) << n(m.gnxLatitude) << n(m.gnxLongitude)
        << n(m.gnxDirection) << QString::fromLatin1(m.payload.toHex()) << row.index << n(row.withAverage)
        << b.platform << b.label << n(b.favourite);
    all << (b.payloadPosition ? n(b.payloadLatitude) + '/' + n(b.payloadLongitude) : QString("none"));
    return all.join('|');
}

} // namespace

class TestKeepMessages : public QObject, private WindowFixture
{
    Q_OBJECT

private:
    OrviaGonioManager::Utils::RxTableModel* rx() const { return window_->rxModel(); }

    // The store the window uses when none is named.
    QString defaultStore() const { return workDir_.filePath("data/orvia-gonio-manager/messages.sqlite"); }

    // The emulated receiver's serial number as gnxctl info shows it: the store's receiver.
    QString serial() const
    {
        const QString s = sim_->serialNumber();
        return s.section('-', 0, 0).rightJustified(4, '0') + '-' + s.section('-', 1);
    }

    static std::vector<Row> stored(const QString& path, MessageStore::Query query = {})
    {
        QString error;
        const auto store = MessageStore::open(path, &error);
        if (!store) {
            qWarning("%s", qPrintable(error));
            return {};
        }
        return store->query(query);
    }

    static QStringList sortedFields(const std::vector<Row>& rows)
    {
        QStringList all;
        for (const Row& row : rows)
            all << fields(row);
        all.sort();
        return all;
    }

    void emitLive(int count)
    {
        for (int i = 0; i < count; ++i) {
            const int before = rx()->allRowCount();
            QVERIFY(sim_->emitNpr(-1, i % 2 == 0));
            QTRY_COMPARE_WITH_TIMEOUT(rx()->allRowCount(), before + 1, 10000);
        }
    }

    // One more live report, waited for until the writer committed it.
    void keepOneMore()
    {
        QSignalSpy commits(window_->storeWriter(), &StoreWriter::stored);
        emitLive(1);
        QVERIFY(commits.wait(10000));
    }

    void readFlash()
    {
        const int before = rx()->allRowCount();
        ui()->pushButtonRxFlashRead->click();
        QVERIFY2(dialogs_->criticals.isEmpty(), qPrintable(dialogs_->criticals.join('|')));
        QCOMPARE(rx()->allRowCount(), before + sim_->flashRecordCount());
    }

    // The receiver's row of the store: model and versions.
    QStringList storedReceiver(const QString& path) const
    {
        QStringList values;
        {
            QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", "raw");
            db.setDatabaseName(path);
            QSqlQuery q(db);
            if (db.open() &&
                q.exec("SELECT model, application_version, bootloader_version FROM receivers "
                       "WHERE serial_number = '" +
                       serial() + "'") &&
                q.next())
                values << q.value(0).toString() << q.value(1).toString() << q.value(2).toString();
        }
        QSqlDatabase::removeDatabase("raw");
        return values;
    }

private slots:
    void initTestCase() { QVERIFY(setUpWorkDir()); }
    void init()
    {
        resetDialogs();
        userSettings().remove("store");
    }
    void cleanup() { tearDown(); }

    void liveAndFlash_data() { bothModels(); }

    // On by default, in the user's data directory: live reports and a flash read land with every
    // field of their RX table rows; read again, the flash memory adds nothing; what the window was
    // given just before it closed is kept too.
    void liveAndFlash()
    {
        QFETCH(QString, model);
        QFile::remove(defaultStore());
        QVERIFY(startAndConnect(simOptions(model, 3, 12)));
        QAction* keep = window_->keepAction();
        QCOMPARE(keep->text(), QString("Keep messages"));
        QVERIFY(keep->isCheckable() && keep->isChecked() && keep->isEnabled());
        QVERIFY(window_->findChild<QToolBar*>("sessionToolBar")->actions().contains(keep));
        QVERIFY2(keep->toolTip().endsWith(" is kept in " + defaultStore()), qPrintable(keep->toolTip()));

        emitLive(4);
        readFlash();
        QTRY_COMPARE_WITH_TIMEOUT(int(stored(defaultStore()).size()), rx()->allRowCount(), 10000);
        std::vector<Row> table;
        for (int row = 0; row < rx()->allRowCount(); ++row)
            table.push_back(rx()->rowAt(row));
        QCOMPARE(sortedFields(stored(defaultStore())), sortedFields(table));
        MessageStore::Query flash;
        flash.receiver = serial();
        flash.origin = MessageStore::Query::Origin::Flash;
        QCOMPARE(int(stored(defaultStore(), flash).size()), sim_->flashRecordCount());
        const QString gnx = model == "gnx134" ? "GNX134" : "GNX234";
        QCOMPARE(storedReceiver(defaultStore()),
                 QStringList({gnx, sim_->applicationVersion(), sim_->bootloaderVersion()}));

        // The reports of the commits so far delivered, before the spy.
        const StoreWriter* writer = window_->storeWriter();
        QTRY_COMPARE(writer->settledRows(), writer->handedRows());
        QCoreApplication::processEvents();
        QSignalSpy commits(writer, &StoreWriter::stored);
        const int kept = rx()->allRowCount();
        readFlash();
        QTRY_COMPARE_WITH_TIMEOUT(commits.size(), 1, 10000);
        QCOMPARE(commits.at(0), QVariantList({0, sim_->flashRecordCount()}));
        QCOMPARE(int(stored(defaultStore()).size()), kept);

        // Closed at once after the last report reached the table.
        emitLive(3);
        window_.reset();
        QCOMPARE(int(stored(defaultStore()).size()), kept + 3);
    }

    // The command line and the window name a receiver alike: its flash memory read by one is
    // already kept for the other.
    void sharedWithGnxctl()
    {
        const QString path = workDir_.filePath("shared.sqlite");
        userSettings().setValue("store/url", path);
        QVERIFY(startAndConnect(simOptions("gnx234", 3, 8)));
        readFlash();
        window_.reset(); // lets the port go, and commits
        QCOMPARE(int(stored(path).size()), sim_->flashRecordCount());
        QProcess gnxctl;
        gnxctl.start(GNXCTL_PATH,
                     {"--port", sim_->slavePath(), "flash", "read", "--format", "csv", "--db", path});
        QVERIFY(gnxctl.waitForFinished(30000));
        QCOMPARE(gnxctl.exitCode(), 0);
        const QString said = QString::fromLocal8Bit(gnxctl.readAllStandardError());
        QVERIFY2(said.contains(QString("Message store: 0 new of %1 messages").arg(sim_->flashRecordCount())),
                 qPrintable(said));
    }

    // Off, remembered in the user's settings: nothing is kept, until it is on again.
    void keepOff()
    {
        const QString path = workDir_.filePath("off.sqlite");
        userSettings().setValue("store/url", path);
        QVERIFY(startAndConnect(simOptions("gnx134", 3, 5)));
        window_->keepAction()->trigger();
        QVERIFY(!window_->keepAction()->isChecked());
        QCOMPARE(window_->storeWriter(), nullptr);
        QCOMPARE(userSettings().value("store/keep"), QVariant(false));
        emitLive(2);
        readFlash();

        // A new window starts with it off.
        window_.reset();
        QVERIFY(showWindow({sim_->slavePath()}) && connectTo(sim_->slavePath()));
        QVERIFY(!window_->keepAction()->isChecked());
        emitLive(1);
        QVERIFY(!QFile::exists(path) || stored(path).empty());

        window_->keepAction()->trigger();
        QCOMPARE(userSettings().value("store/keep"), QVariant(true));
        keepOneMore(); // the store is looked at once the writer has made it
        QCOMPARE(int(stored(path).size()), 1);
        QCOMPARE(fields(stored(path).front()), fields(rx()->rowAt(0)));
    }

    void unusableStore_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("reason");
        QTest::newRow("missing directory") << "missing/messages.sqlite"
                                           << ": cannot make the store: the directory ";
        QTest::newRow("not a store") << QString("notes.txt") << QString(": not a message store: ");
        QTest::newRow("a directory") << QString("data") << QString(": not a file");
    }

    // One line in the log and the status bar; the RX table goes on; the action stays usable and,
    // once the store is one, keeps again.
    void unusableStore()
    {
        QFETCH(QString, name);
        QFETCH(QString, reason);
        QVERIFY(!writeFile("notes.txt", QByteArray(4096, 'x')).isEmpty());
        QVERIFY(QDir(workDir_.path()).mkpath("data"));
        const QString path = workDir_.filePath(name);
        userSettings().setValue("store/url", path);
        LogCapture logs;
        QVERIFY(startAndConnect(simOptions("gnx234", 3, 4)));
        const QString prefix = "Messages are not kept: " + path + reason;
        QTRY_VERIFY2_WITH_TIMEOUT(ui()->statusBar->currentMessage().startsWith(prefix),
                                  qPrintable(ui()->statusBar->currentMessage()), 10000);
        const QString line = ui()->statusBar->currentMessage();
        QCOMPARE(logs.count(QtWarningMsg, line), 1);
        QVERIFY(dialogs_->criticals.isEmpty());

        emitLive(3);
        readFlash();
        QCOMPARE(rx()->allRowCount(), 3 + sim_->flashRecordCount());
        QCOMPARE(logs.count(QtWarningMsg, line), 1);
        QVERIFY(window_->keepAction()->isEnabled() && window_->keepAction()->isChecked());

        const QString good = workDir_.filePath(QString("good-%1.sqlite").arg(QTest::currentDataTag()));
        userSettings().setValue("store/url", good);
        window_->keepAction()->trigger();
        window_->keepAction()->trigger();
        keepOneMore();
        QCOMPARE(int(stored(good).size()), 1);
        QCOMPARE(ui()->statusBar->currentMessage(), QString());
    }
};

QTEST_MAIN(TestKeepMessages)
#include "tst_keepmessages.moc"
