// The message store from the command line: its check (flash read --db keeps messages in it).
#include "cli/Gnxctl.h"

#include "cli/CliArgs.h"
#include "cli/CliError.h"
#include "store/MessageStore.h"

#include <CLI/CLI.hpp>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace OrviaGonioManager::Cli {

std::unique_ptr<Store::MessageStore> Gnxctl::openStore(const QString& url, Store::MessageStore::Access access)
{
    QString error;
    auto store = Store::MessageStore::open(url, &error, access);
    if (!store)
        throw CliError{EXIT_STORE, error};
    return store;
}

std::unique_ptr<Store::MessageStore> Gnxctl::openReceiverStore(const QString& url)
{
    auto store = openStore(url);
    const Store::MessageStore::Receiver receiver{
        serialOf(device_),
        device_.version == Com::GnxLink::GNX_V1 ? QStringLiteral("GNX134") : QStringLiteral("GNX234"),
        device_.applicationVersion, device_.fpgaVersion, device_.bootloaderVersion};
    QString error;
    if (!store->noteReceiver(receiver, &error))
        throw CliError{EXIT_STORE, error};
    return store;
}

void Gnxctl::addStoreCommands()
{
    command(QStringLiteral("store check"),
            QStringLiteral("The store's schema version, its receivers and messages, live and from flash, and "
                           "its integrity. Needs no receiver."),
            [this](const CliArgs& a) { storeCheck(a); })
        .add_option("--db", "The store: a path, sqlite:PATH or postgresql://user@host:port/database.")
        ->type_name("URL")
        ->required();
}

void Gnxctl::storeCheck(const CliArgs& a)
{
    // A check writes nothing: an older store is not brought up to date by it.
    const auto store = openStore(a.value(QStringLiteral("db")), Store::MessageStore::Access::ReadOnly);
    const Store::MessageStore::Check c = store->check();
    if (json_) {
        out(QString::fromUtf8(
                QJsonDocument(QJsonObject{
                                  {QStringLiteral("ok"), c.ok},
                                  {QStringLiteral("schemaVersion"), c.schemaVersion},
                                  {QStringLiteral("receivers"), c.receivers},
                                  {QStringLiteral("messages"), c.messages},
                                  {QStringLiteral("liveMessages"), c.liveMessages},
                                  {QStringLiteral("flashMessages"), c.flashMessages},
                                  {QStringLiteral("linkedFlashMessages"), c.linkedFlashMessages},
                                  {QStringLiteral("missingSeqs"), c.missingSeqs},
                                  {QStringLiteral("gaps"), QJsonArray::fromStringList(c.gaps)},
                                  {QStringLiteral("problems"), QJsonArray::fromStringList(c.problems)},
                              })
                    .toJson(QJsonDocument::Compact)) +
            QLatin1Char('\n'));
    } else {
        QString gaps;
        for (const QString& gap : c.gaps)
            gaps += QStringLiteral("gap\t") + gap + QLatin1Char('\n');
        out(QStringLiteral("schema version\t%1\nreceivers\t%2\nmessages\t%3\nlive\t%4\nflash\t%5\n"
                           "flash with its live message\t%6\nmissing seq\t%7\n")
                .arg(c.schemaVersion)
                .arg(c.receivers)
                .arg(c.messages)
                .arg(c.liveMessages)
                .arg(c.flashMessages)
                .arg(c.linkedFlashMessages)
                .arg(c.missingSeqs) +
            gaps);
    }
    if (!c.ok)
        throw CliError{
            EXIT_STORE,
            QStringLiteral("The store failed its check: %1").arg(c.problems.join(QStringLiteral("; ")))};
}

} // namespace OrviaGonioManager::Cli
