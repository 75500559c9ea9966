#pragma once

#include <QString>

// The user-agent text of every page: main/user_agent when set, else the kiosk's own text with the
// web engine's version in it.
namespace UserAgent {

QString forPages(const QString &engineVersion);
QString builtIn(const QString &engineVersion);

} // namespace UserAgent
