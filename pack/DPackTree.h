#pragma once

#include <QString>
#include <QStringList>
#include <QVector>

/// One entry the wizard's copy will list, relative to the tree's root.
struct TPackTreeEntry
{
    QString relativePath;
    bool bDir;
};

/// What the wizard's copy sees in an application tree: the entries it lists,
/// in its order, and what it will leave behind.
struct TPackTreeScan
{
    QVector<TPackTreeEntry> entries;
    QStringList warnings;
    QString error;

    int count() const { return entries.size(); }
    bool hasFile(const QString& relativePath) const;
};

/// Walks and copies a tree by the wizard's own listing rules: hidden entries
/// skipped at every depth, links followed, special files and dangling links
/// left out.
class DPackTree
{
public:
    /// False, with scan.error set, when the tree is missing or a directory
    /// link leads back to one of its ancestors.
    static bool scan(const QString& strRoot, TPackTreeScan& scan);
    /// Recreates the scanned entries below strDst, links resolved.
    static bool copy(const QString& strRoot, const TPackTreeScan& scan, const QString& strDst, QString& strError);
    /// The outermost directory on strPath that does not exist yet, which
    /// creating strPath creates; empty when strPath exists.
    static QString outermostMissing(const QString& strPath);
    /// The sizes of the regular files below strDir, added up.
    static qint64 fileBytes(const QString& strDir);

private:
    static bool scanDir(const QString& strDir, const QString& strRelative, QStringList& ancestors, TPackTreeScan& scan);
    static void noteSkipped(const QString& strDir, const QString& strRelative, TPackTreeScan& scan);
};
