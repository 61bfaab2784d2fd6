#pragma once

#include "com/GnxLink.h"

#include <QStringList>

#include <optional>

namespace OrviaGonioManager::Com {

// What the window's combo boxes show for the device enumerations, entry i for value i. The window
// fills its combos from here and the setup JSON uses the same texts, so the two cannot drift.
namespace EnumTexts {

template <typename E> const QStringList& texts();
template <> const QStringList& texts<GnxLink::OrviaBand_t>();
template <> const QStringList& texts<GnxLink::CoordType_t>();
template <> const QStringList& texts<GnxLink::DistType_t>();
template <> const QStringList& texts<GnxLink::DirectionMode_t>();
template <> const QStringList& texts<GnxLink::AntennaPosition_t>();
template <> const QStringList& texts<GnxLink::AntennaType_t>();
template <> const QStringList& texts<GnxLink::CompassMode_t>();
template <> const QStringList& texts<GnxLink::OrviaModulation_t>();

// Empty for a value without an entry.
template <typename E> QString text(E value)
{
    return texts<E>().value(int(value));
}

// The entry that matches exactly, else the one that matches ignoring case.
std::optional<int> find(const QStringList& texts, const QString& text);

template <typename E> std::optional<E> fromText(const QString& text)
{
    const std::optional<int> i = find(texts<E>(), text);
    return i ? std::optional<E>(E(*i)) : std::nullopt;
}

} // namespace EnumTexts

} // namespace OrviaGonioManager::Com
