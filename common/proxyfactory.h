#pragma once

#include <QNetworkProxyFactory>
#include <QUrl>

class CommandLineParser;
class Settings;

// Chooses the proxy for every request from the network/... preferences.
class ProxyFactory : public QNetworkProxyFactory
{
public:
    explicit ProxyFactory(const CommandLineParser *parser);
    ~ProxyFactory() override;

    QList<QNetworkProxy> queryProxy(const QNetworkProxyQuery &query) override;

    // Turns libproxy's answers ("direct://", "http://host:port", ...) into proxy entries.
    static QList<QNetworkProxy> fromAutoConfig(const QStringList &answers, const QString &user,
                                               const QString &password);

private:
    Settings *m_settings;
    int m_proxyType;
    // libproxy's factory. Its struct is named differently from one libproxy release to the
    // next (Debian 12 and 13), so it is kept untyped outside the one file that uses it.
    void *m_autoConfig;
    QString m_user;
    QString m_password;
    QUrl m_proxyUrl;
};
