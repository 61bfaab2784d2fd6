#pragma once

#include "mrl/utils/Settings.h"

#include <QtGlobal>

namespace OrviaGonioManager::Utils {

// Tuning values of the serial link and of message decoding, read once from the INI file.
// Users ask instance() at the moment they need a value; the link thread only reads.
class Settings : public MRL::Utils::Settings
{
public:
    static constexpr const char* kDefaultPath = "../OrviaGonioManager.ini";

    explicit Settings(const QFileInfo& file = QFileInfo(QString::fromLatin1(kDefaultPath)));

    // The single instance, created and loaded on first call (on the GUI thread, at start-up).
    static Settings& instance();
    // For a front end that keeps no settings file of its own, before the first instance(): the
    // values of the file at path, or the defaults when path is empty. Nothing is ever written.
    // Throws when the file cannot be read.
    static void useFile(const QString& path);

    // A file that lacks a key is written anew with the values read so far and the defaults,
    // unless createMissing is false.
    void load(bool createMissing = true);
    void save() const;

    bool printUartDebugInfo = false;
    bool printAtCmdDebugInfo = true;
    qint32 gnxCommandTimeoutMs = 60000;
    qint32 keepAliveTimeoutMs = 500;
    qint32 keepAlivePeriodMs = 1000;
    bool keepChecksumErrorOnNprGnx134 = false;
    qint32 nprMessagesFormat = 0;
};

} // namespace OrviaGonioManager::Utils
