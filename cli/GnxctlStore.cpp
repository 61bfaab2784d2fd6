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

std::unique_ptr<Store::MessageStore> Gnxctl::openStore(const QString& url)
{
    QString error;
    auto store = Store::MessageStore::open(url, &error);
    if (!store)
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
    const auto store = openStore(a.value(QStringLiteral("db")));
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
                                  {QStringLiteral("problems"), QJsonArray::fromStringList(c.problems)},
                              })
                    .toJson(QJsonDocument::Compact)) +
            QLatin1Char('\n'));
    } else {
        out(QStringLiteral("schema version\t%1\nreceivers\t%2\nmessages\t%3\nlive\t%4\nflash\t%5\n")
                .arg(c.schemaVersion)
                .arg(c.receivers)
                .arg(c.messages)
                .arg(c.liveMessages)
                .arg(c.flashMessages));
    }
    if (!c.ok)
        throw CliError{
            EXIT_STORE,
            QStringLiteral("The store failed its check: %1").arg(c.problems.join(QStringLiteral("; ")))};
}

} // namespace OrviaGonioManager::Cli
