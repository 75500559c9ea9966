#include "installpaths.h"
#include "kioskprocess.h"

#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QtTest>

using namespace testsupport;

// The real programs under the user's locale: the offline message box, titled in that language,
// and the remote-control page.
class TestTranslation : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void offlineMessageSpeaksTheUsersLanguage_data();
    void offlineMessageSpeaksTheUsersLanguage();

private:
    const QString m_installed = QStringLiteral(VORSANE_DATA_DIR "/i18n/browser_fr_FR.qm");
    QByteArray m_previous;
    bool m_hadPrevious = false;
};

// The French translation as this build made it, where the program looks for it.
void TestTranslation::initTestCase()
{
    m_hadPrevious = QFile::exists(m_installed);
    m_previous = readFile(m_installed);
    const QString built
        = QFileInfo(programPath()).absolutePath() + QStringLiteral("/i18n/browser_fr_FR.qm");
    QVERIFY2(writeFile(m_installed, readFile(built)), "needs write access to " VORSANE_DATA_DIR);
}

void TestTranslation::cleanupTestCase()
{
    if (m_hadPrevious)
        writeFile(m_installed, m_previous);
    else
        QFile::remove(m_installed);
}

void TestTranslation::offlineMessageSpeaksTheUsersLanguage_data()
{
    QTest::addColumn<QByteArray>("locale");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("next");
    QTest::newRow("French") << QByteArray("fr_FR.UTF-8") << QStringLiteral("Réseau inaccessible")
                            << QStringLiteral(">Suivant<");
    QTest::newRow("no translation for the locale")
        << QByteArray("xx_YY.UTF-8") << QStringLiteral("Network unreachable")
        << QStringLiteral(">Next<");
}

void TestTranslation::offlineMessageSpeaksTheUsersLanguage()
{
    QFETCH(QByteArray, locale);
    QFETCH(QString, title);
    QFETCH(QString, next);
    qputenv("LANG", locale);
    qputenv("LC_ALL", locale);
    KioskProcess kiosk;
    const QByteArray server = "http://127.0.0.1:" + QByteArray::number(closedPort()) + "/playlist";
    QVERIFY(kiosk.start(QByteArray(),
                        "[slideshow]\nplaylist_update_mode=server\npages=" + server + "\n"));

    const auto windowTitles = [] {
        QProcess xwininfo;
        // Its own locale, which the machine has: under one it lacks it prints no accents.
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("LC_ALL"), QStringLiteral("C.UTF-8"));
        xwininfo.setProcessEnvironment(env);
        xwininfo.start(QStringLiteral("xwininfo"),
                       {QStringLiteral("-root"), QStringLiteral("-tree")});
        xwininfo.waitForFinished();
        return QString::fromUtf8(xwininfo.readAllStandardOutput());
    };
    QTRY_VERIFY2_WITH_TIMEOUT(windowTitles().contains(QLatin1Char('"') + title + QLatin1Char('"')),
                              qPrintable(windowTitles() + kiosk.log().right(3000)), 20000);

    QProcess remote;
    const quint16 port = closedPort();
    remote.start(QStringLiteral(VORSANE_REMOTE_BIN),
                 {"--port", QString::number(port), "--basepath", kiosk.confDir()});
    QVERIFY(remote.waitForStarted());
    const auto page = [port] {
        QNetworkAccessManager network;
        std::unique_ptr<QNetworkReply> reply(
            network.get(QNetworkRequest(QUrl(QStringLiteral("http://127.0.0.1:%1/").arg(port)))));
        QSignalSpy(reply.get(), &QNetworkReply::finished).wait(5000);
        return QString::fromUtf8(reply->readAll());
    };
    QTRY_VERIFY_WITH_TIMEOUT(page().contains(next), 10000);
    remote.terminate();
    QVERIFY(remote.waitForFinished());
}

QTEST_GUILESS_MAIN(TestTranslation)
#include "tst_translation.moc"
