#pragma once

#include <QString>
#include <QStringList>

struct TPackTreeScan;

/// The refusals that keep a package from installing broken. Each returns
/// false with strError naming the problem.
class DPackChecks
{
public:
    /// Runs desktop-file-validate; its hints, when it accepts, go to warnings.
    static bool checkDesktopEntry(const QString& strPath, QString& strError, QStringList& warnings);
    static bool checkIcon(const QString& strPath, QString& strError);
    /// The wizard cuts localDir's length off mainExePath; what is left must
    /// name a file the copy installs.
    /// The main program's path below the tree, as the installed Exec will reach it.
    static QString mainExeInTree(const QString& strLocalDir, const QString& strMainExePath);
    static bool checkMainExe(const QString& strLocalDir, const QString& strMainExePath, const TPackTreeScan& scan,
                             QString& strError);
    /// zsync|URL and gh-releases-zsync|user|repo|tag|pattern must name the AppImage's own .zsync;
    /// bZsync tells whether the form is one of these. Other forms pass as they are.
    static bool checkUpdateInformation(const QString& strUpdateInformation, const QString& strAppImageName, bool& bZsync,
                                       QString& strError);
};
