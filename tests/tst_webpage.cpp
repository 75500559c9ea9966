#include "dispatcher.h"
#include "httpserver.h"
#include "kioskprocess.h"
#include "show.h"
#include "viewer.h"
#include "webpage.h"
#include "webtest.h"

#include <QGuiApplication>
#include <QRegularExpression>
#include <QScreen>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QtTest>

using namespace testsupport;

namespace {
const QColor red(255, 0, 0);
const QColor green(0, 255, 0);
const QColor black(0, 0, 0);

// Passes in any engine that knows ES2015.
const QByteArray es2015Page = R"(<html><body style="margin:0;background:#f00"><script>
class Probe { get ok() { return [1, 2].map((x) => x * 2)[1] === 4; } }
let probe = new Probe();
if (probe.ok) document.body.style.background = '#0f0';
document.title = 'probed';
</script></body></html>)";

// Turns green only when every feature of today's pages works; each probe is parsed on its own so
// that an engine which does not know a syntax only fails that probe.
const QByteArray modernPage = R"(<html><body style="margin:0;background:#f00">
<div id="grid" style="display:grid;grid-template-columns:10px 10px"><div></div><div id="second"></div></div>
<script type="module">import {answer} from '/module.js'; window.moduleAnswer = answer;</script>
<script>
function probe(source) { try { return new Function(source)() === true; } catch (e) { return false; } }
var ok = probe("async function f() { return await 1; } return typeof f === 'function';")
    && probe("var a = {x: 1}; var b = {...a, y: 2}; return b.x === 1 && b.y === 2;")
    && probe("var a = null; return a?.b === undefined;")
    && probe("return (null ?? 2) === 2;")
    && probe("return [[1], [2, [3]]].flat().length === 3;")
    && typeof window.fetch === 'function'
    && document.getElementById('second').offsetLeft === 10;
window.addEventListener('load', function () {
    if (!ok || window.moduleAnswer !== 42) {
        document.title = 'probed';
        return;
    }
    fetch('/data').then(function (r) { return r.text(); }).then(function (text) {
        if (text === 'fetched')
            document.body.style.background = '#0f0';
        document.title = 'probed';
    });
});
</script></body></html>)";

// Red, with a green square of 100 CSS pixels in the top left corner.
const QByteArray squarePage = "<html><body style='margin:0;background:#f00'>"
                              "<div style='width:100px;height:100px;background:#0f0'></div>"
                              "</body></html>";
// Red, with a green band 400 CSS pixels wide from 1000 down, or from 1000 to the right.
const QByteArray tallPage = "<html><body style='margin:0;background:#f00'>"
                            "<div style='height:1000px'></div>"
                            "<div style='height:400px;background:#0f0'></div>"
                            "<div style='height:3000px'></div></body></html>";
const QByteArray widePage = "<html><body style='margin:0;background:#f00;width:5000px'>"
                            "<div style='position:absolute;left:1000px;top:0;width:400px;"
                            "height:3000px;background:#0f0'></div></body></html>";

bool sameColour(const QColor &a, const QColor &b)
{
    return a.isValid() && qAbs(a.red() - b.red()) <= 24 && qAbs(a.green() - b.green()) <= 24
           && qAbs(a.blue() - b.blue()) <= 24;
}
} // namespace

// Web pages as slideshow items, shown by the real viewer and dispatcher against a local HTTP
// server; what they look like is read from the screen.
class TestWebpage : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void rendering_data();
    void rendering();
    void autoScrollWaitsThenBounces();
    void userAgent_data();
    void userAgent();
    void loadFailure_data();
    void loadFailure();
    void cookieFileAcrossRestarts();

private:
    bool launch(const QByteArray &item, const QStringList &preferences = QStringList());
    QByteArray item(const QString &path, int seconds = 60, const QString &parameters = QString())
    {
        const QString extra
            = parameters.isEmpty() ? QString() : QStringLiteral(" parameters=\"%1\"").arg(parameters);
        return QStringLiteral("<item uri=\"%1\" type=\"url\" time=\"%2\"%3/>\n")
            .arg(m_server->url(path).toString().toHtmlEscaped())
            .arg(seconds)
            .arg(extra)
            .toUtf8();
    }
    void html(const QString &path, const QByteArray &body)
    {
        m_server->setRoute(path, body, 200, {{"Content-Type", "text/html"}});
    }
    Webpage *page() const { return qobject_cast<Webpage *>(m_show->dispatcher->shownWidget()); }
    // The colour on the screen at a point of the viewer.
    QColor screenAt(const QPoint &point) const;

    std::unique_ptr<Show> m_show;
    std::unique_ptr<HttpServer> m_server;
};

void TestWebpage::initTestCase()
{
    QCoreApplication::setOrganizationName(QStringLiteral("VorsaneTest"));
}

void TestWebpage::init()
{
    m_show = std::make_unique<Show>();
    m_server = std::make_unique<HttpServer>();
}

