// A cache tag file of any content beside a data file: checked as the downloader checks it,
// then swept by the clean-up.
#include "cleanser.h"
#include "fuzzsupport.h"
#include "itemdownloader.h"
#include "settings.h"

#include <QDateTime>
#include <QFile>

namespace {
bool write(const QString &path, const QByteArray &bytes, const QDateTime &modified)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    file.write(bytes);
    file.setFileTime(modified, QFileDevice::FileModificationTime);
    return true;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const QString root = fuzz::home() + QStringLiteral("/.vorsane-kiosk");
    static const bool prepared = [] {
        QDir().mkpath(root + QStringLiteral("/data"));
        QDir().mkpath(root + QStringLiteral("/etag"));
        Settings::load(false, nullptr)->set(QStringLiteral("slideshow/clean_after"), true);
        return true;
    }();
    Q_UNUSED(prepared)
    if (size == 0)
        return 0;
    // The first byte sizes the data file, the rest is the tag.
    const QByteArray body(int(data[0]), 'x');
    const QByteArray tag(reinterpret_cast<const char *>(data) + 1, int(size - 1));
    const QDateTime old = QDateTime::currentDateTime().addDays(-2);
    const QString dataPath = root + QStringLiteral("/data/aGVsbG8=");
    const QString tagPath = root + QStringLiteral("/etag/aGVsbG8=");
    if (!write(dataPath, body, old) || !write(tagPath, tag, old))
        return 0;
    ItemDownloader item(QStringLiteral("http://127.0.0.1:1/hello"), dataPath, tagPath, false);
    item.inCache();
    write(dataPath, body, old);
    Cleanser(Settings::load(false, nullptr)).clean();
    return 0;
}
