#pragma once

#include <QtGlobal>

class QUrl;

// Pages whose renderer process no longer answers: a script that never ends. Killing the process
// ends the script and frees what it held; the rest of the program never waited for it.
namespace FrozenPages {

// How long a page's renderer may take to answer before it counts as frozen.
constexpr int AnswerDeadlineMs = 3000;

// A slideshow page: its renderer is killed and the page goes into the stalled-pages list, so that
// it is shown without scripts for a while. False when there was no process to kill.
bool endSlideshowPage(qint64 rendererPid, const QUrl &url);
// A kiosk tab: its renderer is killed. False when there was no process to kill.
bool endTab(qint64 rendererPid, const QUrl &url);

} // namespace FrozenPages
