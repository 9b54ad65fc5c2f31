#pragma once

#include <QString>

/// The programs and scripts an AppImage is made with.
struct TPackToolchain
{
    /// The portable wizard with its Qt, as bundle/build.sh makes it.
    QString wizardBundle;
    QString runtime;
    QString makeAppDir;
    QString makeAppImage;
};

/// Finds the toolchain from the running tavelin-pack's own directory: an
/// installed one keeps it in ../lib/tavelin and ../share/tavelin, so that the
/// prefix may move; one run from the build tree takes the build tree's.
/// TAVELIN_WIZARD_BUNDLE, when set, names another wizard bundle.
class DPackToolchain
{
public:
    static TPackToolchain locate(const QString& strProgramDir);
    /// False, with strError naming the first piece missing.
    static bool check(const TPackToolchain& toolchain, QString& strError);
};
