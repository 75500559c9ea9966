#include "logger.h"

#include <QString>

#include <syslog.h>

void Logger::init()
{
    openlog("vorsane-kiosk", 0, LOG_LOCAL0);
}

void Logger::shutdown()
{
    closelog();
}

void Logger::logInfo(const QString &text)
{
    logInfo(text.toUtf8().constData());
}

void Logger::logInfo(const char *text)
{
    syslog(LOG_INFO, "%s", text);
}

void Logger::logWarning(const QString &text)
{
    logWarning(text.toUtf8().constData());
}

void Logger::logWarning(const char *text)
{
    syslog(LOG_WARNING, "%s", text);
}

void Logger::logError(const QString &text)
{
    logError(text.toUtf8().constData());
}

void Logger::logError(const char *text)
{
    syslog(LOG_ERR, "%s", text);
}
