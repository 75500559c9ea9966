#pragma once

#include <QNetworkProxyFactory>
#include <QUrl>

class CommandLineParser;
class Settings;
struct pxProxyFactory_;

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
    pxProxyFactory_ *m_autoConfig;
    QString m_user;
    QString m_password;
    QUrl m_proxyUrl;
};
