#pragma once

#include <QRect>
#include <QString>
#include <QVariant>

class QWidget;
class WebView;

namespace testsupport {

// The engine this build shows pages with.
bool onWebEngine();

// Runs a script in the view's page and waits for its result; invalid when none came in time.
QVariant runScript(WebView *view, const QString &script, int timeoutMs = 5000);
// The text a visitor reads on the page.
QString pageText(WebView *view);
// Where the first element that the CSS selector finds lies in the view; empty if none.
QRect elementRect(WebView *view, const QString &selector);
// The widget inside the view that takes mouse and keys.
QWidget *inputWidget(WebView *view);

// Sets what the web engine needs to run in tests: a sandbox it can start as root (with a note),
// stable painting under Xvfb. Before the first page or program start.
void prepareWebEngine();

} // namespace testsupport
