#include "commandlineparser.h"
#include "navigationfilter.h"
#include "settings.h"
#include "testsupport.h"

#include <QtTest>

#include <sys/stat.h>

using namespace testsupport;

// The list semantics of the kiosk's URL filter, decided by the filter every kiosk page asks, over a
// real restriction file and preference file.
class TestUrlFilter : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void decision_data();
    void decision();
};

void TestUrlFilter::decision_data()
{
    QTest::addColumn<QString>("mode");
    QTest::addColumn<QByteArray>("list");
    QTest::addColumn<bool>("canAccessFs");
    QTest::addColumn<QString>("url");
    QTest::addColumn<bool>("allowed");

    QTest::newRow("blacklist, star dot word denies the dot")
        << "blacklist" << QByteArray("*.ads\n") << false << "http://x.ads/" << false;
    QTest::newRow("blacklist, the dot is literal")
        << "blacklist" << QByteArray("*.ads\n") << false << "http://x-ads.com/" << true;
    QTest::newRow("whitelist, plain word in the query")
        << "whitelist" << QByteArray("museum\n") << false << "http://a.org/?q=museum" << true;
    QTest::newRow("whitelist, word absent")
        << "whitelist" << QByteArray("museum\n") << false << "http://a.org/" << false;
    QTest::newRow("whitelist, empty line allows all")
        << "whitelist" << QByteArray("museum\n\nzoo\n") << false << "http://a.org/" << true;
    QTest::newRow("whitelist, empty file denies all")
        << "whitelist" << QByteArray() << false << "http://a.org/" << false;
    QTest::newRow("none allows") << "none" << QByteArray("a.org\n") << false << "http://b.org/"
                                 << true;
    QTest::newRow("file scheme denied in mode none")
        << "none" << QByteArray() << false << "file:///etc/hosts" << false;
    QTest::newRow("file scheme allowed with file access")
        << "none" << QByteArray() << true << "file:///etc/hosts" << true;
    QTest::newRow("whitelist still filters file addresses")
        << "whitelist" << QByteArray("museum\n") << true << "file:///etc/hosts" << false;
    QTest::newRow("mode differing in case is none")
        << "Whitelist" << QByteArray("museum\n") << false << "http://a.org/" << true;
    QTest::newRow("plus keeps its meaning")
        << "whitelist" << QByteArray("ab+c\n") << false << "http://abbbc.org/" << true;
    QTest::newRow("bracket class")
        << "whitelist" << QByteArray("ads[0-9]+.fr\n") << false << "http://ads42.fr/" << true;
    QTest::newRow("back reference, QRegExp only")
        << "whitelist" << QByteArray("(ab)\\1\n") << false << "http://x.org/abab" << true;
    QTest::newRow("back reference needs the repeat")
        << "whitelist" << QByteArray("(ab)\\1\n") << false << "http://x.org/ab" << false;
    QTest::newRow("at most count, QRegExp only")
        << "whitelist" << QByteArray("xa{,2}y\n") << false << "http://xay.org/" << true;
    QTest::newRow("count with a leading zero, QRegExp only")
        << "whitelist" << QByteArray("xa{02}y\n") << false << "http://xaay.org/" << true;
    QTest::newRow("word class takes letters beyond ASCII")
        << "whitelist" << QByteArray("caf\\w/\n") << false << "http://x.org/caf\u00e9/" << true;
    QTest::newRow("invalid pattern dropped, others kept")
        << "whitelist" << QByteArray("(open\nmuseum\n") << false << "http://museum.org/" << true;
    QTest::newRow("invalid pattern matches nothing")
        << "whitelist" << QByteArray("(open\n") << false << "http://x.org/(open" << false;
    // Rejected whole, without waiting for a writer or compiling for minutes.
    QTest::newRow("restriction file that is a FIFO")
        << "whitelist" << QByteArray("FIFO") << false << "http://museum.org/" << false;
    QTest::newRow("restriction file over 16 MB")
        << "whitelist" << QByteArray("museum\n").leftJustified(17 << 20, '\n') << false
        << "http://museum.org/" << false;
}

void TestUrlFilter::decision()
{
    QFETCH(QString, mode);
    QFETCH(QByteArray, list);
    QFETCH(bool, canAccessFs);
    QFETCH(QString, url);
    QFETCH(bool, allowed);

    TempHome home;
    const auto parser = makeParser(home.filePath(QStringLiteral("conf")));
    const QString path = home.filePath(QStringLiteral("conf/list"));
    if (list == "FIFO")
        QVERIFY(QDir().mkpath(QFileInfo(path).path())
                && ::mkfifo(QFile::encodeName(path).constData(), 0600) == 0);
    else
        QVERIFY(writeFile(path, list));
    for (const char *useRegex : {"true", "false"}) {
        QVERIFY(writeFile(home.filePath(QStringLiteral("conf/preferences")),
                          "[main]\nversion=QFGLs6IVf1\nlist_mode=" + mode.toUtf8()
                              + "\ncan_access_fs=" + (canAccessFs ? "true" : "false")
                              + "\nlist_use_regex=" + useRegex + "\n"));
        Settings::load(true, parser.get());
        NavigationFilter filter;
        QUrl address(url);
        QCOMPARE(filter.urlIsAllowed(address), allowed);
    }
}

QTEST_MAIN(TestUrlFilter)
#include "tst_urlfilter.moc"
