#pragma once

#include <QStringList>

namespace OrviaGonioManager::Store {

// The message store's tables, one schema for SQLite and PostgreSQL. Each version is a migration
// from the one before; a new store runs them all in order.
namespace StoreSchema {

enum class Engine
{
    Sqlite,
    Postgres
};

// The version this program writes; a store of a higher one is refused.
constexpr int kLatest = 2;

// The statements that take a store from version - 1 to version (1: an empty database).
QStringList migration(int version, Engine engine);

// The statement that points the flash records chosen by the condition (on the messages table) at
// the live message each copies, when the store has it.
QString linkFlashCopies(const QString& which);

} // namespace StoreSchema

} // namespace OrviaGonioManager::Store
