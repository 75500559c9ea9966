#pragma once

#include <QList>
#include <QMap>
#include <QStringList>

// Properties of one XFCE settings channel changed for as long as the show runs, through
// xfconf-query: the settings daemon owns the channel's file and tells every program of the
// change. The values as they were are put back the same way.
class XfconfEdit
{
public:
    struct Change
    {
        QString property;
        // Empty to remove the property.
        QString type;
        QString value;
    };

    explicit XfconfEdit(const QString &channel);

    // The channel's properties under prefix with their values; false when they cannot be read.
    bool list(const QString &prefix, QMap<QString, QString> *values) const;
    // Notes the values as they are now; for a string property that will be removed, the value
    // it had when it is known already (from list()).
    void saveBackup(const QList<Change> &changes, const QMap<QString, QString> &known = {});
    // Applies the changes; false when one of them failed.
    bool write(const QList<Change> &changes) const;
    QList<QStringList> restoreCommands() const;

private:
    QStringList query(const QStringList &arguments) const;

    QString m_channel;
    // What to do to give each property back: the same structure, the value it had.
    QList<Change> m_previous;
};
