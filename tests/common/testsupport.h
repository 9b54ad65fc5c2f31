#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

namespace TestSupport {

/// Writes bytes to a file, creating its parent directories.
bool writeFile(const QString& path, const QByteArray& content);
QByteArray readFile(const QString& path);

using EnvList = QList<QPair<QByteArray, QByteArray>>;

/// Why this process cannot run children as the unprivileged user 65534;
/// empty when it can (it is root and setpriv works).
QString unprivilegedUnavailable();

/// Set in a child started by runCurrentCaseAsNobody: the directory the
/// parent handed over.
bool isUnprivilegedChild();
QString unprivilegedChildDir();

/// Runs the current test function and data row again, as user 65534, from
/// a copy of the test binary placed in strDir (the build tree may lie where
/// that user cannot read), with HOME and a runtime directory of its own.
/// Empty when the child passed the case; else what went wrong.
QString runCurrentCaseAsNobody(const QString& strDir, const EnvList& extraEnv = EnvList());

/// What a generated uninstall.sh did when answered.
struct TScriptRun
{
    bool bFinished = false; ///< ended normally within the time limit
    int exitCode = -1;
    QString strOut;
    QString strErr;
};

/// Runs a generated uninstall script with a shell, from workDir, answering
/// its prompt with answer.
TScriptRun runUninstallScript(const QString& strShell, const QString& strScript, const QByteArray& answer,
                              const QString& workDir);

/// Opens strDir to other users (read and enter) so a child as 65534 can use
/// the files in it; a QTemporaryDir is private to its owner.
void openForOthers(const QString& strDir);

} // namespace TestSupport

// Runs the rest of a case as an unprivileged user: in a child when this
// process is root, else right here. Skips where neither is possible.
// Extra arguments are entries of the child's environment: {"NAME", "value"}.
#define TAVELIN_RUN_UNPRIVILEGED(strDir, ...)                                                      \
    do {                                                                                           \
        if (!TestSupport::isUnprivilegedChild() && geteuid() == 0) {                               \
            const QString strWhy = TestSupport::unprivilegedUnavailable();                         \
            if (!strWhy.isEmpty())                                                                 \
                QSKIP(qPrintable(QStringLiteral("root may write everywhere and ") + strWhy));      \
            const QString strFailure = TestSupport::runCurrentCaseAsNobody(                       \
                strDir, TestSupport::EnvList{__VA_ARGS__});                                        \
            QVERIFY2(strFailure.isEmpty(), qPrintable(strFailure));                                \
            return;                                                                                \
        }                                                                                          \
    } while (false)
#include "mainwindow.h"

#include <QMessageBox>

namespace TestSupport {

/// As root a run writes its desktop entry to /usr/share/applications: re-runs
/// this test binary under `unshare -m` with a private tmpfs mounted there.
/// Does nothing for other users, whose entries go below HOME.
void enterPrivateApplicationsDir(int argc, char** argv);
/// Empty when install runs may write their desktop entry; else why not.
QString applicationsDirUnavailable();
/// Where a run puts its desktop entry for the current user.
QString applicationsDir();

/// Points APPDIR at a payload root and reloads the configuration from it.
void loadPayload(const QString& strAppDir);
/// Writes a payload: manifest, desktop entry and the app tree's files.
bool writePayload(const QString& strAppDir, const QByteArray& baManifest, const QByteArray& baDesktop,
                  const QStringList& appFiles);
/// A manifest for writePayload; localDir and mainExePath left empty.
QByteArray manifestJson(int filesTotalCount, const QString& strDesktopFile);

/// A FIFO that holds a worker inside QFile::open until released: a worker
/// reading through it waits for its writer, one writing into it for its reader.
class DFifoGate
{
public:
    explicit DFifoGate(const QString& strPath);
    ~DFifoGate();
    DFifoGate(const DFifoGate&) = delete;
    DFifoGate& operator=(const DFifoGate&) = delete;
    /// A reader is blocked in open(): the worker stands past its state test.
    bool waitForReader(int timeoutMs = 10000);
    /// Ends the reader's copy with an empty file.
    void releaseReader();
    /// Opens the read side and returns all a writer put in, up to its close.
    QByteArray drainWriter();

private:
    QString strPath;
    int fdWriter = -1;
};

/// What a refusal box showed; filled by closeMessageBoxes.
struct TMessageBoxSeen
{
    int count = 0;
    QString title;
    QString text;
    QMessageBox::StandardButtons buttons;
    QMessageBox::Icon icon = QMessageBox::NoIcon;
};
/// Closes every modal QMessageBox shown while it lives, recording the last.
class DMessageBoxCloser : public QObject
{
public:
    explicit DMessageBoxCloser(TMessageBoxSeen* seen);

protected:
    void timerEvent(QTimerEvent* event) override;

private:
    TMessageBoxSeen* seen;
};

/// MainWindow with the run's slots and state open to the tests.
class DProbeWindow : public MainWindow
{
public:
    using MainWindow::onclickCancel;
    using MainWindow::onclickCreate;
    using MainWindow::threadProcHandleObj;
    using MainWindow::timerProcRefresh;
    void setState(EInstallState state) { flagOfInstallState = state; }
    void setCounter(int value) { copyFilesCounter = value; }
    int counter() const { return copyFilesCounter; }
    bool timerActive() const { return timerRefresh.isActive(); }
    void startTick() { timerRefresh.start(500); }
    QPushButton* createButton() const { return btnCreate; }
    QPushButton* cancelButton() const { return btnCancel; }
};

} // namespace TestSupport

/// A Qt Test main that first enters the private applications directory.
#define TAVELIN_TEST_MAIN_ISOLATED(TestObject)                                         \
    int main(int argc, char* argv[])                                                   \
    {                                                                                  \
        TestSupport::enterPrivateApplicationsDir(argc, argv);                          \
        QApplication app(argc, argv);                                                  \
        app.setAttribute(Qt::AA_Use96Dpi, true);                                       \
        TestObject tc;                                                                 \
        QTEST_SET_MAIN_SOURCE_PATH                                                     \
        return QTest::qExec(&tc, argc, argv);                                          \
    }
