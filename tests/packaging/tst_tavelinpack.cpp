#include "DAppPackModel.h"
#include "DPackTree.h"
#include "DPacker.h"
#include "JsonUtil.h"
#include "mainwindow.h"
#include "testsupport.h"

#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const QByteArray g_validDesktop = "[Desktop Entry]\nType=Application\nName=Demo\nExec=bin/demo %U\nIcon=demo\n";

// Builds a tree from lines "f path", "d path", "l path target", "p path" (FIFO).
bool buildTree(const QString& strRoot, const QStringList& lines)
{
    QDir().mkpath(strRoot);
    for (const QString& strLine : lines) {
        const QStringList parts = strLine.split(QLatin1Char(' '));
        const QString strPath = strRoot + QLatin1Char('/') + parts.value(1);
        QDir().mkpath(QFileInfo(strPath).absolutePath());
        bool bOk = false;
        if (parts.first() == QLatin1String("f"))
            bOk = TestSupport::writeFile(strPath, "content of " + strPath.toUtf8());
        else if (parts.first() == QLatin1String("d"))
            bOk = QDir().mkpath(strPath);
        else if (parts.first() == QLatin1String("l"))
            bOk = ::symlink(parts.value(2).toLocal8Bit().constData(), strPath.toLocal8Bit().constData()) == 0;
        else if (parts.first() == QLatin1String("p"))
            bOk = ::mkfifo(strPath.toLocal8Bit().constData(), 0600) == 0;
        if (!bOk)
            return false;
    }
    return true;
}

// A second count, through POSIX rather than QDir: what stat() sees behind
// each non-hidden name.
int countByPosixWalk(const QByteArray& baDir)
{
    DIR* dir = ::opendir(baDir.constData());
    if (!dir)
        return 0;
    int count = 0;
    while (dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] == '.')
            continue;
        const QByteArray baChild = QByteArray(baDir).append('/').append(entry->d_name);
        struct stat status;
        if (::stat(baChild.constData(), &status) != 0)
            continue;
        if (S_ISDIR(status.st_mode))
            count += 1 + countByPosixWalk(baChild);
        else if (S_ISREG(status.st_mode))
            count += 1;
    }
    ::closedir(dir);
    return count;
}

class DCopyProbe : public MainWindow
{
public:
    // The count the wizard's own copy reaches in a fresh location; -1 when it fails.
    int countCopy(const QString& strSrc, const QString& strDst)
    {
        std::atomic<int> counter{0};
        flagOfInstallState = installing;
        QDir().mkpath(strDst);
        return copyDirectory(strSrc, strDst, true, counter) ? counter.load() : -1;
    }
};

} // namespace

class tst_TavelinPack : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void countFollowsCopyRules_data();
    void countFollowsCopyRules();
    void refusesBrokenPackage_data();
    void refusesBrokenPackage();
    void warnsWithoutStopping_data();
    void warnsWithoutStopping();
    void manifestLoadsBackEqual();
    void commandLineNeedsItsOptions();

private:
    TPackRequest makeRequest(const QString& strBase) const;
    QProcess* runPacker(const TPackRequest& request);

    QScopedPointer<QTemporaryDir> tempDir;
};

void tst_TavelinPack::init()
{
    tempDir.reset(new QTemporaryDir);
    QVERIFY(tempDir->isValid());
    qputenv("HOME", tempDir->path().toLocal8Bit());
}

TPackRequest tst_TavelinPack::makeRequest(const QString& strBase) const
{
    TPackRequest request;
    request.appTree = strBase + QStringLiteral("/tree");
    request.desktopEntry = strBase + QStringLiteral("/demo.desktop");
    request.icon = strBase + QStringLiteral("/demo.png");
    request.nameEng = QStringLiteral("Demo");
    request.nameChs = QStringLiteral("演示");
    request.version = QStringLiteral("2.3.1");
    request.defaultParentDir = QStringLiteral("/opt");
    request.dir = QStringLiteral("demo");
    request.localDir = QStringLiteral("/build/demo/");
    request.mainExePath = QStringLiteral("/build/demo/bin/demo");
    request.outputDir = strBase + QStringLiteral("/out");
    TestSupport::writeFile(request.desktopEntry, g_validDesktop);
    QImage image(16, 16, QImage::Format_ARGB32);
    image.fill(Qt::darkCyan);
    image.save(request.icon, "PNG");
    return request;
}

