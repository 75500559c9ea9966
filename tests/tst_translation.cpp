#include "installpaths.h"
#include "kioskprocess.h"

#include <QFileInfo>
#include <QProcess>
#include <QtTest>

using namespace testsupport;

// The real program under the user's locale: its offline message box, titled in that language.
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
    QTest::newRow("French") << QByteArray("fr_FR.UTF-8") << QStringLiteral("Réseau inaccessible");
    QTest::newRow("no translation for the locale")
        << QByteArray("xx_YY.UTF-8") << QStringLiteral("Network unreachable");
}

void TestTranslation::offlineMessageSpeaksTheUsersLanguage()
{
    QFETCH(QByteArray, locale);
    QFETCH(QString, title);
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
        xwininfo.start(QStringLiteral("xwininfo"), {QStringLiteral("-root"), QStringLiteral("-tree")});
        xwininfo.waitForFinished();
        return QString::fromUtf8(xwininfo.readAllStandardOutput());
    };
    QTRY_VERIFY_WITH_TIMEOUT(windowTitles().contains(QLatin1Char('"') + title + QLatin1Char('"')),
                             20000);
}

QTEST_GUILESS_MAIN(TestTranslation)
#include "tst_translation.moc"