void TestWebpage::cleanup()
{
    m_show.reset();
    m_server.reset();
}

bool TestWebpage::launch(const QByteArray &item, const QStringList &preferences)
{
    return m_show->launch(schedule(xmlLoop("id=\"0\"", item)), preferences) && page();
}

QColor TestWebpage::screenAt(const QPoint &point) const
{
    const QImage shot = QGuiApplication::primaryScreen()->grabWindow(m_show->viewer->winId()).toImage();
    return shot.rect().contains(point) ? shot.pixelColor(point) : QColor();
}

void TestWebpage::rendering_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QString>("parameters");
    QTest::addColumn<QStringList>("preferences");
    QTest::addColumn<QPoint>("point");
    QTest::addColumn<QColor>("colour");

    const QPoint middle(400, 300);
    QTest::newRow("a page without a background of its own is black")
        << QByteArray("<html><body></body></html>") << QString() << QStringList() << middle
        << black;
    QTest::newRow("ES2015 runs") << es2015Page << QString() << QStringList() << middle << green;
    // QtWebKit knows none of them: the page keeps its fallback colour there.
    QTest::newRow("async/await, spread, ?., ??, flat, fetch, grid and modules run")
        << modernPage << QString() << QStringList() << middle << (onWebEngine() ? green : red);
    QTest::newRow("unzoomed, the square ends at 100") << squarePage << QString() << QStringList()
                                                      << QPoint(150, 150) << red;
    QTest::newRow("zoom option") << squarePage << "zoom:2" << QStringList() << QPoint(150, 150)
                                 << green;
    QTest::newRow("zoom preference") << squarePage << QString()
                                     << QStringList{"main/zoomFactor=2"} << QPoint(150, 150)
                                     << green;
    QTest::newRow("zoom option over the preference")
        << squarePage << "zoom:1" << QStringList{"main/zoomFactor=2"} << QPoint(150, 150) << red;
    QTest::newRow("not scrolled") << tallPage << QString() << QStringList() << QPoint(10, 10)
                                  << red;
    QTest::newRow("scrolled down by y") << tallPage << "y:1000" << QStringList() << QPoint(10, 10)
                                        << green;
    QTest::newRow("scrolled right by x") << widePage << "x:1000" << QStringList()
                                         << QPoint(10, 10) << green;
}

void TestWebpage::rendering()
{
    QFETCH(QByteArray, body);
    QFETCH(QString, parameters);
    QFETCH(QStringList, preferences);
    QFETCH(QPoint, point);
    QFETCH(QColor, colour);

    html("/page", body);
    m_server->setRoute("/module.js", "export const answer = 42;", 200,
                       {{"Content-Type", "text/javascript"}});
    m_server->setRoute("/data", "fetched", 200, {{"Content-Type", "text/plain"}});
    QVERIFY(launch(item("/page", 60, parameters), preferences));
    // Pages that probe the engine say when they are done; the others are what they show.
    if (body.contains("probed"))
        QTRY_COMPARE_WITH_TIMEOUT(page()->title(), QString("probed"), 10000);
    QTRY_VERIFY2_WITH_TIMEOUT(sameColour(screenAt(point), colour),
                              qPrintable(screenAt(point).name()), 10000);
}

void TestWebpage::autoScrollWaitsThenBounces()
{
    // Twenty pixels taller than the window: down in a second, then back up. The page notes the
    // lowest point it reached where the test can read it.
    html("/page", "<html><body style='margin:0'><div style='height:620px'></div><script>"
                  "document.body.dataset.lowest = 0; window.addEventListener('scroll', function () {"
                  "document.body.dataset.lowest = Math.max(document.body.dataset.lowest, "
                  "window.scrollY); });</script></body></html>");
    QElapsedTimer clock;
    clock.start();
    QVERIFY(launch(item("/page", 60, "autoscroll")));
    const auto scrollY = [this] { return runScript(page(), "window.scrollY").toInt(); };
    QTRY_VERIFY_WITH_TIMEOUT(scrollY() > 0, 8000);
    QVERIFY2(clock.elapsed() >= 4900, QByteArray::number(clock.elapsed()));
    QTRY_COMPARE_WITH_TIMEOUT(runScript(page(), "document.body.dataset.lowest").toInt(), 20, 3000);
    QTRY_VERIFY_WITH_TIMEOUT(scrollY() < 15, 3000);
}

void TestWebpage::userAgent_data()
{
    QTest::addColumn<QStringList>("preferences");
    QTest::addColumn<QString>("agent");

    QTest::newRow("built in, with the engine's version")
        << QStringList()
        << R"(^Mozilla/5\.0 \(X11; Linux; [a-zA-Z_]+\) AppleWebKit/([0-9.]+) \(KHTML, like Gecko\) )"
           R"(Chrome/36\.0\.1985\.125 Safari/\1 VorsaneKiosk/16\.04\.a$)";
    QTest::newRow("from the preferences")
        << QStringList{"main/user_agent=Signage/1.0"} << "^Signage/1\\.0$";
}

