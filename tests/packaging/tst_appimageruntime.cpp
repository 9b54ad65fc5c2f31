#include "testsupport.h"

#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <unistd.h>

namespace {

// Writes what the runtime handed over, one value a line, then ends with 7.
const QByteArray g_appRun = "#!/bin/sh\n"
                            "out=\"$OWD/report\"\n"
                            "{ echo \"$APPDIR\"; echo \"$APPIMAGE\"; echo \"$ARGV0\"; echo \"$OWD\"; pwd;\n"
                            "  stat -c %a \"$APPDIR\"; grep -qs \" $APPDIR \" /proc/mounts && echo mounted || echo extracted;\n"
                            "  echo \"$(cat \"$APPDIR/payload.txt\")\"; for a in \"$@\"; do echo \"[$a]\"; done; } > \"$out\"\n"
                            "exit 7\n";

QProcess* run(const QString& strProgram, const QStringList& arguments, const QString& strDir,
              const QStringList& extraEnv = {})
{
    auto* process = new QProcess;
    process->setWorkingDirectory(strDir);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const QString& strPair : extraEnv)
        environment.insert(strPair.section(QLatin1Char('='), 0, 0), strPair.section(QLatin1Char('='), 1));
    process->setProcessEnvironment(environment);
    process->start(strProgram, arguments);
    process->waitForFinished(60000);
    return process;
}

// What the runtime asks before it mounts.
bool fuseUsable()
{
    return ::access("/dev/fuse", R_OK | W_OK) == 0 && !QStandardPaths::findExecutable(QStringLiteral("squashfuse")).isEmpty()
        && !(QStandardPaths::findExecutable(QStringLiteral("fusermount")).isEmpty()
             && QStandardPaths::findExecutable(QStringLiteral("fusermount3")).isEmpty());
}

} // namespace

class tst_AppImageRuntime : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void runsAppRunWithItsEnvironment_data();
    void runsAppRunWithItsEnvironment();
    void offsetIsTheRuntimeSize();
    void extractsIntoSquashfsRoot();
    void refusesWithAClearMessage_data();
    void refusesWithAClearMessage();

private:
    QString strRuntime;
    QScopedPointer<QTemporaryDir> tempDir;
    QString strAppImage;
};

void tst_AppImageRuntime::initTestCase()
{
#ifdef TAVELIN_RUNTIME_BINARY
    strRuntime = QStringLiteral(TAVELIN_RUNTIME_BINARY);
#else
    QSKIP("the runtime is not built here (libsquashfuse-dev missing)");
#endif
    if (QStandardPaths::findExecutable(QStringLiteral("mksquashfs")).isEmpty())
        QSKIP("mksquashfs is not installed (Debian package squashfs-tools)");
}

