#pragma once

#include <QByteArray>
#include <QStringList>

// Changes to the text of an INI file that leave every other line as it was (comments, order,
// spacing), as a person editing the file would.
class IniText
{
public:
    // Sets key in section, adding the key, and the section, when missing.
    static QByteArray set(const QByteArray &text, const QByteArray &section, const QByteArray &key,
                          const QByteArray &value);
    // The keys of a section, in order.
    static QList<QByteArray> keys(const QByteArray &text, const QByteArray &section);
};