void tst_TavelinPack::countFollowsCopyRules_data()
{
    QTest::addColumn<QStringList>("tree");
    QTest::addColumn<int>("expected");
    QTest::newRow("files and nested dirs") << QStringList{"f a", "f bin/demo", "f share/x/y/z.txt", "d empty"} << 8;
    QTest::newRow("hidden entries at every depth") << QStringList{"f a", "f .hidden", "f .dir/inside", "f bin/.rc"} << 2;
    QTest::newRow("link to a file counts as a file") << QStringList{"f a", "l b a"} << 2;
    QTest::newRow("link to a dir is descended") << QStringList{"f lib/x.so", "f lib/y.so", "l lib64 lib"} << 6;
    QTest::newRow("link out of the tree is followed") << QStringList{"f ../outside/o1", "f ../outside/o2", "l ext ../outside"} << 3;
    QTest::newRow("dangling link and fifo left out") << QStringList{"f a", "l gone nowhere", "p pipe"} << 1;
    QTest::newRow("hidden link to a dir") << QStringList{"f lib/x", "l .lib lib"} << 2;
}

void tst_TavelinPack::countFollowsCopyRules()
{
    QFETCH(QStringList, tree);
    QFETCH(int, expected);
    const QString strRoot = tempDir->filePath(QStringLiteral("tree"));
    QVERIFY(buildTree(strRoot, tree));

    TPackTreeScan scan;
    QVERIFY2(DPackTree::scan(strRoot, scan), qPrintable(scan.error));
    QCOMPARE(scan.count(), expected);
    QCOMPARE(countByPosixWalk(strRoot.toLocal8Bit()), expected);

    // The copied payload must count the same, and the wizard's copy of it too.
    QString strError;
    const QString strPayload = tempDir->filePath(QStringLiteral("payload"));
    QVERIFY2(DPackTree::copy(strRoot, scan, strPayload, strError), qPrintable(strError));
    QCOMPARE(countByPosixWalk(strPayload.toLocal8Bit()), expected);
    DCopyProbe probe;
    const int copied = probe.countCopy(strPayload, tempDir->filePath(QStringLiteral("installed")));
    if (copied < 0 && QDir(tempDir->filePath(QStringLiteral("installed"))).isEmpty())
        QSKIP("the wizard's copy is not built in this tree yet; checked against the POSIX walk only");
    QCOMPARE(copied, expected);
    QCOMPARE(probe.countCopy(strRoot, tempDir->filePath(QStringLiteral("installed-from-source"))), expected);
}

void tst_TavelinPack::refusesBrokenPackage_data()
{
    QTest::addColumn<QString>("problem");
    QTest::addColumn<QString>("message");
    QTest::newRow("desktop entry without Type") << "desktop" << "rejected by desktop-file-validate";
    QTest::newRow("icon is not an image") << "icon" << "does not load as an image";
    QTest::newRow("main exe outside local dir") << "exe-prefix" << "does not begin with the local dir";
    QTest::newRow("main exe not in tree") << "exe-missing" << "names no installed file";
    QTest::newRow("main exe in a hidden dir") << "exe-hidden" << "names no installed file";
    QTest::newRow("main exe is a dir") << "exe-dir" << "names no installed file";
    QTest::newRow("link loops to an ancestor") << "loop" << "loops back to";
    QTest::newRow("link loops to itself") << "self-loop" << "loops back to";
    QTest::newRow("tree of hidden files only") << "empty" << "is empty";
    QTest::newRow("tree missing") << "no-tree" << "is not a directory";
    QTest::newRow("output not empty") << "output" << "is not empty";
}

