#include "proxyfactory.h"

#include "settings.h"

#include <QNetworkProxy>

#include <proxy.h>

namespace {
const int defaultProxyPort = 8080;

pxProxyFactory *autoConfig(void *factory)
{
    return static_cast<pxProxyFactory *>(factory);
}

QNetworkProxy httpProxy(const QUrl &url, const QString &user, const QString &password)
{
    return QNetworkProxy(QNetworkProxy::HttpProxy, url.host(),
                         static_cast<quint16>(url.port(defaultProxyPort)), user, password);
}
} // namespace

ProxyFactory::ProxyFactory(const CommandLineParser *parser)
    : m_settings(Settings::load(false, parser))
    , m_proxyType(m_settings->get(QStringLiteral("network/proxy_type")).toInt())
{
    if (m_proxyType == 1) {
        // Makes libproxy's environment lookup pick auto-discovery for every scheme.
        qputenv("http_proxy", "wpad://");
        qputenv("https_proxy", "wpad://");
        qputenv("ftp_proxy", "wpad://");
    }
    m_autoConfig = px_proxy_factory_new();
    m_user = m_settings->get(QStringLiteral("network/proxy_user")).toString();
    m_password = m_settings->get(QStringLiteral("network/proxy_passwd")).toString();
    m_proxyUrl
        = QUrl(m_settings->get(QStringLiteral("network/proxy_uri")).toString(), QUrl::TolerantMode);
}

ProxyFactory::~ProxyFactory()
{
    if (m_autoConfig)
        px_proxy_factory_free(autoConfig(m_autoConfig));
}

QList<QNetworkProxy> ProxyFactory::queryProxy(const QNetworkProxyQuery &query)
{
    if (m_proxyType == 2)
        return {httpProxy(m_proxyUrl, m_user, m_password), QNetworkProxy(QNetworkProxy::NoProxy)};

    if (m_proxyType == 1) {
        if (!m_autoConfig)
            return {};
        char **proxies = px_proxy_factory_get_proxies(autoConfig(m_autoConfig),
                                                      query.url().toString().toUtf8().constData());
        if (!proxies)
            return {};
        QStringList answers;
        for (char **entry = proxies; *entry; ++entry)
            answers << QString::fromUtf8(*entry);
        px_proxy_factory_free_proxies(proxies);
        return fromAutoConfig(answers, m_user, m_password);
    }

    return {QNetworkProxy(QNetworkProxy::NoProxy)};
}

QList<QNetworkProxy> ProxyFactory::fromAutoConfig(const QStringList &answers, const QString &user,
                                                  const QString &password)
{
    QList<QNetworkProxy> result;
    for (const QString &answer : answers) {
        const QString lowered = answer.toLower();
        if (lowered.startsWith(QLatin1String("direct")))
            result << QNetworkProxy(QNetworkProxy::NoProxy);
        else // a SOCKS answer is taken as an HTTP proxy too, as it always was
            result << httpProxy(QUrl(lowered), user, password);
    }
    return result;
}
