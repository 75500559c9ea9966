#pragma once

#include <QString>

// Every file and folder of the per-user state directory ~/.vorsane-kiosk, built here only, and
// the one way home is found.
namespace StatePaths {

// $HOME when set, else the account's home from the password database: both programs and every
// class must agree even when a service manager starts them without HOME.
QString home();
// ~/.vorsane-kiosk, and a name inside it. The companion server is handed its home explicitly.
QString root(const QString &homeDir = home());
QString path(const QString &name, const QString &homeDir = home());
// Creates the state directory when missing; false when it cannot be made.
bool ensureRoot();

QString dataDir();          // content cache bodies
QString tagDir();           // their revalidation tags
QString playlistCopy();     // the last playlist received from the network
QString playlistOld();      // the copy played after a network error
QString lastEditStamp();    // the content server's last edit
// Files dropped on the remote page, and uploads in progress, moved in when whole.
QString dropFolder(const QString &homeDir = home());
QString uploadStaging(const QString &homeDir = home());
QString usbAutoDir();       // the copy of the last accepted USB key
QString aliasesDir();       // links for file names that are not valid UTF-8
QString stalledPages();     // pages whose script held the program
QString webProfile();       // the web engine's own storage (QtWebEngine's profile)
QString renderedTemplate(); // the text document rendered into the page template
QString remoteServerLock(); // one companion server per user
QString shortcutBackup();   // the key map saved before the shortcuts were taken away
QString giveBackDir();      // how to give back what a run took from the desktop, one file each
QString desktopBackupDir(); // the desktop's own files as they were before the show changed them
QString playedQueue();      // proof-of-play records not yet taken by the fleet's broker
// The maintenance runner's result folder: the desktop user's, whatever account runs the player.
QString maintenanceDataDir();

} // namespace StatePaths
