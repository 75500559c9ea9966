#pragma once

#include <QString>

// The browsing session's working folder, "/tmp/sitedeck-<uid>", where downloads are written.
namespace DownloadFolder {

QString path();
// Where a file that a page names this way is written: always inside the folder (created when
// missing), whatever the server said.
QString target(const QString &fileName);

} // namespace DownloadFolder
