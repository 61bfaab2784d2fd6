#pragma once

#include <QFileInfo>
#include <QSettings>
#include <QVariant>
#include <memory>

namespace MRL::Utils {

// INI-file settings base: remembers its file, opens it for reading or writing, and reads
// keys that must exist.
class Settings
{
public:
    enum SettingsOperation_t
    {
        SETTINGS_READ = 0,
        SETTINGS_WRITE = 1,
    };

    explicit Settings(const QFileInfo& file);
    virtual ~Settings() = default;

    QFileInfo fileInfo() const { return file_; }
    std::unique_ptr<QSettings> getSettings(SettingsOperation_t operation) const;

    // Throws MRL::Utils::Exception when the key is absent.
    static QVariant loadVariable(const QSettings& settings, const QString& key);

private:
    QFileInfo file_;
};

} // namespace MRL::Utils