void tst_TavelinPack::refusesBrokenPackage()
{
    QFETCH(QString, problem);
    QFETCH(QString, message);
    if (QStandardPaths::findExecutable(QStringLiteral("desktop-file-validate")).isEmpty())
        QSKIP("desktop-file-validate is not installed (Debian package desktop-file-utils)");
    TPackRequest request = makeRequest(tempDir->path());
    QStringList tree{"f bin/demo", "f share/readme"};
    if (problem == QLatin1String("desktop"))
        TestSupport::writeFile(request.desktopEntry, "[Desktop Entry]\nName=Demo\nExec=demo\n");
    else if (problem == QLatin1String("icon"))
        TestSupport::writeFile(request.icon, "not a picture");
    else if (problem == QLatin1String("exe-prefix"))
        request.mainExePath = QStringLiteral("/elsewhere/bin/demo");
    else if (problem == QLatin1String("exe-missing"))
        request.mainExePath = QStringLiteral("/build/demo/bin/other");
    else if (problem == QLatin1String("exe-hidden"))
        tree = QStringList{"f .bin/demo", "f share/readme"}, request.mainExePath = QStringLiteral("/build/demo/.bin/demo");
    else if (problem == QLatin1String("exe-dir"))
        request.mainExePath = QStringLiteral("/build/demo/bin");
    else if (problem == QLatin1String("loop"))
        tree << QStringLiteral("l share/up ..");
    else if (problem == QLatin1String("self-loop"))
        tree << QStringLiteral("l share/here .");
    else if (problem == QLatin1String("empty"))
        tree = QStringList{"f .hidden", "f .config/x"}, request.mainExePath.clear();
    else if (problem == QLatin1String("output"))
        TestSupport::writeFile(request.outputDir + QStringLiteral("/keep.txt"), "mine");
    if (problem != QLatin1String("no-tree"))
        QVERIFY(buildTree(request.appTree, tree));

    DPacker packer;
    QVERIFY(!packer.pack(request));
    QVERIFY2(packer.getError().contains(message), qPrintable(packer.getError()));

    // The tool itself says the same on stderr and fails.
    QScopedPointer<QProcess> process(runPacker(request));
    QCOMPARE(process->exitCode(), 1);
    const QString strStderr = QString::fromLocal8Bit(process->readAllStandardError());
    QVERIFY2(strStderr.contains(QStringLiteral("tavelin-pack: error: ")) && strStderr.contains(message),
             qPrintable(strStderr));
    if (problem == QLatin1String("output"))
        QCOMPARE(TestSupport::readFile(request.outputDir + QStringLiteral("/keep.txt")), QByteArray("mine"));
    else
        QVERIFY(!QFileInfo::exists(request.outputDir));
}

QProcess* tst_TavelinPack::runPacker(const TPackRequest& request)
{
    auto* process = new QProcess;
    const QStringList arguments{
        "--app", request.appTree, "--desktop", request.desktopEntry, "--icon", request.icon,
        "--name-eng", request.nameEng, "--name-chs", request.nameChs, "--app-version", request.version,
        "--publisher", request.publisher, "--website", request.website, "--author", request.author,
        "--email", request.email,
        "--parent-dir", request.defaultParentDir, "--dir", request.dir, "--local-dir", request.localDir,
        "--main-exe", request.mainExePath, "--output", request.outputDir};
    process->start(QStringLiteral(TAVELIN_PACK_BINARY), arguments);
    process->waitForFinished(60000);
    return process;
}

void tst_TavelinPack::warnsWithoutStopping_data()
{
    QTest::addColumn<QString>("entry");
    QTest::addColumn<QString>("warning");
    QTest::addColumn<bool>("bLeftOut");
    QTest::newRow("hidden file") << "f share/.cache" << "hidden entry share/.cache will not be installed" << true;
    QTest::newRow("fifo") << "p share/pipe" << "special file share/pipe will not be installed" << true;
    QTest::newRow("dangling link") << "l share/gone missing" << "dangling link share/gone will not be installed" << true;
    QTest::newRow("main program not executable") << "f share/readme"
                                                 << "main program /build/demo/bin/demo is not executable" << false;
}

