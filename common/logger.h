#pragma once

class QString;

// Thin wrapper over the process-wide system log connection.
class Logger
{
public:
    static void init();
    static void shutdown();

    static void logInfo(const QString &text);
    static void logInfo(const char *text);
    static void logWarning(const QString &text);
    static void logWarning(const char *text);
    static void logError(const QString &text);
    static void logError(const char *text);
};
