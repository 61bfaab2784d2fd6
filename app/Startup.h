#pragma once

class QCommandLineParser;

namespace OrviaGonioManager {

// Registers every type that crosses a thread or a queued connection.
void registerMetaTypes();

// Sets the application's name, organisation and version and gives the parser its description
// and its help and version options.
void configureCommandLine(QCommandLineParser& parser);

// False when the window could not reach any screen: on a Unix desktop neither a platform plugin
// nor an X11 or Wayland display is named.
bool displayConfigured();

} // namespace OrviaGonioManager