void tst_TavelinPack::warnsWithoutStopping()
{
    QFETCH(QString, entry);
    QFETCH(QString, warning);
    QFETCH(bool, bLeftOut);
    if (QStandardPaths::findExecutable(QStringLiteral("desktop-file-validate")).isEmpty())
        QSKIP("desktop-file-validate is not installed (Debian package desktop-file-utils)");
    const TPackRequest request = makeRequest(tempDir->path());
    QVERIFY(buildTree(request.appTree, {"f bin/demo", entry}));
    QScopedPointer<QProcess> process(runPacker(request));
    QCOMPARE(process->exitCode(), 0);
    const QString strStderr = QString::fromLocal8Bit(process->readAllStandardError());
    QVERIFY2(strStderr.contains(QStringLiteral("tavelin-pack: warning: ") + warning), qPrintable(strStderr));
    QVERIFY(QFileInfo(request.outputDir + QStringLiteral("/soft/app/bin/demo")).isFile());
    const QString strEntry = request.outputDir + QLatin1String("/soft/app/") + entry.section(QLatin1Char(' '), 1, 1);
    QCOMPARE(QFileInfo::exists(strEntry), !bLeftOut);
}

void tst_TavelinPack::manifestLoadsBackEqual()
{
    if (QStandardPaths::findExecutable(QStringLiteral("desktop-file-validate")).isEmpty())
        QSKIP("desktop-file-validate is not installed (Debian package desktop-file-utils)");
    TPackRequest request = makeRequest(tempDir->path());
    request.publisher = QStringLiteral("Sample Works");
    request.website = QStringLiteral("https://example.org");
    request.author = QStringLiteral("作者");
    request.email = QStringLiteral("demo@example.org");
    QVERIFY(buildTree(request.appTree, {"f bin/demo", "f share/readme", "f .git/config"}));
    DPacker packer;
    QVERIFY2(packer.pack(request), qPrintable(packer.getError()));

    TAppPackInfo expected;
    expected.base.nameEng = "Demo";
    expected.base.nameChs = "演示";
    expected.base.version = "2.3.1";
    expected.base.publisher = "Sample Works";
    expected.base.website = "https://example.org";
    expected.base.author = "作者";
    expected.base.email = "demo@example.org";
    expected.install.defaultParentDir = "/opt";
    expected.install.dir = "demo";
    expected.install.appIcon = "demo.png";
    expected.install.filesTotalCount = 4;
    expected.install.desktopFile = "demo.desktop";
    expected.files.localDir = "/build/demo/";
    expected.files.mainExePath = "/build/demo/bin/demo";
    expected.appearance.iconPath = request.icon.toStdString();
    expected.appearance.desktopPath = request.desktopEntry.toStdString();
    expected.appearance.shortcutOnStartMenu = 1;
    expected.other.installPkgPath = request.outputDir.toStdString();
    expected.other.installPkgName = "demo-2.3.1";

    const QString strSoft = request.outputDir + QStringLiteral("/soft");
    TAppPackInfo loaded;
    QVERIFY(JsonUtil::initObjFromJsonFile((strSoft + QStringLiteral("/mainifest.json")).toStdString(), loaded));
    QVERIFY2(loaded == expected, qPrintable(loaded.toJsonString()));
    QCOMPARE(TestSupport::readFile(strSoft + QStringLiteral("/desktop/share/applications/demo.desktop")), g_validDesktop);
    QCOMPARE(TestSupport::readFile(strSoft + QStringLiteral("/images/demo.png")), TestSupport::readFile(request.icon));
    QCOMPARE(countByPosixWalk((strSoft + QStringLiteral("/app")).toLocal8Bit()), loaded.install.filesTotalCount);

    // The command line fills every member the same way.
    request.outputDir = tempDir->filePath(QStringLiteral("out-cli"));
    QScopedPointer<QProcess> process(runPacker(request));
    QCOMPARE(process->exitCode(), 0);
    TAppPackInfo loadedCli;
    QVERIFY(JsonUtil::initObjFromJsonFile((request.outputDir + QStringLiteral("/soft/mainifest.json")).toStdString(), loadedCli));
    expected.other.installPkgPath = request.outputDir.toStdString();
    QVERIFY2(loadedCli == expected, qPrintable(loadedCli.toJsonString()));
}

void tst_TavelinPack::commandLineNeedsItsOptions()
{
    QProcess process;
    process.start(QStringLiteral(TAVELIN_PACK_BINARY), {"--app", tempDir->path()});
    QVERIFY(process.waitForFinished(60000));
    QCOMPARE(process.exitCode(), 2);
    QVERIFY(process.readAllStandardError().contains("tavelin-pack: error: missing --desktop"));
}

QTEST_MAIN(tst_TavelinPack)
#include "tst_tavelinpack.moc"
