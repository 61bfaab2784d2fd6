#include "cli/CliArgs.h"

#include <CLI/CLI.hpp>

namespace OrviaGonioManager::Cli {

CliArgs::CliArgs(const CLI::App& command) : command_(command) {}

const CLI::Option* CliArgs::find(const QString& name) const
{
    const std::string flag = (name.size() == 1 ? "-" : "--") + name.toStdString();
    for (const CLI::App* app = &command_; app; app = app->get_parent()) {
        if (const CLI::Option* o = app->get_option_no_throw(flag))
            return o;
        if (const CLI::Option* o = app->get_option_no_throw(name.toStdString()))
            return o;
    }
    return nullptr;
}

bool CliArgs::has(const QString& name) const
{
    return find(name) != nullptr;
}

bool CliArgs::isSet(const QString& name) const
{
    const CLI::Option* o = find(name);
    return o && o->count() > 0;
}

QString CliArgs::value(const QString& name) const
{
    const CLI::Option* o = find(name);
    if (!o)
        return {};
    if (!o->results().empty())
        return QString::fromStdString(o->results().back());
    return QString::fromStdString(o->get_default_str());
}

} // namespace OrviaGonioManager::Cli
