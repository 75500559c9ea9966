#include "commandlineparser.h"
#include "proxyfactory.h"
#include "settings.h"
#include "testsupport.h"

#include <QNetworkProxy>
#include <QtTest>

using namespace testsupport;

Q_DECLARE_METATYPE(QList<QNetworkProxy>)

class TestProxyFactory : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void configuredProxy_data();
    void configuredProxy();
    void autoConfigAnswers_data();
    void autoConfigAnswers();
    void autoDiscoverySetsEnvironment();

private:
    void writePreferences(const QByteArray &network);
    TempHome m_home;
    FakePrograms m_fakes;
    std::unique_ptr<CommandLineParser> m_parser;
};

namespace {
QNetworkProxy http(const QString &host, quint16 port)
{
    return QNetworkProxy(QNetworkProxy::HttpProxy, host, port, "user", "pass");
}
const QNetworkProxy none(QNetworkProxy::NoProxy);
} // namespace

void TestProxyFactory::initTestCase()
{
    m_fakes.add("launchdock");
    m_parser = makeParser(m_home.path());
}

void TestProxyFactory::writePreferences(const QByteArray &network)
{
    writeFile(m_home.filePath("preferences"),
              "[main]\nversion=QFGLs6IVf1\n[network]\nproxy_user=user\nproxy_passwd=pass\n"
                  + network);
    Settings::load(true, m_parser.get());
}

void TestProxyFactory::configuredProxy_data()
{
    QTest::addColumn<QByteArray>("network");
    QTest::addColumn<QList<QNetworkProxy>>("expected");

    QTest::newRow("manual with port")
        << QByteArray("proxy_type=2\nproxy_uri=http://proxy.lan:3128\n")
        << QList<QNetworkProxy>{http("proxy.lan", 3128), none};
    QTest::newRow("manual without port") << QByteArray("proxy_type=2\nproxy_uri=http://proxy.lan\n")
                                         << QList<QNetworkProxy>{http("proxy.lan", 8080), none};
    QTest::newRow("manual with empty address")
        << QByteArray("proxy_type=2\n") << QList<QNetworkProxy>{http("", 8080), none};
    QTest::newRow("no proxy") << QByteArray("proxy_type=0\nproxy_uri=http://proxy.lan:3128\n")
                              << QList<QNetworkProxy>{none};
    QTest::newRow("unknown type") << QByteArray("proxy_type=7\nproxy_uri=http://p:1\n")
                                  << QList<QNetworkProxy>{none};
    QTest::newRow("type not a number")
        << QByteArray("proxy_type=two\nproxy_uri=http://p:1\n") << QList<QNetworkProxy>{none};
}

void TestProxyFactory::configuredProxy()
{
    QFETCH(QByteArray, network);
    QFETCH(QList<QNetworkProxy>, expected);

    writePreferences(network);
    ProxyFactory factory(m_parser.get());
    const QList<QNetworkProxy> proxies
        = factory.queryProxy(QNetworkProxyQuery(QUrl("http://example.com/page")));
    QCOMPARE(proxies, expected);
}

void TestProxyFactory::autoConfigAnswers_data()
{
    QTest::addColumn<QStringList>("answers");
    QTest::addColumn<QList<QNetworkProxy>>("expected");

    QTest::newRow("direct in capitals") << QStringList{"DIRECT"} << QList<QNetworkProxy>{none};
    QTest::newRow("direct url") << QStringList{"direct://"} << QList<QNetworkProxy>{none};
    QTest::newRow("http proxy then direct") << QStringList{"http://cache.lan:3128", "direct://"}
                                            << QList<QNetworkProxy>{http("cache.lan", 3128), none};
    QTest::newRow("socks taken as http")
        << QStringList{"socks://s.lan:1080"} << QList<QNetworkProxy>{http("s.lan", 1080)};
    QTest::newRow("no port") << QStringList{"http://cache.lan"}
                             << QList<QNetworkProxy>{http("cache.lan", 8080)};
    QTest::newRow("no answers") << QStringList{} << QList<QNetworkProxy>{};
}

void TestProxyFactory::autoConfigAnswers()
{
    QFETCH(QStringList, answers);
    QFETCH(QList<QNetworkProxy>, expected);
    QCOMPARE(ProxyFactory::fromAutoConfig(answers, "user", "pass"), expected);
}

void TestProxyFactory::autoDiscoverySetsEnvironment()
{
    const QByteArray saved = qgetenv("http_proxy");
    writePreferences("proxy_type=1\n");
    {
        ProxyFactory factory(m_parser.get());
        QCOMPARE(qgetenv("http_proxy"), QByteArray("wpad://"));
        QCOMPARE(qgetenv("https_proxy"), QByteArray("wpad://"));
        QCOMPARE(qgetenv("ftp_proxy"), QByteArray("wpad://"));
    }
    qputenv("http_proxy", saved);
    qunsetenv("https_proxy");
    qunsetenv("ftp_proxy");
}

QTEST_MAIN(TestProxyFactory)
#include "tst_proxyfactory.moc"