void TestWebpage::userAgent()
{
    QFETCH(QStringList, preferences);
    QFETCH(QString, agent);

    html("/page", "<html><body>agent</body></html>");
    QVERIFY(launch(item("/page"), preferences));
    QTRY_VERIFY(m_server->requestCount("/page") > 0);
    const QString sent = QString::fromLatin1(m_server->lastRequest("/page").header("user-agent"));
    QVERIFY2(QRegularExpression(agent).match(sent).hasMatch(), qPrintable(sent));
}

void TestWebpage::loadFailure_data()
{
    QTest::addColumn<QString>("parameters");
    QTest::addColumn<bool>("staysWithText");

    QTest::newRow("the item ends at once") << QString() << false;
    QTest::newRow("all_webpages: the error text for the item's time") << "all_webpages" << true;
}

void TestWebpage::loadFailure()
{
    QFETCH(QString, parameters);
    QFETCH(bool, staysWithText);

    // Nothing listens there. A picture first: the show is under way when the page fails.
    const QUrl unreachable(QStringLiteral("http://127.0.0.1:%1/page").arg(closedPort()));
    const QString picture = m_show->home.filePath("red.png");
    QVERIFY(makeImage(picture, QSize(64, 48), Qt::red, "PNG"));
    QVERIFY(m_show->launch(schedule(xmlLoop(
        "id=\"0\"", xmlItem("file://" + picture, "image", 1)
                        + QStringLiteral("<item uri=\"%1\" type=\"url\" time=\"60\" "
                                         "parameters=\"%2\"/>\n")
                              .arg(unreachable.toString(), parameters)
                              .toUtf8()))));
    QTRY_VERIFY_WITH_TIMEOUT(m_show->log.contains("Cannot load page"), 8000);
    if (!staysWithText) {
        // The next item, long before the page's minute is over.
        QTRY_VERIFY_WITH_TIMEOUT(!page(), 2000);
        return;
    }
    // The page may have been loaded ahead, under the item before it.
    QTRY_VERIFY_WITH_TIMEOUT(page(), 5000);
    QPointer<Webpage> shown = page();
    QTRY_VERIFY_WITH_TIMEOUT(
        pageText(shown).contains(
            "Network error: please make sure you are correctly connected to internet."),
        5000);
    QCOMPARE(m_show->dispatcher->shownWidget(), shown.data());
}

void TestWebpage::cookieFileAcrossRestarts()
{
    HttpServer server;
    // A page that sets a cookie of its own, a persistent one; never from a cache.
    server.setRoute("/page", "<html><body>cookies</body></html>", 200,
                    {{"Content-Type", "text/html"},
                     {"Cache-Control", "no-store"},
                     {"Set-Cookie", "fromPage=1; Max-Age=3600; Path=/"}});
    KioskProcess kiosk;
    {
        QVERIFY(QDir().mkpath(kiosk.confDir()));
        QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", "cookies");
        db.setDatabaseName(kiosk.confDir() + "/cookies.sqlite");
        QVERIFY(db.open());
        QSqlQuery query(db);
        QVERIFY(query.exec("CREATE TABLE moz_cookies (id INTEGER PRIMARY KEY, name TEXT, value "
                           "TEXT, host TEXT, path TEXT, expiry INTEGER, lastAccessed INTEGER, "
                           "isSecure INTEGER,isHttpOnly INTEGER)"));
        QVERIFY(query.exec("INSERT INTO moz_cookies (name, value, host, path, expiry, "
                           "lastAccessed, isSecure, isHttpOnly) VALUES ('visitor', '42', "
                           "'127.0.0.1', '/', 0, '', 0, 0)"));
        db.close();
    }
    QSqlDatabase::removeDatabase("cookies");
    // Shown twice per run, each time with the file's cookies only.
    const QByteArray playlist = "#Vorsane playlist\n" + server.url("/page").toEncoded() + " 2\n"
                                + server.url("/page").toEncoded() + " 60\n";
    for (int run = 0; run < 2; ++run) {
        const int before = server.requestCount("/page");
        QVERIFY(kiosk.start(playlist, "fullscreen=false\n"));
        for (int shown = 1; shown <= 2; ++shown) {
            QTRY_VERIFY_WITH_TIMEOUT(server.requestCount("/page") >= before + shown, 15000);
            const QByteArray sent = server.lastRequest("/page").header("cookie");
            QVERIFY2(sent.contains("visitor=42"), sent.constData());
            // What a page set goes with it, and with the program: nothing is kept for later.
            QVERIFY2(!sent.contains("fromPage"), sent.constData());
        }
        QCOMPARE(kiosk.interrupt(), 2);
    }
}

QTEST_MAIN(TestWebpage)
#include "tst_webpage.moc"
