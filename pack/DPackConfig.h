#pragma once

#include <QMap>
#include <QString>
#include <QStringList>

/// A package description file kept in the packager's repository: one JSON
/// object whose keys are the packer's long option names, each with a string.
class DPackConfig
{
public:
    /// False, with getError() naming the file and the key, when the file
    /// cannot be read, is not a JSON object, or holds a key outside
    /// knownKeys or a value that is not a string.
    bool load(const QString& strPath, const QStringList& knownKeys);

    bool contains(const QString& strKey) const { return values.contains(strKey); }
    QString value(const QString& strKey) const { return values.value(strKey); }
    /// A path of the file, taken against the file's own directory.
    QString path(const QString& strKey) const;
    QString getFile() const { return strFile; }
    QString getError() const { return strError; }

private:
    bool fail(const QString& strWhat);

    QString strFile;
    QString strError;
    QMap<QString, QString> values;
};
