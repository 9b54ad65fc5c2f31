#pragma once

#include <QString>
#include <QStringList>

/// The programs and scripts an AppImage is made with.
struct TPackToolchain
{
    /// The portable wizard with its Qt, as bundle/build.sh makes it.
    QString wizardBundle;
    QString runtime;
    QString makeAppDir;
    QString makeAppImage;
    /// Debian 11's mksquashfs with its libraries: the image's bytes do not
    /// depend on the host's squashfs-tools and zstd.
    QString squasher;
    /// What an AppImage may take from the host, for the floor check.
    QString hostLibraries;
    /// The machine the bundle and the runtime are for.
    QString machine;
};

/// Finds a machine's toolchain from the running tavelin-pack's own
/// directory: an installed one keeps it in ../libexec/tavelin and
/// ../share/tavelin, so that the prefix may move; one run from the build tree
/// reads where the build tree's pieces are from tavelin-pack-build-tree.txt
/// beside it. TAVELIN_WIZARD_BUNDLE and TAVELIN_MKSQUASHFS, when set, name
/// another wizard bundle and another mksquashfs.
class DPackToolchain
{
public:
    /// The machines AppImages are made for, as uname -m names them.
    static QStringList machines();
    static TPackToolchain locate(const QString& strProgramDir, const QString& strMachine);
    /// False, with strError naming the first piece missing.
    static bool check(const TPackToolchain& toolchain, QString& strError);

private:
    static bool missing(const QString& strPiece, QString& strError);
};
