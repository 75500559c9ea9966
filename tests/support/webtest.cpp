#include "webtest.h"

#include "webview.h"

#include <QDebug>
#include <QPointer>
#include <QTest>

#include <cstdio>
#include <unistd.h>

namespace testsupport {

bool onWebEngine()
{
    return QLatin1String(VORSANE_WEB_ENGINE_NAME) == QLatin1String("webengine");
}

QVariant runScript(WebView *view, const QString &script, int timeoutMs)
{
    auto answer = std::make_shared<std::pair<bool, QVariant>>(false, QVariant());
    view->runScript(script, [answer](const QVariant &result) { *answer = {true, result}; });
    if (!QTest::qWaitFor([&answer] { return answer->first; }, timeoutMs))
        qWarning() << "No answer from the page to" << script;
    return answer->second;
}

QString pageText(WebView *view)
{
    return view ? runScript(view, QStringLiteral("document.body ? document.body.innerText : ''"))
                      .toString()
                : QString();
}

QRect elementRect(WebView *view, const QString &selector)
{
    const QVariantList box
        = runScript(view, QStringLiteral("(function(){var e=document.querySelector('%1');"
                                         "if(!e)return [];var r=e.getBoundingClientRect();"
                                         "return [r.left,r.top,r.width,r.height];})()")
                              .arg(selector))
              .toList();
    if (box.size() != 4)
        return QRect();
    return QRect(box.at(0).toInt(), box.at(1).toInt(), box.at(2).toInt(), box.at(3).toInt());
}

QWidget *inputWidget(WebView *view)
{
    return view->focusProxy() ? view->focusProxy() : view;
}

void prepareWebEngine()
{
    if (::geteuid() == 0 && qEnvironmentVariableIsEmpty("QTWEBENGINE_DISABLE_SANDBOX")) {
        static bool noted = false;
        if (!noted)
            std::fprintf(stderr, "Running as root: the web engine's sandbox is off for the tests "
                                 "(QTWEBENGINE_DISABLE_SANDBOX=1).\n");
        noted = true;
        qputenv("QTWEBENGINE_DISABLE_SANDBOX", "1");
    }
    // Without a GPU, the engine's software scene graph paints steadily.
    if (qEnvironmentVariableIsEmpty("QT_QUICK_BACKEND"))
        qputenv("QT_QUICK_BACKEND", "software");
}

} // namespace testsupport
