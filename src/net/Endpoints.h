#pragma once

#include <QString>

// Base URLs of every remote service. Each has a default and an environment override, so tests and
// self-hosters can point Kelo elsewhere; documented paths are appended to the base as text.
namespace Endpoints {

QString zenBaseURL();
QString wikipediaBaseURL();
QString googleTTSBaseURL();
// The default embeds the Azure region in the host; an override replaces the whole base.
QString azureTTSBaseURL(const QString &region);
QString elevenLabsBaseURL();
QString whisperModelBaseURL();

// The base with trailing slashes removed, so that appending "/path" never yields "//path".
QString fromEnvironment(const char *variable, const QString &fallback);

} // namespace Endpoints
