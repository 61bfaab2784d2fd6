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
constexpr int kLatest = 1;

// The statements that take a store from version - 1 to version (1: an empty database).
QStringList migration(int version, Engine engine);

} // namespace StoreSchema

} // namespace OrviaGonioManager::Store
