#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <unistd.h>

namespace TestSupport {

/// Writes bytes to a file, creating its parent directories.
bool writeFile(const QString& path, const QByteArray& content);
QByteArray readFile(const QString& path);
/// Every entry below a root, relative and sorted; directories end in "/".
QStringList treeOf(const QString& strRoot);
/// Makes entries below a root: "d/" a directory, "l->t" a link to t, "f|" a
/// FIFO; any other file holds its own path.
bool makeTree(const QString& strRoot, const QStringList& entries);

/// Why this process cannot run children as another user; empty when it can.
QString unprivilegedUnavailable();
/// Set in a child started by runCurrentCaseAs: the directory the parent handed over.
QString unprivilegedChildDir();
/// Runs the current test function and data row again as user uid, from a copy
/// of the test binary in strDir (the build tree may be closed to that user),
/// with HOME and a runtime directory of its own there. Empty when the child
/// passed the case; else what it printed.
QString runCurrentCaseAs(int uid, const QString& strDir, const QStringList& extraEnv = QStringList());

/// The installed uninstall script, run by a shell from workDir and answered.
struct TScriptRun
{
    bool bFinished = false;
    int exitCode = -1;
    QString strOut;
    QString strErr;
};
TScriptRun runUninstallScript(const QString& strShell, const QString& strScript, const QByteArray& answer,
                              const QString& workDir);

/// Empty when install runs may write their desktop entry; else why not. As
/// root that needs the private /usr/share/applications of tests/isolated.sh.
QString applicationsDirUnavailable();

/// A FIFO that holds a worker inside QFile::open until released: a worker
/// reading through it waits for its writer, one writing into it for its reader.
class DFifoGate
{
public:
    explicit DFifoGate(const QString& strPath);
    ~DFifoGate() { releaseReader(); }
    /// A reader is blocked in open(): the worker stands past its state test.
    bool waitForReader();
    void releaseReader();
    /// Opens the read side and returns all a writer put in, up to its close.
    QByteArray drainWriter();

private:
    QString strPath;
    int fdWriter = -1;
};

} // namespace TestSupport

// Runs the rest of a case as user uid, in a child started as root; skips
// where that is not possible. Extra arguments are "NAME=value" (or "NAME" to
// remove) entries of the child's environment.
#define TAVELIN_RUN_AS(uid, strDir, ...)                                                          \
    do {                                                                                          \
        if (TestSupport::unprivilegedChildDir().isEmpty() && geteuid() != uid_t(uid)) {           \
            const QString strWhy = TestSupport::unprivilegedUnavailable();                        \
            if (!strWhy.isEmpty())                                                                \
                QSKIP(qPrintable(strWhy));                                                        \
            const QString strFailure = TestSupport::runCurrentCaseAs(uid, strDir, {__VA_ARGS__}); \
            QVERIFY2(strFailure.isEmpty(), qPrintable(strFailure));                               \
            return;                                                                               \
        }                                                                                         \
    } while (false)
// Root may write everywhere: as root the rest of the case runs as user 65534.
#define TAVELIN_RUN_UNPRIVILEGED(strDir, ...)                \
    do {                                                     \
        if (geteuid() == 0)                                  \
            TAVELIN_RUN_AS(65534, strDir, __VA_ARGS__);      \
    } while (false)