void tst_AppImageRuntime::init()
{
    tempDir.reset(new QTemporaryDir);
    QVERIFY(tempDir->isValid());
    const QString strAppDir = tempDir->filePath(QStringLiteral("AppDir"));
    QVERIFY(TestSupport::writeFile(strAppDir + QStringLiteral("/AppRun"), g_appRun));
    QVERIFY(QFile::setPermissions(strAppDir + QStringLiteral("/AppRun"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
    QVERIFY(TestSupport::writeFile(strAppDir + QStringLiteral("/payload.txt"), "from the image"));
    QVERIFY(TestSupport::writeFile(strAppDir + QStringLiteral("/sub/deep/file"), QByteArray(200000, 'x')));
    const QString strImage = tempDir->filePath(QStringLiteral("image.sqfs"));
    QScopedPointer<QProcess> squash(run(QStringLiteral("mksquashfs"), {strAppDir, strImage, "-noappend", "-quiet"}, tempDir->path()));
    QCOMPARE(squash->exitCode(), 0);
    strAppImage = tempDir->filePath(QStringLiteral("test.AppImage"));
    QVERIFY(TestSupport::writeFile(strAppImage, TestSupport::readFile(strRuntime) + TestSupport::readFile(strImage)));
    QVERIFY(QFile::setPermissions(strAppImage, QFile::ReadOwner | QFile::ExeOwner));
    QDir().mkpath(tempDir->filePath(QStringLiteral("owd")));
}

void tst_AppImageRuntime::runsAppRunWithItsEnvironment_data()
{
    QTest::addColumn<bool>("bExtract");
    QTest::newRow("mounted where FUSE allows") << false;
    QTest::newRow("extracted") << true;
}

void tst_AppImageRuntime::runsAppRunWithItsEnvironment()
{
    QFETCH(bool, bExtract);
    const QString strOwd = tempDir->filePath(QStringLiteral("owd"));
    QStringList extraEnv{QStringLiteral("TMPDIR=") + tempDir->path()};
    if (bExtract)
        extraEnv << QStringLiteral("TAVELIN_APPIMAGE_EXTRACT_AND_RUN=1");
    QScopedPointer<QProcess> process(run(QStringLiteral("../test.AppImage"), {"one", "two words", ""}, strOwd, extraEnv));
    QCOMPARE(process->exitCode(), 7);

    const QStringList report = QString::fromUtf8(TestSupport::readFile(strOwd + QStringLiteral("/report"))).split('\n');
    QCOMPARE(report.size(), 12);
    const QString strAppDir = report.at(0);
    QVERIFY2(strAppDir.startsWith(tempDir->path() + QStringLiteral("/.")), qPrintable(strAppDir));
    QCOMPARE(report.at(1), QFileInfo(strAppImage).canonicalFilePath());
    QCOMPARE(report.at(2), QStringLiteral("../test.AppImage"));
    QCOMPARE(report.at(3), strOwd);
    QCOMPARE(report.at(4), strOwd);
    // Where FUSE looks usable but refuses the mount, the runtime says so and extracts.
    const bool bMountRefused = process->readAllStandardError().contains("extracting instead");
    if (bExtract || !fuseUsable() || bMountRefused)
        QCOMPARE(report.mid(5, 2), (QStringList{"700", "extracted"}));
    else
        QCOMPARE(report.at(6), QStringLiteral("mounted"));
    QCOMPARE(report.at(7), QStringLiteral("from the image"));
    QCOMPARE(report.mid(8, 3), (QStringList{"[one]", "[two words]", "[]"}));
    // Nothing stays behind once AppRun has ended.
    QVERIFY2(!QFileInfo::exists(strAppDir), qPrintable(strAppDir));
}

void tst_AppImageRuntime::offsetIsTheRuntimeSize()
{
    QScopedPointer<QProcess> process(run(strAppImage, {"--appimage-offset"}, tempDir->path()));
    QCOMPARE(process->exitCode(), 0);
    QCOMPARE(process->readAllStandardOutput().trimmed().toLongLong(), QFileInfo(strRuntime).size());
    QCOMPARE(TestSupport::readFile(strRuntime).mid(8, 3), QByteArray("AI\x02", 3));
}

void tst_AppImageRuntime::extractsIntoSquashfsRoot()
{
    const QString strOwd = tempDir->filePath(QStringLiteral("owd"));
    QScopedPointer<QProcess> process(run(strAppImage, {"--appimage-extract"}, strOwd));
    QCOMPARE(process->exitCode(), 0);
    const QString strRoot = strOwd + QStringLiteral("/squashfs-root");
    QCOMPARE(TestSupport::readFile(strRoot + QStringLiteral("/payload.txt")), QByteArray("from the image"));
    QCOMPARE(TestSupport::readFile(strRoot + QStringLiteral("/sub/deep/file")), QByteArray(200000, 'x'));
    QCOMPARE(TestSupport::readFile(strRoot + QStringLiteral("/AppRun")), g_appRun);
    QVERIFY(QFileInfo(strRoot + QStringLiteral("/AppRun")).isExecutable());
}

void tst_AppImageRuntime::refusesWithAClearMessage_data()
{
    QTest::addColumn<QString>("problem");
    QTest::addColumn<QString>("message");
    QTest::newRow("no image appended") << "bare" << "cannot read the squashfs image";
    QTest::newRow("unknown runtime option") << "option" << "unknown option --appimage-frobnicate";
}

void tst_AppImageRuntime::refusesWithAClearMessage()
{
    QFETCH(QString, problem);
    QFETCH(QString, message);
    QString strProgram = strAppImage;
    QStringList arguments;
    if (problem == QLatin1String("bare")) {
        strProgram = tempDir->filePath(QStringLiteral("bare.AppImage"));
        QVERIFY(QFile::copy(strRuntime, strProgram));
    } else {
        arguments << QStringLiteral("--appimage-frobnicate");
    }
    QScopedPointer<QProcess> process(run(strProgram, arguments, tempDir->path(), {QStringLiteral("TMPDIR=") + tempDir->path()}));
    QCOMPARE(process->exitCode(), 1);
    const QString strStderr = QString::fromLocal8Bit(process->readAllStandardError());
    QVERIFY2(strStderr.contains(QStringLiteral("tavelin-runtime: ")) && strStderr.contains(message), qPrintable(strStderr));
    // A failed start leaves no temporary directory.
    QCOMPARE(QDir(tempDir->path()).entryList({QStringLiteral(".tavelin-appimage-*"), QStringLiteral(".mount_tavelin*")},
                                             QDir::Dirs | QDir::Hidden), QStringList());
}

QTEST_GUILESS_MAIN(tst_AppImageRuntime)
#include "tst_appimageruntime.moc"
